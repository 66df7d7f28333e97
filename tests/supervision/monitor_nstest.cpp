// Monitor against real System V queues (fresh IPC namespace): refresh reaching every object before
// the TimerManager's timers are cleared, messages with a body on the monitor queue, tick posting.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "FakeMonitored.h"
#include "Monitor.h"
#include "MsgQueue.h"
#include "ProcessContext.h"
#include "TimerManager.h"

namespace {

struct RawMsg {
    long mtype;
    char body[64];
};

class PrivateQueue {
  public:
    PrivateQueue() : id(msgget(IPC_PRIVATE, IPC_CREAT | 0600)) {}
    ~PrivateQueue() { msgctl(id, IPC_RMID, nullptr); }
    size_t depth() const {
        msqid_ds info{};
        return msgctl(id, IPC_STAT, &info) == 0 ? info.msg_qnum : 0;
    }
    int id;
};

class RecordingHandler : public TimerHandler {
  public:
    void onTimer(uint32_t timerId) override {
        std::lock_guard<std::mutex> hold(lock);
        fired.push_back(timerId);
    }
    std::vector<uint32_t> firedIds() {
        std::lock_guard<std::mutex> hold(lock);
        return fired;
    }

  private:
    std::mutex lock;
    std::vector<uint32_t> fired;
};

RecordingHandler timerHandler;

// Its refresh arms a one-shot timer: if clearTimers ran before the objects were told, that timer
// would survive and fire.
class ArmingOnRefresh : public FakeMonitored {
  public:
    using FakeMonitored::FakeMonitored;
    void onRefresh() override {
        FakeMonitored::onRefresh();
        TimerManager::instance()->addTimer(&timerHandler, TimerManager::TIMER_ONCE, 100, 2);
    }
};

TEST(MonitorRefresh, ReachesEveryObjectInOrderThenClearsTheTimers) {
    CallLog log;
    ArmingOnRefresh first("first", &log);
    FakeMonitored second("second", &log);
    addMonitoredObject(&first);
    addMonitoredObject(&second);

    TimerManager* manager = TimerManager::instance();
    manager->addTimer(&timerHandler, TimerManager::TIMER_ONCE, 100, 1);

    ProcessStatusRecord record{};
    monitorHandleMessage(&record, kRefreshMsgType);
    EXPECT_EQ(record.msgCount, 1u);
    EXPECT_EQ(log.take(), (std::vector<std::string>{"first:refresh", "second:refresh"}));
    removeMonitoredObject(&first);
    removeMonitoredObject(&second);

    // One tick runs one pass over everything registered: timer 3 fires in it, and so would 1 and
    // 2 had they survived the refresh.
    manager->addTimer(&timerHandler, TimerManager::TIMER_ONCE, 100, 3);
    QueueMsg tick{};
    tick.mtype = 1;
    tick.dataLen = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (timerHandler.firedIds().empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(timerHandler.firedIds(), std::vector<uint32_t>{3});
}

TEST(MonitorQueue, MessagesWithABodyAreTakenOffAndCountedWithoutWedging) {
    PrivateQueue queue;
    ASSERT_NE(queue.id, -1);
    RawMsg withBody = {kRefreshMsgType, "payload"};
    RawMsg empty = {kTickMsgType, {0}};
    RawMsg other = {2, "x"};
    ASSERT_EQ(msgsnd(queue.id, &withBody, 16, 0), 0);
    ASSERT_EQ(msgsnd(queue.id, &empty, 0, 0), 0);
    ASSERT_EQ(msgsnd(queue.id, &other, 4, 0), 0);  // as a QueueMsg with dataLen 0 would arrive

    std::vector<long> types;
    for (int i = 0; i < 3; ++i) {
        long type = 0;
        ASSERT_TRUE(monitorReceive(queue.id, &type));
        types.push_back(type);
    }
    EXPECT_EQ(types, (std::vector<long>{kRefreshMsgType, kTickMsgType, 2}));
    EXPECT_EQ(queue.depth(), 0u);

    long type = 0;
    EXPECT_FALSE(monitorReceive(-1, &type));
}

TEST(MonitorQueue, TimerHandlePostsAnEmptyTickAndReportsAFailedSend) {
    PrivateQueue queue;
    ASSERT_NE(queue.id, -1);
    int32_t saved = monitorQueueId.load();
    monitorQueueId.store(queue.id);

    testing::internal::CaptureStdout();
    TimerHandle(sigval{});
    TimerHandle(sigval{});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    ASSERT_EQ(queue.depth(), 2u);
    // A body size of 0 without MSG_NOERROR only succeeds for an empty body.
    RawMsg received{};
    ASSERT_EQ(msgrcv(queue.id, &received, 0, 0, IPC_NOWAIT), 0);
    EXPECT_EQ(received.mtype, kTickMsgType);

    monitorQueueId.store(-1);
    testing::internal::CaptureStdout();
    TimerHandle(sigval{});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TimerHandle");
    monitorQueueId.store(saved);
}

}  // namespace
