// POSIX interval timer: first expiry about 100 ms after start, then one per period. Bounds are
// loose on purpose: they tell the schedule apart, they do not measure latency.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "IntervalTimer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Expiries {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Clock::time_point> times;
    bool valueWasNull = true;

    bool waitFor(size_t n) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 30s, [&] { return times.size() >= n; });
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return times.size();
    }
};

// Callbacks are plain functions, so each test has its own record.
Expiries periodic;
Expiries single;

void onPeriodic(sigval value) {
    std::lock_guard<std::mutex> lock(periodic.mutex);
    periodic.times.push_back(Clock::now());
    if (value.sival_ptr != nullptr) periodic.valueWasNull = false;
    periodic.changed.notify_all();
}

void onSingle(sigval) {
    std::lock_guard<std::mutex> lock(single.mutex);
    single.times.push_back(Clock::now());
    single.changed.notify_all();
}

double msBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

TEST(IntervalTimer, FirstExpiryAfterAboutATenthThenOnePerPeriod) {
    IntervalTimer timer(2000, onPeriodic);
    const Clock::time_point started = Clock::now();
    timer.start();
    ASSERT_TRUE(periodic.waitFor(2));
    timer.stop();
    std::vector<Clock::time_point> times;
    {
        std::lock_guard<std::mutex> lock(periodic.mutex);
        times = periodic.times;
    }
    // About 100 ms, and certainly not a whole period.
    EXPECT_GE(msBetween(started, times[0]), 90.0);
    EXPECT_LT(msBetween(started, times[0]), 1500.0);
    // The second expiry is one period after the first (100 + 2000 ms after start).
    EXPECT_GE(msBetween(started, times[1]), 2000.0);
    EXPECT_TRUE(periodic.valueWasNull);
}

TEST(IntervalTimer, PeriodZeroExpiresOnce) {
    IntervalTimer timer(0, onSingle);
    timer.start();
    ASSERT_TRUE(single.waitFor(1));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(single.count(), 1u);
}

}  // namespace
