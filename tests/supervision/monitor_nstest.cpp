// Monitor against real System V queues (fresh IPC namespace): refresh reaching every object before
// the TimerManager's timers are cleared, messages with a body on the monitor queue, tick posting.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "FakeMonitored.h"
#include "Monitor.h"
#include "ProcessContext.h"
#include "TimerManager.h"

namespace {

struct RawMsg {
    long mtype;
    char body[64];
};

struct PrivateQueue {
    PrivateQueue() : id(msgget(IPC_PRIVATE, IPC_CREAT | 0600)) {}
    ~PrivateQueue() { msgctl(id, IPC_RMID, nullptr); }
    size_t depth() const {
        msqid_ds info{};
        return msgctl(id, IPC_STAT, &info) == 0 ? info.msg_qnum : 0;
    }
    int id;
};

// Each fired timer sets its bit (timer ids are small); called on the manager thread.
struct BitsHandler : TimerHandler {
    void onTimer(uint32_t timerId) override { fired |= 1u << timerId; }
    std::atomic<uint32_t> fired{0};
} timerHandler;

// Its refresh arms a one-shot timer: had clearTimers run before the objects were told, that timer
// would survive and fire.
struct ArmingOnRefresh : FakeMonitored {
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
    EXPECT_EQ(log, (CallLog{"first:refresh", "second:refresh"}));
    removeMonitoredObject(&first);
    removeMonitoredObject(&second);

    // One tick is one pass over every entry: timer 3 fires in it, and so would 1 and 2 had they
    // survived the refresh.
    manager->addTimer(&timerHandler, TimerManager::TIMER_ONCE, 100, 3);
    QueueMsg tick{};
    tick.mtype = 1;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (timerHandler.fired == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(timerHandler.fired, 1u << 3);
}

TEST(MonitorQueue, MessagesWithABodyAreTakenOffWithoutWedging) {
    PrivateQueue queue;
    RawMsg withBody = {kRefreshMsgType, "payload"}, empty = {kTickMsgType, {0}}, other = {2, "x"};
    ASSERT_EQ(msgsnd(queue.id, &withBody, 16, 0), 0);
    ASSERT_EQ(msgsnd(queue.id, &empty, 0, 0), 0);
    ASSERT_EQ(msgsnd(queue.id, &other, 4, 0), 0);  // as a QueueMsg with dataLen 0 arrives

    std::vector<long> types(3);
    for (long& type : types) ASSERT_TRUE(monitorReceive(queue.id, &type));
    EXPECT_EQ(types, (std::vector<long>{kRefreshMsgType, kTickMsgType, 2}));
    EXPECT_EQ(queue.depth(), 0u);
    EXPECT_FALSE(monitorReceive(-1, &types[0]));
}

TEST(MonitorQueue, TimerHandlePostsAnEmptyTickAndReportsAFailedSend) {
    PrivateQueue queue;
    monitorQueueId.store(queue.id);
    testing::internal::CaptureStdout();
    TimerHandle(sigval{});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    // A body size of 0 without MSG_NOERROR only succeeds for an empty body.
    RawMsg received{};
    ASSERT_EQ(msgrcv(queue.id, &received, 0, 0, IPC_NOWAIT), 0);
    EXPECT_EQ(received.mtype, kTickMsgType);
    EXPECT_EQ(queue.depth(), 0u);

    monitorQueueId.store(-1);
    testing::internal::CaptureStdout();
    TimerHandle(sigval{});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TimerHandle");
}

}  // namespace
