// Locking primitives over POSIX threads: mutex, mutex with condition variable, read-write lock,
// and plain functions on a caller-owned pthread_mutex_t.
#pragma once

#include <pthread.h>

#include <cstdint>

// Normal (non-recursive) process-private mutex; the holder must not lock it again.
class ThreadLocker {
  public:
    ThreadLocker();
    virtual ~ThreadLocker();
    ThreadLocker(const ThreadLocker&) = delete;
    ThreadLocker& operator=(const ThreadLocker&) = delete;

    bool lock();
    bool unlock();

  protected:
    pthread_mutex_t mutex;
};

// Mutex plus condition variable; wait and timedWait are called with the lock held.
class ThreadCondLocker : public ThreadLocker {
  public:
    ThreadCondLocker();
    ~ThreadCondLocker() override;

    bool wait();
    // Always true: a signal and a time-out are not told apart; callers check their own condition.
    bool timedWait(uint32_t milliseconds);
    bool signal();
    // Returns the pthread result code itself (0 on success), unlike the other operations.
    int broadcast();

  private:
    pthread_cond_t cond;
};

class RWThreadLocker {
  public:
    enum : int32_t { READ_LOCK = 1, WRITE_LOCK = 2 };

    RWThreadLocker();
    virtual ~RWThreadLocker();
    RWThreadLocker(const RWThreadLocker&) = delete;
    RWThreadLocker& operator=(const RWThreadLocker&) = delete;

    // READ_LOCK shares, WRITE_LOCK excludes; any other mode takes nothing and returns false.
    bool lock(int32_t mode);
    bool unlock();

  private:
    pthread_rwlock_t rwlock;
};

// Plain mutex functions: each returns the threads library's result code unchanged.
// mutexInit with unlocked == 0 leaves the mutex held by the caller.
int mutexInit(pthread_mutex_t* mutex, int32_t unlocked);
int mutexDestroy(pthread_mutex_t* mutex);
int mutexLock(pthread_mutex_t* mutex);
int mutexTryLock(pthread_mutex_t* mutex);
int mutexUnlock(pthread_mutex_t* mutex);
