// Process-wide software timer manager: a 100 ms IntervalTimer posts tick messages to the manager's
// queue, and the manager thread counts one-shot and periodic timers down on each tick.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>
#include <vector>

#include "IntervalTimer.h"
#include "MsgQueue.h"
#include "ThreadLocker.h"

// Implemented by a timer's owner; called on the manager thread with the list lock held, so it must
// not add, remove or clear timers.
class TimerHandler {
  public:
    virtual ~TimerHandler() {}
    virtual void onTimer(uint32_t timerId) = 0;
};

struct TimerEntry {
    uint32_t currTimeCnt;    // ticks left before firing
    uint32_t reloadTimeCnt;  // ticks of one period, reloaded after a periodic firing
    TimerHandler* handler;   // not owned
    uint32_t timerId;        // with handler, the key of the entry
};

class TimerManager {
  public:
    enum : uint32_t { TIMER_ONCE = 1 };
    enum : int32_t { TICKS_STOPPED = 2, TICKS_RUNNING = 3 };

    // Created on first use by one thread before others use it; never destroyed.
    static TimerManager* instance();

    // kind TIMER_ONCE makes a one-shot timer, anything else a periodic one. One tick is 100 ms.
    // Replaces an earlier entry of the same handler and timerId. Always 0.
    int32_t addTimer(TimerHandler* handler, uint32_t kind, int32_t timeMs, uint32_t timerId);
    // Removes at most one entry, one-shot list first. Always 0.
    int32_t removeTimer(TimerHandler* handler, uint32_t timerId);
    void clearTimers();

    void startTicks();
    static void stopTicks();
    static void resumeTicks();
    // The tick timer's expiry callback: counts the expiry, sends a tick unless ticks are stopped.
    static void sendTick(sigval value);

    // The manager's tick queue. Release/acquire: the timer threads and the manager thread that
    // load it must also see the queue object fully built.
    static std::atomic<MsgQueue*> _pMsgQueue;
    // Plain counters shared with the timer threads; relaxed, they order no other data.
    static std::atomic<uint32_t> tickCount;
    static std::atomic<int32_t> tickMode;

  private:
    TimerManager();
    // Never destroyed: its thread, queue and tick timer live as long as the process, so deleting
    // it from outside is not offered.
    virtual ~TimerManager();
    TimerManager(const TimerManager&) = delete;
    TimerManager& operator=(const TimerManager&) = delete;

    static void* timerThread(void* manager);
    // One pass over both lists for one received tick.
    void runPass();

    IntervalTimer* timer;
    ThreadLocker* listLock;
    std::vector<TimerEntry*> oneShotTimers;
    std::vector<TimerEntry*> periodicTimers;
};
