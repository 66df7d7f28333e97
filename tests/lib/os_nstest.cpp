// OS services: System V queues and their key sources, the lockers, the
// interval timer and the timer manager. Private namespaces: the keys are fixed. Tests that need a
// fresh process (key sources or manager not made yet, an IPC limit) run again in a child.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "IntervalTimer.h"
#include "TestSupport.h"
#include "TimerManager.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using s2etest::queueStat;

TEST(Queue, KeySourcesDrainingAndRecords) {
    IN_A_FRESH_PROCESS("keys");
    MsgQueue first(0, 0), second(0, 0);  // the counter: 0x200000 down, queues 0666
    EXPECT_EQ(queueStat(first.getMsgID()).msg_perm.__key, 0x200000);
    EXPECT_EQ(queueStat(second.getMsgID()).msg_perm.__key, 0x1FFFFF) << "second key";
    EXPECT_EQ(allocQueueKey(), 0x1FFFFEu) << "third key";
    EXPECT_EQ(queueStat(first.getMsgID()).msg_perm.mode & 0777, 0666u);
    // Opening by key empties a queue up to a message longer than the room, or an empty one; the
    // sequence (0x310000 up, never 0x320000) does not empty its queues.
    struct {
        long mtype = 1;
        char body[3000];
    } m;
    QueueKeySequence* seq = QueueKeySequence::instance();
    // clang-format off
    const std::pair<std::vector<size_t>, size_t> rows[] = {{{10, 10, 2048, 10}, 0}, {{10, 3000, 10}, 2}, {{10, 0, 10}, 1}, {{10}, 1}};
    // clang-format on
    for (const auto& [sizes, left] : rows) {
        const key_t key = sizes.size() == 1 ? 0x310000 : 0x5000 + key_t(left);
        const int id = msgget(key, IPC_CREAT | 0666);
        for (size_t size : sizes) ASSERT_EQ(msgsnd(id, &m, size, 0), 0);
        EXPECT_EQ(key == 0x310000 ? seq->createQueue() : openQueue(uint32_t(key)), id);
        EXPECT_EQ(queueStat(id).msg_qnum, left) << testing::PrintToString(sizes);
    }
    while (seq->nextKey() != 0x31FFFFu) {
    }
    EXPECT_EQ(seq->nextKey(), 0x320001u);
    seq->reset();
    EXPECT_EQ(seq->nextKey(), 0x310000u);
    MsgQueue q(first.getMsgID(), 0, IPC_NOWAIT);
    QueueMsg in{}, out{3, 0, {}};
    EXPECT_EQ(q.receive(in), -1) << "empty, no wait";
    ASSERT_EQ(q.send(out), 0);
    EXPECT_EQ(queueStat(first.getMsgID()).msg_cbytes, 4u) << "the record is dataLen + payload";
    out.dataLen = kQueueMsgDataSize + 1;
    EXPECT_EQ(q.send(out), -1);
    out.dataLen = kQueueMsgDataSize;
    ASSERT_EQ(q.receive(in), 0);
    ASSERT_EQ(q.send(out), 0) << "the longest body";
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(in.mtype, 3) << "type";
    EXPECT_EQ(in.dataLen, kQueueMsgDataSize) << "body length";
}

// A mutex made held; then waits that start late in a second, so the
// deadline carries into the next (1e9 nanoseconds or more would be refused and the retry spin).
TEST(Lockers, ExclusionSharingAndTimedWaitsAcrossASecond) {
    ThreadCondLocker locker;
    pthread_mutex_t held;
    ASSERT_EQ(mutexInit(&held, 0), 0);
    EXPECT_EQ(std::async(std::launch::async, [&] { return mutexTryLock(&held); }).get(), EBUSY);
    ASSERT_TRUE(locker.lock());
    timeval now{};
    while (gettimeofday(&now, nullptr) == 0 && (now.tv_usec < 600000 || now.tv_usec > 900000))
        usleep(10000);
    const std::clock_t cpu = std::clock();
    for (uint32_t ms : {500u, 1500u}) {
        const auto start = Clock::now();
        EXPECT_TRUE(locker.timedWait(ms));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(ms - 50));
    }
    EXPECT_LT(double(std::clock() - cpu) / CLOCKS_PER_SEC, 0.1) << "the waits spun";
    EXPECT_EQ(locker.broadcast(), 0);
    EXPECT_TRUE(locker.signal());
    EXPECT_TRUE(locker.unlock());
    EXPECT_EQ(mutexUnlock(&held), 0);
    EXPECT_EQ(mutexDestroy(&held), 0);
}

// Records the times of its calls.
struct Recorder : TimerHandler {
    void onTimer(uint32_t) override {
        std::lock_guard<std::mutex> lock(mutex);
        times.push_back(Clock::now());
        changed.notify_all();
    }
    bool waitFor(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return times.size() >= n; });
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return times.size();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Clock::time_point> times;
};
std::atomic<Recorder*> expiring{nullptr};  // read on the timer's own thread

