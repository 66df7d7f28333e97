// Timer manager counting, driven by tick messages the test posts itself to the manager's queue;
// runs in a private IPC namespace because the manager's queue has a fixed key.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "TimerManager.h"

namespace {

using namespace std::chrono_literals;

bool inTestNamespace() {
    const char* inNs = std::getenv("S2E_IN_NS");
    return inNs != nullptr && std::string(inNs) == "1";
}

// Records the ids it is called with; can hold the manager thread inside onTimer until opened.
class RecordingHandler : public TimerHandler {
  public:
    void onTimer(uint32_t timerId) override {
        std::unique_lock<std::mutex> lock(mutex_);
        calls_.push_back(timerId);
        ++entered_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !gateClosed_; });
    }
    std::vector<uint32_t> calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t count() { return calls().size(); }
    // True when the handler has been entered at least n times (in total) within a generous limit.
    bool waitForCalls(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 30s, [&] { return entered_ >= n; });
    }
    void setGate(bool closed) {
        std::lock_guard<std::mutex> lock(mutex_);
        gateClosed_ = closed;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<uint32_t> calls_;
    size_t entered_ = 0;
    bool gateClosed_ = false;
};

class TimerManagerTest : public testing::Test {
  protected:
    static constexpr uint32_t kProbeId = 99;

    void SetUp() override {
        if (!inTestNamespace()) GTEST_SKIP() << "needs tools/nsrun";
        mgr = TimerManager::instance();
        mgr->clearTimers();
        // A periodic timer of one tick fires in every pass, after the one-shot pass: once it has
        // seen a tick, the manager has finished that tick's whole pass.
        mgr->addTimer(&probe, 0, 100, kProbeId);
    }
    void TearDown() override {
        if (mgr == nullptr) return;
        probe.setGate(false);
        // Takes the list lock, so no pass is still calling the handlers when they go away.
        mgr->clearTimers();
    }

    void postTick() {
        QueueMsg tick{};
        tick.mtype = 1;
        tick.dataLen = 0;
        ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);
    }
    // Posts one tick and waits until the manager's pass for it is over.
    void tick() {
        const size_t seen = probe.count();
        postTick();
        ASSERT_TRUE(probe.waitForCalls(seen + 1)) << "the manager thread did not take the tick";
    }
    int queueId() { return TimerManager::_pMsgQueue.load()->getMsgID(); }
    msqid_ds queueStat() {
        msqid_ds ds{};
        EXPECT_EQ(msgctl(queueId(), IPC_STAT, &ds), 0);
        return ds;
    }

    TimerManager* mgr = nullptr;
    RecordingHandler probe;
    RecordingHandler handler;
};

TEST_F(TimerManagerTest, CreatedStoppedWithItsQueueOnTheFirstCounterKey) {
    ASSERT_NE(TimerManager::_pMsgQueue.load(), nullptr);
    EXPECT_EQ(queueStat().msg_perm.__key, 0x200000);
    EXPECT_EQ(TimerManager::tickMode.load(), TimerManager::TICKS_STOPPED);
    EXPECT_EQ(TimerManager::instance(), mgr);
}

TEST_F(TimerManagerTest, OneShotCountsDownPrintsAndFiresOnceOnItsLastTick) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick();
    tick();
    EXPECT_TRUE(handler.calls().empty());
    tick();
    EXPECT_EQ(handler.calls(), std::vector<uint32_t>{7});
    tick();  // the entry is gone: no further call, nothing printed
    EXPECT_EQ(handler.calls(), std::vector<uint32_t>{7});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "currTimeCnt = 2\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n");
}

TEST_F(TimerManagerTest, OneShotPassKeepsGoingAfterAnEntryFires) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 1);
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 2);
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 200, 3);
    tick();
    EXPECT_EQ(handler.calls(), (std::vector<uint32_t>{1, 2}));
    tick();
    EXPECT_EQ(handler.calls(), (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "currTimeCnt = 0\r\ncurrTimeCnt = 0\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n");
}

