// Thread lockers and plain mutex functions: exclusion, sharing, timed waits and initial holding.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <ctime>
#include <future>
#include <thread>

#include "ThreadLocker.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

double threadCpuMs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

TEST(ThreadLocker, SecondThreadWaitsUntilUnlock) {
    ThreadLocker locker;
    ASSERT_TRUE(locker.lock());
    auto other = std::async(std::launch::async, [&] { return locker.lock() && locker.unlock(); });
    EXPECT_EQ(other.wait_for(150ms), std::future_status::timeout);
    EXPECT_TRUE(locker.unlock());
    EXPECT_TRUE(other.get());
}

TEST(RWThreadLocker, ReadersShareWriterWaitsForAllOfThem) {
    RWThreadLocker rw;
    EXPECT_FALSE(rw.lock(3));  // takes nothing: the writer below would wait for ever otherwise
    std::promise<void> held, release;
    auto reader = std::async(std::launch::async, [&] {
        const bool locked = rw.lock(RWThreadLocker::READ_LOCK);
        held.set_value();
        release.get_future().wait();
        return locked && rw.unlock();
    });
    held.get_future().wait();
    ASSERT_TRUE(rw.lock(RWThreadLocker::READ_LOCK));  // shared with the other reader
    auto writer = std::async(std::launch::async,
                             [&] { return rw.lock(RWThreadLocker::WRITE_LOCK) && rw.unlock(); });
    EXPECT_EQ(writer.wait_for(150ms), std::future_status::timeout);
    EXPECT_TRUE(rw.unlock());
    EXPECT_EQ(writer.wait_for(150ms), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(reader.get());
    EXPECT_TRUE(writer.get());
}

// Waits from a moment late in the current second, so that the deadline has to carry into the
// next second. A deadline with 1e9 or more nanoseconds is refused at once, and the retry loop then
// spins until a valid one comes up: the thread must block, not burn its time on the CPU.
TEST(ThreadCondLocker, TimedWaitTimesOutAcrossASecondBoundary) {
    ThreadCondLocker locker;
    ASSERT_TRUE(locker.lock());
    timeval now{};
    for (gettimeofday(&now, nullptr); now.tv_usec < 600000 || now.tv_usec > 900000;
         gettimeofday(&now, nullptr)) {
        std::this_thread::sleep_for(10ms);
    }
    const double cpuStart = threadCpuMs();
    for (uint32_t ms : {500u, 1500u}) {
        const Clock::time_point start = Clock::now();
        EXPECT_TRUE(locker.timedWait(ms));
        EXPECT_GE(msSince(start), ms - 50.0);
    }
    EXPECT_LT(threadCpuMs() - cpuStart, 100.0) << "the waits spun instead of blocking";
    EXPECT_TRUE(locker.unlock());
}

TEST(MutexFunctions, InitWithZeroLeavesTheMutexHeldByTheCaller) {
    pthread_mutex_t held, unheld;
    ASSERT_EQ(mutexInit(&held, 0), 0);
    ASSERT_EQ(mutexInit(&unheld, 1), 0);
    auto tryBoth = [&] {
        const auto got = std::make_pair(mutexTryLock(&held), mutexTryLock(&unheld));
        if (got.second == 0) mutexUnlock(&unheld);
        return got;
    };
    EXPECT_EQ(std::async(std::launch::async, tryBoth).get(), std::make_pair(EBUSY, 0));
    EXPECT_EQ(mutexUnlock(&held), 0);
    EXPECT_EQ(mutexDestroy(&held), 0);
}

}  // namespace
