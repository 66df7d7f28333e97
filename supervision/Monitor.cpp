// Monitor thread, registry and tick callback.
#include "Monitor.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "ProcessContext.h"
#include "ThreadLocker.h"
#include "TimerManager.h"

std::atomic<int32_t> monitorQueueId{-1};

namespace {

// Registration order is pass order. The registry does not own the objects.
std::vector<MonitoredObject*> registry;
// A default mutex, statically initialised so that registration works before the context exists.
pthread_mutex_t registryLock = PTHREAD_MUTEX_INITIALIZER;

struct EmptyMsg {
    long mtype;
    char body[1];
};

class RegistryGuard {
  public:
    RegistryGuard() { mutexLock(&registryLock); }
    ~RegistryGuard() { mutexUnlock(&registryLock); }
    RegistryGuard(const RegistryGuard&) = delete;
    RegistryGuard& operator=(const RegistryGuard&) = delete;
};

void killAndRestart(MonitoredObject* object) {
    std::string line = "kill " + object->name() + "\n";
    fputs(line.c_str(), stdout);
    fflush(stdout);
    object->stop();
    sleep(1);
    object->setMissCount(0);
    object->start();
}

}  // namespace

void addMonitoredObject(MonitoredObject* object) {
    RegistryGuard guard;
    registry.push_back(object);
}

void removeMonitoredObject(MonitoredObject* object) {
    RegistryGuard guard;
    auto it = std::find(registry.begin(), registry.end(), object);
    if (it != registry.end()) registry.erase(it);
}

size_t monitoredObjectCount() {
    RegistryGuard guard;
    return registry.size();
}

void monitorStartObjects() {
    RegistryGuard guard;
    for (MonitoredObject* object : registry) {
        object->start();
        while (!object->isRunning()) {
        }
    }
}

void supervisionPass() {
    RegistryGuard guard;
    for (MonitoredObject* object : registry) {
        if (object->heartbeat() != object->lastHeartbeat()) {
            object->setLastHeartbeat(object->heartbeat());
            object->setMissCount(0);
            continue;
        }
        object->onHeartbeatMissed();
        int32_t misses = object->missCount() + 1;
        object->setMissCount(misses);
        // The last-seen counter stays: after a restart the object must move past it.
        if (misses > kMissLimit) killAndRestart(object);
    }
}

void refreshPass() {
    {
        RegistryGuard guard;
        for (MonitoredObject* object : registry) object->onRefresh();
    }
    // Outside the registry lock: the manager's list lock is never held together with it.
    TimerManager::instance()->clearTimers();
}

bool monitorReceive(int32_t queueId, long* type) {
    // Supervision messages have an empty body. MSG_NOERROR truncates any body a sender attached,
    // so such a message is taken off the queue and counted instead of failing every receive with
    // E2BIG and wedging the monitor at the head of its queue.
    EmptyMsg msg = {0, {0}};
    if (msgrcv(queueId, &msg, 0, 0, MSG_NOERROR) == -1) return false;
    *type = msg.mtype;
    return true;
}

void monitorHandleMessage(ProcessStatusRecord* status, long type) {
    if (status != nullptr) {
        // Only this thread writes msgCount; the atomic add keeps the store single and aligned.
        __atomic_fetch_add(&status->msgCount, 1u, __ATOMIC_RELAXED);
    }
    if (type == kTickMsgType) {
        supervisionPass();
    } else if (type == kRefreshMsgType) {
        refreshPass();
    }
}

void* monitorThread(void* arg) {
    ProcessContext* context = static_cast<ProcessContext*>(arg);
    monitorStartObjects();
    int32_t queueId = monitorQueueId.load(std::memory_order_relaxed);
    ProcessStatusRecord* status = context->status;
    if (status != nullptr) {
        statusStore(status->state, static_cast<uint32_t>(kStateRunning));
        statusStore(status->monitorUp, static_cast<uint8_t>(1));
        statusStore(status->monitorQueueId, queueId);
    }
    context->tickTimer->start();
    for (;;) {
        long type = 0;
        // A failed receive is repeated at once.
        if (!monitorReceive(queueId, &type)) continue;
        monitorHandleMessage(status, type);
    }
    return nullptr;
}

int startMonitorThread(ProcessContext* context) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, monitorThread, context) != 0) {
        puts("fail to create monitor thread");
        fflush(stdout);
        return -1;
    }
    pthread_detach(thread);
    return 0;
}

void TimerHandle(sigval) {
    EmptyMsg tick = {kTickMsgType, {0}};
    if (msgsnd(monitorQueueId.load(std::memory_order_relaxed), &tick, 0, 0) == -1) {
        fputs("TimerHandle", stdout);
        fflush(stdout);
    }
}
