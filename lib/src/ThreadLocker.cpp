// Locking primitives over POSIX threads; failures come back only as results, nothing is printed.
#include "ThreadLocker.h"

#include <sys/time.h>

#include <cerrno>
#include <ctime>

ThreadLocker::ThreadLocker() {
    pthread_mutex_init(&mutex, nullptr);
}
ThreadLocker::~ThreadLocker() {
    pthread_mutex_destroy(&mutex);
}
bool ThreadLocker::lock() {
    return pthread_mutex_lock(&mutex) == 0;
}
bool ThreadLocker::unlock() {
    return pthread_mutex_unlock(&mutex) == 0;
}

ThreadCondLocker::ThreadCondLocker() {
    pthread_cond_init(&cond, nullptr);
}
ThreadCondLocker::~ThreadCondLocker() {
    pthread_cond_destroy(&cond);
}
bool ThreadCondLocker::wait() {
    return pthread_cond_wait(&cond, &mutex) == 0;
}
bool ThreadCondLocker::signal() {
    return pthread_cond_signal(&cond) == 0;
}
int ThreadCondLocker::broadcast() {
    return pthread_cond_broadcast(&cond);
}

bool ThreadCondLocker::timedWait(uint32_t milliseconds) {
    for (;;) {
        timeval now{};
        gettimeofday(&now, nullptr);
        // Condition variables with default attributes measure deadlines on the realtime clock.
        uint64_t nsec = static_cast<uint64_t>(now.tv_usec) * 1000u +
                        static_cast<uint64_t>(milliseconds % 1000u) * 1000000u;
        timespec deadline{};
        deadline.tv_sec =
            now.tv_sec + milliseconds / 1000u + static_cast<time_t>(nsec / 1000000000u);
        deadline.tv_nsec = static_cast<long>(nsec % 1000000000u);
        const int rc = pthread_cond_timedwait(&cond, &mutex, &deadline);
        if (rc == 0 || rc == ETIMEDOUT) return true;
    }
}

RWThreadLocker::RWThreadLocker() {
    pthread_rwlock_init(&rwlock, nullptr);
}
RWThreadLocker::~RWThreadLocker() {
    pthread_rwlock_destroy(&rwlock);
}

bool RWThreadLocker::lock(int32_t mode) {
    if (mode == READ_LOCK) return pthread_rwlock_rdlock(&rwlock) == 0;
    if (mode == WRITE_LOCK) return pthread_rwlock_wrlock(&rwlock) == 0;
    return false;
}
bool RWThreadLocker::unlock() {
    return pthread_rwlock_unlock(&rwlock) == 0;
}

int mutexInit(pthread_mutex_t* mutex, int32_t unlocked) {
    const int rc = pthread_mutex_init(mutex, nullptr);
    if (rc != 0) return rc;
    if (unlocked == 0) return pthread_mutex_lock(mutex);
    return 0;
}
int mutexDestroy(pthread_mutex_t* mutex) {
    return pthread_mutex_destroy(mutex);
}
int mutexLock(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}
int mutexTryLock(pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex);
}
int mutexUnlock(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}