TEST_F(TimerManagerTest, PeriodicFiresEveryPeriodSilently) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, 0, 250, 1);  // 250 / 100: every second tick
    std::vector<size_t> countAfterTick;
    for (int i = 0; i < 6; ++i) {
        tick();
        countAfterTick.push_back(handler.count());
    }
    EXPECT_EQ(countAfterTick, (std::vector<size_t>{0, 1, 1, 2, 2, 3}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    mgr->removeTimer(&handler, 1);
    tick();
    tick();
    EXPECT_EQ(handler.count(), 3u);
}

TEST_F(TimerManagerTest, AddingTheSamePairAgainReplacesAndRestartsIt) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick();
    tick();
    EXPECT_TRUE(handler.calls().empty());
    tick();
    EXPECT_EQ(handler.calls(), std::vector<uint32_t>{7});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "currTimeCnt = 2\r\ncurrTimeCnt = 2\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n");

    // The pair is the key across both kinds: a periodic entry replaces the one-shot one.
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 8);
    mgr->addTimer(&handler, 0, 100, 8);
    tick();
    tick();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(handler.calls(), (std::vector<uint32_t>{7, 8, 8}));
}

TEST_F(TimerManagerTest, RemovingUnknownPairChangesNothing) {
    testing::internal::CaptureStdout();
    RecordingHandler other;
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 200, 5);
    EXPECT_EQ(mgr->removeTimer(&handler, 6), 0);
    EXPECT_EQ(mgr->removeTimer(&other, 5), 0);
    tick();
    tick();
    EXPECT_EQ(handler.calls(), std::vector<uint32_t>{5});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "currTimeCnt = 1\r\ncurrTimeCnt = 0\r\n");
}

TEST_F(TimerManagerTest, ClearedTimersNeverFire) {
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 1);
    mgr->addTimer(&handler, 0, 100, 2);
    mgr->clearTimers();
    mgr->addTimer(&probe, 0, 100, kProbeId);
    tick();
    EXPECT_TRUE(handler.calls().empty());
}

TEST_F(TimerManagerTest, BelowOneTickWrapsAndDoesNotFire) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 99, 3);
    tick();
    EXPECT_TRUE(handler.calls().empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "currTimeCnt = -1\r\n");
}

// While the manager thread is held inside a pass it takes nothing from its queue, so the queue
// shows exactly what the expiries sent.
TEST_F(TimerManagerTest, StoppedTicksAreCountedButNotSent) {
    probe.setGate(true);
    const size_t seen = probe.count();
    postTick();
    ASSERT_TRUE(probe.waitForCalls(seen + 1));  // the manager thread now waits in the gate
    ASSERT_EQ(queueStat().msg_qnum, 0u);

    const uint32_t before = TimerManager::tickCount.load();
    TimerManager::stopTicks();
    for (int i = 0; i < 3; ++i) TimerManager::sendTick(sigval{});
    EXPECT_EQ(TimerManager::tickCount.load(), before + 3);
    EXPECT_EQ(queueStat().msg_qnum, 0u);

    TimerManager::resumeTicks();
    TimerManager::sendTick(sigval{});
    TimerManager::sendTick(sigval{});
    TimerManager::stopTicks();
    EXPECT_EQ(TimerManager::tickCount.load(), before + 5);
    msqid_ds ds = queueStat();
    EXPECT_EQ(ds.msg_qnum, 2u);
    EXPECT_EQ(ds.msg_cbytes, 8u);  // two ticks of type 1 with an empty payload

    // Queued ticks are not lost: each gets its own pass once the manager runs on.
    probe.setGate(false);
    EXPECT_TRUE(probe.waitForCalls(seen + 3));
}

// Last: the real 100 ms tick source keeps running after this test.
TEST_F(TimerManagerTest, StartedTicksDriveTheTimers) {
    const size_t seen = probe.count();
    mgr->startTicks();
    EXPECT_EQ(TimerManager::tickMode.load(), TimerManager::TICKS_RUNNING);
    EXPECT_TRUE(probe.waitForCalls(seen + 3));
    TimerManager::stopTicks();
    EXPECT_GE(TimerManager::tickCount.load(), 3u);
}

}  // namespace
