// OS services: System V queues and their key sources, the lockers, the timer manager and its
// interval timer. Private namespaces: the keys are fixed. Tests that need a fresh process (key
// sources or manager not made yet) run again in a child.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <future>
#include <thread>

#include "TestSupport.h"
#include "TimerManager.h"

// The last arming of a POSIX timer in this process (always from the test's own thread): the
// schedule is read back exactly instead of timing expiries.
itimerspec lastArmed{};
extern "C" int timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old) {
    lastArmed = *value;
    using Real = int (*)(timer_t, int, const itimerspec*, itimerspec*);
    return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "timer_settime"))(timer, flags, value, old);
}

namespace {

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
    const struct {
        const char* name;
        key_t key;
        std::vector<size_t> sizes;
        size_t left;
    } rows[] = {
        {"short messages only: all drained", 0x5000, {10, 10, 2048, 10}, 0},
        {"drained up to one longer than the room", 0x5001, {10, 3000, 10}, 2},
        {"drained up to an empty one", 0x5002, {10, 0, 10}, 1},
        {"the sequence's queue: not drained", 0x310000, {10}, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const int id = msgget(row.key, IPC_CREAT | 0666);
        for (size_t size : row.sizes) ASSERT_EQ(msgsnd(id, &m, size, 0), 0);
        const bool sequence = row.key == 0x310000;
        EXPECT_EQ(sequence ? seq->createQueue() : openQueue(uint32_t(row.key)), id) << "queue";
        EXPECT_EQ(queueStat(id).msg_qnum, row.left) << "messages left";
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
    EXPECT_EQ(q.send(out), -1) << "a body longer than the record";
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
    EXPECT_EQ(locker.broadcast(), 0) << "broadcast: the result code";
    EXPECT_TRUE(locker.unlock());
    EXPECT_EQ(mutexUnlock(&held), 0);
    EXPECT_EQ(mutexDestroy(&held), 0);
}

// Counts its calls, which come on the timer manager's thread.
struct Recorder : TimerHandler {
    void onTimer(uint32_t) override { ++calls; }
    size_t count() const { return calls.load(); }
    bool waitFor(size_t n) const {
        for (int i = 0; i < 1000 && calls < n; ++i) usleep(10000);
        return calls >= n;
    }
    std::atomic<size_t> calls{0};
};

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

// The real source: an interval timer of 100 ms (its first expiry is pinned by supervision_nstest)
// whose ticks drive the timers; stopped ticks are counted, not sent.
TEST(TimerManager, StartedTicksDriveTheTimersStoppedOnesAreOnlyCounted) {
    IN_A_FRESH_PROCESS("ticks");
    Recorder probe;
    TimerManager* mgr = TimerManager::instance();
    mgr->addTimer(&probe, 0, 100, 99);
    mgr->startTicks();
    EXPECT_EQ(lastArmed.it_interval.tv_nsec, 100000000) << "tick period: 100 ms";
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
