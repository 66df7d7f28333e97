// Timer manager counting, driven by tick messages the test posts itself to the manager's queue;
// runs in a private IPC namespace because the manager's queue has a fixed key.
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "TimerManager.h"

namespace {

using namespace std::chrono_literals;
using Ids = std::vector<uint32_t>;

// Records the ids it is called with; while its gate is closed it holds the manager thread.
class RecordingHandler : public TimerHandler {
  public:
    void onTimer(uint32_t timerId) override {
        std::unique_lock<std::mutex> lock(mutex_);
        calls_.push_back(timerId);
        changed_.notify_all();
        changed_.wait(lock, [this] { return !gateClosed_; });
    }
    Ids calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    bool waitForCalls(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 30s, [&] { return calls_.size() >= n; });
    }
    void setGate(bool closed) {
        std::lock_guard<std::mutex> lock(mutex_);
        gateClosed_ = closed;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Ids calls_;
    bool gateClosed_ = false;
};

class TimerManagerTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!std::getenv("S2E_IN_NS")) GTEST_SKIP() << "needs tools/nsrun";
        mgr = TimerManager::instance();
        mgr->clearTimers();
        // One tick, periodic: fires in every pass, so it shows when the manager takes a tick.
        mgr->addTimer(&probe, 0, 100, 99);
    }
    void TearDown() override {
        if (mgr == nullptr) return;
        probe.setGate(false);
        mgr->clearTimers();  // waits for a running pass, so no handler is called after this
    }

    void postTick() {
        QueueMsg tick{};
        tick.mtype = 1;
        ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);
    }
    // Posts ticks one at a time, each time waiting until the manager has finished its pass.
    void tick(int n = 1) {
        for (int i = 0; i < n; ++i) {
            const size_t seen = probe.calls().size();
            postTick();
            ASSERT_TRUE(probe.waitForCalls(seen + 1)) << "the manager thread took no tick";
            // The pass holds the list lock to its end: removing a pair never registered waits
            // for the entries behind the probe.
            mgr->removeTimer(nullptr, 0);
        }
    }
    msqid_ds queueStat() {
        msqid_ds ds{};
        EXPECT_EQ(msgctl(TimerManager::_pMsgQueue.load()->getMsgID(), IPC_STAT, &ds), 0);
        return ds;
    }

    TimerManager* mgr = nullptr;
    RecordingHandler probe, handler;
};

TEST_F(TimerManagerTest, OneShotTimersCountDownPrintAndFireOnce) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick(2);
    EXPECT_EQ(handler.calls(), Ids{});
    tick(2);  // fires on the third; then the entry is gone
    EXPECT_EQ(handler.calls(), Ids{7});
    // The pass goes on with the entry behind one that fired; below one tick the count wraps.
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 1);
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 100, 2);
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 99, 3);
    tick();
    EXPECT_EQ(handler.calls(), (Ids{7, 1, 2}));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "currTimeCnt = 2\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n"
              "currTimeCnt = 0\r\ncurrTimeCnt = 0\r\ncurrTimeCnt = -1\r\n");
}

TEST_F(TimerManagerTest, PeriodicTimersFireEveryPeriodSilentlyUntilRemoved) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, 0, 250, 1);  // 250 / 100: every second tick
    std::vector<size_t> countAfterTick;
    for (int i = 0; i < 5; ++i) {
        tick();
        countAfterTick.push_back(handler.calls().size());
    }
    EXPECT_EQ(countAfterTick, (std::vector<size_t>{0, 1, 1, 2, 2}));
    mgr->removeTimer(&handler, 1);
    tick(2);
    EXPECT_EQ(handler.calls().size(), 2u);  // removed: fires no more
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(TimerManagerTest, AddingTheSamePairAgainReplacesAndRestartsIt) {
    testing::internal::CaptureStdout();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick();
    mgr->addTimer(&handler, TimerManager::TIMER_ONCE, 300, 7);
    tick(2);
    EXPECT_EQ(handler.calls(), Ids{});
    tick();
    EXPECT_EQ(handler.calls(), Ids{7});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "currTimeCnt = 2\r\ncurrTimeCnt = 2\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n");
}

// While the manager thread is held inside a pass it takes nothing from its queue, so the queue
// shows exactly what the expiries sent.
TEST_F(TimerManagerTest, StoppedTicksAreCountedButNotSent) {
    probe.setGate(true);
    const size_t seen = probe.calls().size();
    postTick();
    ASSERT_TRUE(probe.waitForCalls(seen + 1));
    const uint32_t before = TimerManager::tickCount.load();
    for (int i = 0; i < 3; ++i) TimerManager::sendTick(sigval{});
    EXPECT_EQ(queueStat().msg_qnum, 0u);
    TimerManager::resumeTicks();
    TimerManager::sendTick(sigval{});
    TimerManager::sendTick(sigval{});
    TimerManager::stopTicks();
    EXPECT_EQ(TimerManager::tickCount.load(), before + 5);
    EXPECT_EQ(queueStat().msg_qnum, 2u);
    EXPECT_EQ(queueStat().msg_cbytes, 8u);  // two ticks, type 1, empty payload
    probe.setGate(false);
    EXPECT_TRUE(probe.waitForCalls(seen + 3));  // queued ticks get a pass each
}

// Last: the real 100 ms tick source keeps counting after this test. Until it is started, ticks
// come only from the test, so the counting tests above are deterministic.
TEST_F(TimerManagerTest, StartedTicksDriveTheTimers) {
    EXPECT_EQ(queueStat().msg_perm.__key, 0x200000);
    EXPECT_EQ(TimerManager::tickMode.load(), TimerManager::TICKS_STOPPED);
    const size_t seen = probe.calls().size();
    mgr->startTicks();
    EXPECT_EQ(TimerManager::tickMode.load(), TimerManager::TICKS_RUNNING);
    EXPECT_TRUE(probe.waitForCalls(seen + 3));
    TimerManager::stopTicks();
    EXPECT_GE(TimerManager::tickCount.load(), 3u);
}

}  // namespace
