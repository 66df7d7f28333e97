// Process context creation: monitor queue, status record, fault trap and tick timer, in that order.
#include "ProcessContext.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>

#include "FaultTrap.h"
#include "IntervalTimer.h"
#include "Monitor.h"
#include "MsgQueue.h"

ProcessContext* ProcessContext::instance() {
    static ProcessContext* single = nullptr;
    if (single == nullptr) single = new ProcessContext();
    return single;
}

ProcessContext::ProcessContext()
    : trap(nullptr), status(nullptr), statusShmId(-1), tickTimer(nullptr) {
    // The registry lock is a statically initialised default mutex (see Monitor.cpp), so it exists
    // before this point and objects may register before the context is made.
    monitorQueueId.store(QueueKeySequence::instance()->createQueue(), std::memory_order_relaxed);

    statusShmId = shmget(kStatusShmKey, sizeof(ProcessStatusRecord), IPC_CREAT | 0666);
    void* at = (statusShmId == -1) ? reinterpret_cast<void*>(-1) : shmat(statusShmId, nullptr, 0);
    if (at == reinterpret_cast<void*>(-1)) {
        // Never write through a failed attachment; the process runs on without a status record.
        printf("ProcessContext: status record 0x%x not attached\n",
               static_cast<unsigned>(kStatusShmKey));
    } else {
        status = static_cast<ProcessStatusRecord*>(at);
        statusStore(status->pid, static_cast<int32_t>(getpid()));
        statusStore(status->state, static_cast<uint32_t>(kStatePreparing));
    }

    // Without a record there is no supervisor to report to: -1 makes the report send fail.
    trap = new FaultTrap(status != nullptr ? statusLoad(status->supervisorQueueId) : -1);

    printf("SerialToEth process pid=%d\n",
           status != nullptr ? statusLoad(status->pid) : static_cast<int32_t>(getpid()));
    // The fault handler writes below stdio; flush so its texts cannot overtake these lines.
    fflush(stdout);

    tickTimer = new IntervalTimer(kTickPeriodMs, TimerHandle);
}
