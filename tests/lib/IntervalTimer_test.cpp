// POSIX interval timer: first expiry about 100 ms after start, then one per period. Bounds are
// loose on purpose: they tell the schedule apart, they do not measure latency.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "IntervalTimer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::mutex mutex;
std::condition_variable changed;
std::vector<double> expiries;  // ms after startedAt
Clock::time_point startedAt;

void onExpiry(sigval value) {
    std::lock_guard<std::mutex> lock(mutex);
    expiries.push_back(
        value.sival_ptr == nullptr
            ? std::chrono::duration<double, std::milli>(Clock::now() - startedAt).count()
            : -1.0);
    changed.notify_all();
}

std::vector<double> startAndWaitFor(IntervalTimer& timer, size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    expiries.clear();
    startedAt = Clock::now();
    timer.start();
    changed.wait_for(lock, 30s, [&] { return expiries.size() >= n; });
    return expiries;
}

TEST(IntervalTimer, FirstExpiryAfterAboutATenthThenOnePerPeriod) {
    IntervalTimer timer(2000, onExpiry);
    const std::vector<double> times = startAndWaitFor(timer, 2);
    timer.stop();
    ASSERT_EQ(times.size(), 2u);
    EXPECT_GE(times[0], 90.0);
    EXPECT_LT(times[0], 1500.0);  // not a whole period
    EXPECT_GE(times[1], 2000.0);  // 100 + 2000 ms after start
}

TEST(IntervalTimer, PeriodZeroExpiresOnce) {
    IntervalTimer timer(0, onExpiry);
    ASSERT_EQ(startAndWaitFor(timer, 1).size(), 1u);
    std::this_thread::sleep_for(500ms);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(expiries.size(), 1u);
    EXPECT_GE(expiries[0], 90.0);
}

}  // namespace
