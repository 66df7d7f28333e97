// POSIX interval timer with SIGEV_THREAD notification.
#include "IntervalTimer.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#if defined(__SANITIZE_THREAD__)
#define S2E_TIMER_DISPATCHER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define S2E_TIMER_DISPATCHER 1
#endif
#endif

#ifdef S2E_TIMER_DISPATCHER
// Thread-sanitizer builds only. The C library starts SIGEV_THREAD callbacks from a helper thread
// that it creates behind the sanitizer's back, and the sanitizer crashes in it at the first
// expiry. This dispatcher does the same job with threads the sanitizer sees: the kernel sends each
// expiry as a signal to one dispatcher thread, which starts a detached thread per expiry running
// the callback with a null value, as SIGEV_THREAD does.
namespace {

const int kDispatchSignal = SIGRTMAX;
pthread_once_t dispatcherOnce = PTHREAD_ONCE_INIT;
pid_t dispatcherTid = 0;  // written before the once-routine returns, read after it
pthread_mutex_t startedLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t started = PTHREAD_COND_INITIALIZER;

void* runCallback(void* fn) {
    // The callback travels as an integer: it is code, so no memory is shared with the creator.
    auto callback = reinterpret_cast<void (*)(sigval)>(reinterpret_cast<uintptr_t>(fn));
    sigval value{};
    value.sival_ptr = nullptr;
    callback(value);
    return nullptr;
}

void* dispatch(void*) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kDispatchSignal);
    // Blocked before the tid is published, so no expiry can arrive unblocked.
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    pthread_mutex_lock(&startedLock);
    dispatcherTid = static_cast<pid_t>(syscall(SYS_gettid));
    pthread_cond_broadcast(&started);
    pthread_mutex_unlock(&startedLock);
    for (;;) {
        siginfo_t info;
        if (sigwaitinfo(&set, &info) != kDispatchSignal) continue;
        pthread_t thread;
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_create(&thread, &attr, runCallback, info.si_value.sival_ptr);
        pthread_attr_destroy(&attr);
    }
}

void startDispatcher() {
    pthread_t thread;
    pthread_create(&thread, nullptr, dispatch, nullptr);
    pthread_detach(thread);
    pthread_mutex_lock(&startedLock);
    while (dispatcherTid == 0) pthread_cond_wait(&started, &startedLock);
    pthread_mutex_unlock(&startedLock);
}

int createTimer(const sigevent& event, timer_t* handle) {
    pthread_once(&dispatcherOnce, startDispatcher);
    sigevent direct{};
    direct.sigev_notify = SIGEV_THREAD_ID;
    direct.sigev_signo = kDispatchSignal;
    direct._sigev_un._tid = dispatcherTid;
    direct.sigev_value.sival_ptr =
        reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(event.sigev_notify_function));
    return timer_create(CLOCK_REALTIME, &direct, handle);
}

}  // namespace
#else
namespace {
int createTimer(sigevent& event, timer_t* handle) {
    return timer_create(CLOCK_REALTIME, &event, handle);
}
}  // namespace
#endif

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

    if (createTimer(event, &handle) != 0) {
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