// First expiry about 100 ms after start, then one per period. A timer is never early but may be
// late under load, so each expiry is bounded below by its schedule and above with slack: enough
// to tell a period rounded to whole seconds or a lost millisecond part; no latency is measured.
TEST(IntervalTimer, FirstAfterATenthThenOnePerPeriod) {
    Recorder got;
    expiring = &got;
    IntervalTimer timer(1500, [](sigval) { expiring.load()->onTimer(0); });
    const auto start = Clock::now();
    timer.start();
    ASSERT_TRUE(got.waitFor(2));
    timer.stop();
    EXPECT_GE(got.times[0] - start, 90ms) << "first";
    EXPECT_LT(got.times[0] - start, 1000ms) << "first: not after a period";
    EXPECT_GE(got.times[1] - start, 1590ms) << "second";
    EXPECT_LT(got.times[1] - start, 2050ms)
        << "second: a period of 2 s gives 2100 ms at the earliest";
}

// The manager's counting, driven by ticks posted here (the real source is started only in a
// child). A periodic probe of one tick shows when a pass is over.
class Timers : public testing::Test {
  protected:
    void SetUp() override { mgr->clearTimers(), mgr->addTimer(&probe, 0, 100, 99); }
    void TearDown() override { mgr->clearTimers(); }
    // False when the manager thread took no tick.
    bool tick() {
        const size_t seen = probe.count();
        QueueMsg tick{1, 0, {}};
        if (TimerManager::_pMsgQueue.load()->send(tick) != 0 || !probe.waitFor(seen + 1))
            return false;
        mgr->removeTimer(nullptr, 0);  // waits until the pass ends: it takes the list lock
        return true;
    }
    TimerManager* mgr = TimerManager::instance();
    Recorder probe;
};

TEST_F(Timers, CountDownFiringAndTheirTexts) {
    // clang-format off
    const struct { uint32_t kind; int32_t ms; std::vector<size_t> callsAfterEachTick; const char* text; } rows[] = {
        {TimerManager::TIMER_ONCE, 300, {0, 0, 1, 1}, "currTimeCnt = 2\r\ncurrTimeCnt = 1\r\ncurrTimeCnt = 0\r\n"},
        {TimerManager::TIMER_ONCE, 99, {0, 0}, "currTimeCnt = -1\r\ncurrTimeCnt = -2\r\n"},
        {0, 250, {0, 1, 1, 2, 2}, ""}};  // periodic, every second tick
    // clang-format on
    for (const auto& row : rows) {
        SetUp();
        Recorder handler;
        s2etest::FdCapture out;
        mgr->addTimer(&handler, row.kind, row.ms, 7);
        std::vector<size_t> calls;
        for (size_t i = 0; i < row.callsAfterEachTick.size(); ++i) {
            ASSERT_TRUE(tick()) << row.ms;
            calls.push_back(handler.count());
        }
        EXPECT_EQ(out.text(), row.text) << row.ms;
        EXPECT_EQ(calls, row.callsAfterEachTick) << row.ms;
        mgr->removeTimer(&handler, 7);
        ASSERT_TRUE(tick());
        EXPECT_EQ(handler.count(), calls.back()) << "removed: fires no more";
    }
}

// The real source: the manager's queue has the counter's first key, ticks come every 100 ms, and
// stopped ones are counted but not sent.
TEST(TimerManager, StartedTicksComeEveryTenthOfASecond) {
    IN_A_FRESH_PROCESS("ticks");
    Recorder probe;
    TimerManager* mgr = TimerManager::instance();
    mgr->addTimer(&probe, 0, 100, 99);
    mgr->startTicks();
    EXPECT_EQ(TimerManager::tickMode, TimerManager::TICKS_RUNNING);
    const auto start = Clock::now();
    while (TimerManager::tickCount < 6 && Clock::now() - start < 10s) usleep(5000);
    const auto took = Clock::now() - start;
    EXPECT_GE(took, 590ms)
        << "the sixth tick comes 100 + 5 * 100 ms after the start at the earliest";
    EXPECT_LT(took, 3000ms) << "with ticks of a second it would take 5.1 s";
    EXPECT_TRUE(probe.waitFor(1)) << "running ticks drive the timers";
    TimerManager::stopTicks();
    usleep(200 * 1000);  // a tick sent before the stop has its pass
    const uint32_t counted = TimerManager::tickCount;
    const size_t fired = probe.count();
    usleep(300 * 1000);
    EXPECT_GT(TimerManager::tickCount, counted) << "stopped ticks are counted";
    EXPECT_EQ(probe.count(), fired) << "but not sent";
}

}  // namespace
