// Software timers counted in 100 ms ticks on the manager thread.
#include "TimerManager.h"

#include <pthread.h>

#include <cstdio>

std::atomic<MsgQueue*> TimerManager::_pMsgQueue{nullptr};
std::atomic<uint32_t> TimerManager::tickCount{0};
std::atomic<int32_t> TimerManager::tickMode{TimerManager::TICKS_STOPPED};

namespace {

constexpr int32_t kTickMs = 100;
constexpr long kTickType = 1;
TimerManager* theManager = nullptr;

// Waits for the next message on the tick queue; whatever arrives counts as one tick.
void receiveTick(MsgQueue* queue) {
    QueueMsg msg;
    do {
        msg.dataLen = 0;  // 0 asks for a full-size message
    } while (queue->receive(msg) == -1);
}

}  // namespace

TimerManager* TimerManager::instance() {
    if (theManager == nullptr) theManager = new TimerManager;
    return theManager;
}

TimerManager::TimerManager() : timer(nullptr), listLock(nullptr) {
    listLock = new ThreadLocker;
    _pMsgQueue.store(new MsgQueue(0, 0), std::memory_order_release);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, timerThread, this) != 0) {
        puts("fail to create TimerManager thread");
    } else {
        pthread_detach(thread);
    }
    tickMode.store(TICKS_STOPPED, std::memory_order_relaxed);
    timer = new IntervalTimer(kTickMs, sendTick);
}

TimerManager::~TimerManager() {
    clearTimers();
}

void TimerManager::sendTick(sigval) {
    tickCount.fetch_add(1, std::memory_order_relaxed);
    if (tickMode.load(std::memory_order_relaxed) == TICKS_STOPPED) return;
    MsgQueue* queue = _pMsgQueue.load(std::memory_order_acquire);
    if (queue == nullptr) return;
    QueueMsg tick;
    tick.mtype = kTickType;
    tick.dataLen = 0;
    queue->send(tick);  // a tick that cannot be sent is lost
}

void TimerManager::startTicks() {
    timer->start();
    tickMode.store(TICKS_RUNNING, std::memory_order_relaxed);
}

void TimerManager::stopTicks() {
    tickMode.store(TICKS_STOPPED, std::memory_order_relaxed);
}

void TimerManager::resumeTicks() {
    tickMode.store(TICKS_RUNNING, std::memory_order_relaxed);
}

int32_t TimerManager::addTimer(TimerHandler* handler, uint32_t kind, int32_t timeMs,
                               uint32_t timerId) {
    removeTimer(handler, timerId);
    listLock->lock();
    const uint32_t ticks = static_cast<uint32_t>(timeMs / kTickMs);
    TimerEntry* entry = new TimerEntry{ticks, ticks, handler, timerId};
    if (kind == TIMER_ONCE) {
        oneShotTimers.push_back(entry);
    } else {
        periodicTimers.push_back(entry);
    }
    listLock->unlock();
    return 0;
}

namespace {

bool removeFirst(std::vector<TimerEntry*>& list, TimerHandler* handler, uint32_t timerId) {
    for (auto it = list.begin(); it != list.end(); ++it) {
        if ((*it)->handler == handler && (*it)->timerId == timerId) {
            delete *it;
            list.erase(it);
            return true;
        }
    }
    return false;
}

}  // namespace

int32_t TimerManager::removeTimer(TimerHandler* handler, uint32_t timerId) {
    listLock->lock();
    if (!removeFirst(oneShotTimers, handler, timerId)) {
        removeFirst(periodicTimers, handler, timerId);
    }
    listLock->unlock();
    return 0;
}

void TimerManager::clearTimers() {
    listLock->lock();
    for (TimerEntry* entry : oneShotTimers) delete entry;
    for (TimerEntry* entry : periodicTimers) delete entry;
    oneShotTimers.clear();
    periodicTimers.clear();
    listLock->unlock();
}

void TimerManager::runPass() {
    listLock->lock();
    for (size_t i = 0; i < oneShotTimers.size();) {
        TimerEntry* entry = oneShotTimers[i];
        --entry->currTimeCnt;
        printf("currTimeCnt = %d\r\n", static_cast<int>(entry->currTimeCnt));
        if (entry->currTimeCnt == 0) {
            if (entry->handler != nullptr) entry->handler->onTimer(entry->timerId);
            delete entry;
            oneShotTimers.erase(oneShotTimers.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            ++i;
        }
    }
    for (TimerEntry* entry : periodicTimers) {
        --entry->currTimeCnt;
        if (entry->currTimeCnt == 0 && entry->handler != nullptr) {
            entry->handler->onTimer(entry->timerId);
            entry->currTimeCnt = entry->reloadTimeCnt;
        }
    }
    listLock->unlock();
}

void* TimerManager::timerThread(void* manager) {
    TimerManager* self = static_cast<TimerManager*>(manager);
    MsgQueue* queue = _pMsgQueue.load(std::memory_order_acquire);
    if (queue == nullptr) {
        // Cannot happen with the construction order above; without a queue no tick can arrive,
        // so the thread has nothing to do.
        puts("_pMsgQueue null\r");
        return nullptr;
    }
    // A failed receive is retried at once and the thread never ends, even on a queue that could
    // not be created: the manager has no other way to report that it lives.
    for (;;) {
        receiveTick(queue);
        self->runPass();
    }
}
