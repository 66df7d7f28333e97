// System V semaphore used as a lock shared between processes.
#include "IpcSemaphore.h"

#include <sys/ipc.h>

namespace {
constexpr int kSemCreateFlags = 0x3B6;  // IPC_CREAT, read/write for everybody (octal 01666)
}

int32_t IpcSemaphore::semCreate(uint32_t newKey) {
    key = newKey;
    waitOp = sembuf{0, -1, SEM_UNDO};
    postOp = sembuf{0, 1, SEM_UNDO};
    semId = semget(static_cast<key_t>(key), 1, kSemCreateFlags);
    if (semId == -1) return -1;
    return semctl(semId, 0, SETVAL, 1);
}

int32_t IpcSemaphore::semWait() {
    if (semId < 0) return -1;
    return semop(semId, &waitOp, 1);
}

int32_t IpcSemaphore::semPost() {
    if (semId < 0) return -1;
    return semop(semId, &postOp, 1);
}

int32_t IpcSemaphore::semRemove() {
    return semctl(semId, 1, IPC_RMID);
}
