// Thread lockers and plain mutex functions: exclusion, sharing, timed waits and initial holding.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <future>
#include <thread>
#include <utility>

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
    std::atomic<bool> entered{false};
    std::thread other([&] {
        EXPECT_TRUE(locker.lock());
        entered = true;
        EXPECT_TRUE(locker.unlock());
    });
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(entered);
    EXPECT_TRUE(locker.unlock());
    other.join();
    EXPECT_TRUE(entered);
}

TEST(RWThreadLocker, ReadersShareWriterWaitsForAllOfThem) {
    RWThreadLocker rw;
    EXPECT_FALSE(rw.lock(3));
    EXPECT_FALSE(rw.lock(0));

    std::promise<void> releaseA, releaseB;
    std::promise<void> heldA, heldB;
    std::thread readerA([&] {
        EXPECT_TRUE(rw.lock(RWThreadLocker::READ_LOCK));
        heldA.set_value();
        releaseA.get_future().wait();
        EXPECT_TRUE(rw.unlock());
    });
    heldA.get_future().wait();
    // A second reader gets in while the first holds its lock.
    std::thread readerB([&] {
        EXPECT_TRUE(rw.lock(RWThreadLocker::READ_LOCK));
        heldB.set_value();
        releaseB.get_future().wait();
        EXPECT_TRUE(rw.unlock());
    });
    ASSERT_EQ(heldB.get_future().wait_for(30s), std::future_status::ready);

    auto writer = std::async(std::launch::async, [&] {
        const bool locked = rw.lock(RWThreadLocker::WRITE_LOCK);
        return locked && rw.unlock();
    });
    EXPECT_EQ(writer.wait_for(150ms), std::future_status::timeout);
    releaseA.set_value();
    readerA.join();
    EXPECT_EQ(writer.wait_for(150ms), std::future_status::timeout);
    releaseB.set_value();
    readerB.join();
    ASSERT_EQ(writer.wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(writer.get());
}

// Waits from a moment late in the current second, so that the deadline has to carry into the
// next second. A deadline with 1e9 or more nanoseconds is refused at once, and the retry loop then
// spins until a valid one comes up: the waiting thread must block, not burn its time on the CPU.
// The waits run on a thread of their own that the test gives up on if they never return.
TEST(ThreadCondLocker, TimedWaitTimesOutAcrossASecondBoundary) {
    struct Waited {
        bool results = false;
        double shortMs = 0, longMs = 0, cpuMs = 0;
    };
    struct Shared {
        ThreadCondLocker locker;
        std::promise<Waited> waited;
    };
    // Left to the waiting thread if it never comes back.
    auto* shared = new Shared;
    std::future<Waited> result = shared->waited.get_future();
    std::thread([shared] {
        shared->locker.lock();
        for (;;) {
            timeval now{};
            gettimeofday(&now, nullptr);
            if (now.tv_usec > 600000 && now.tv_usec < 900000) break;
            std::this_thread::sleep_for(10ms);
        }
        Waited w;
        const double cpuStart = threadCpuMs();
        Clock::time_point start = Clock::now();
        const bool first = shared->locker.timedWait(500);
        w.shortMs = msSince(start);
        start = Clock::now();
        const bool second = shared->locker.timedWait(1500);
        w.longMs = msSince(start);
        w.cpuMs = threadCpuMs() - cpuStart;
        w.results = first && second;
        shared->locker.unlock();
        shared->waited.set_value(w);
        delete shared;
    }).detach();
    ASSERT_EQ(result.wait_for(60s), std::future_status::ready) << "timedWait never returned";
    const Waited w = result.get();
    EXPECT_TRUE(w.results);
    EXPECT_GE(w.shortMs, 450.0);
    EXPECT_GE(w.longMs, 1450.0);
    EXPECT_LT(w.cpuMs, 100.0) << "the waits spun instead of blocking";
}

TEST(ThreadCondLocker, WaitsEndOnSignalAndBroadcast) {
    ThreadCondLocker locker;
    bool ready = false;
    auto waiter = std::async(std::launch::async, [&] {
        EXPECT_TRUE(locker.lock());
        while (!ready) EXPECT_TRUE(locker.wait());
        ready = false;
        // Signalled long before this deadline.
        const Clock::time_point start = Clock::now();
        while (!ready) EXPECT_TRUE(locker.timedWait(60000));
        const double waited = msSince(start);
        EXPECT_TRUE(locker.unlock());
        return waited;
    });
    ASSERT_TRUE(locker.lock());
    ready = true;
    EXPECT_TRUE(locker.signal());
    EXPECT_TRUE(locker.unlock());

    std::this_thread::sleep_for(100ms);
    ASSERT_TRUE(locker.lock());
    ready = true;
    EXPECT_EQ(locker.broadcast(), 0);
    EXPECT_TRUE(locker.unlock());
    ASSERT_EQ(waiter.wait_for(30s), std::future_status::ready);
    EXPECT_LT(waiter.get(), 30000.0);
}

TEST(MutexFunctions, InitWithZeroLeavesTheMutexHeldByTheCaller) {
    pthread_mutex_t held;
    ASSERT_EQ(mutexInit(&held, 0), 0);
    int busy = -1;
    std::thread([&] { busy = mutexTryLock(&held); }).join();
    EXPECT_EQ(busy, EBUSY);
    EXPECT_EQ(mutexUnlock(&held), 0);
    EXPECT_EQ(mutexDestroy(&held), 0);

    pthread_mutex_t freeMutex;
    ASSERT_EQ(mutexInit(&freeMutex, 1), 0);
    int got = -1;
    std::thread([&] {
        got = mutexTryLock(&freeMutex);
        if (got == 0) mutexUnlock(&freeMutex);
    }).join();
    EXPECT_EQ(got, 0);
    EXPECT_EQ(mutexLock(&freeMutex), 0);
    EXPECT_EQ(mutexTryLock(&freeMutex), EBUSY);
    EXPECT_EQ(mutexUnlock(&freeMutex), 0);
    EXPECT_EQ(mutexDestroy(&freeMutex), 0);
}

}  // namespace
