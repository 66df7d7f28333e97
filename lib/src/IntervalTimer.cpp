// POSIX interval timer with SIGEV_THREAD notification.
#include "IntervalTimer.h"

#include <cstdio>
#include <cstring>

IntervalTimer::IntervalTimer(int32_t milliseconds, void (*callback)(sigval))
    : handle(), event(), spec(), created(false) {
    std::memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_signo = 0;
    event.sigev_value.sival_ptr = nullptr;
    event.sigev_notify_function = callback;
    event.sigev_notify_attributes = nullptr;

    spec.it_interval.tv_sec = milliseconds / 1000;
    spec.it_interval.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    // The first expiry comes 100 ms after start whatever the period.
    spec.it_value.tv_sec = 0;
    spec.it_value.tv_nsec = 100000000L;

    if (timer_create(CLOCK_REALTIME, &event, &handle) != 0) {
        puts("Timer_create failed");
        return;
    }
    created = true;
}

void IntervalTimer::start() {
    if (!created || timer_settime(handle, 0, &spec, nullptr) != 0) printf("fail to start Timer\n ");
}

void IntervalTimer::stop() {
    if (!created) return;
    const itimerspec disarm{};
    timer_settime(handle, 0, &disarm, nullptr);
}
