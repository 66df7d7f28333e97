// POSIX interval timer whose expiries run a callback on a thread the system creates for each one.
#pragma once

#include <csignal>
#include <cstdint>
#include <ctime>

// First expiry 100 ms after start(), then one per period; a period of 0 gives a single expiry.
// The POSIX timer is never deleted: timers live as long as the process.
class IntervalTimer {
  public:
    IntervalTimer(int32_t milliseconds, void (*callback)(sigval));
    ~IntervalTimer() {}
    IntervalTimer(const IntervalTimer&) = delete;
    IntervalTimer& operator=(const IntervalTimer&) = delete;

    // Arms the timer relative to now; prints a message when that fails.
    void start();
    // Disarms the timer; expiries already running still complete. Not used by the daemon, which
    // keeps its timers for its whole life; lets a test quiet a timer it is done with.
    void stop();

  private:
    timer_t handle;
    struct sigevent event;
    struct itimerspec spec;
    bool created;  // false after timer_create failed: the handle is not a timer
};
