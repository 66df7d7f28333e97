// Cross-process two-state lock over a one-semaphore System V set; SEM_UNDO on both operations
// lets the kernel give the lock back when a holder's process dies.
#pragma once

#include <sys/sem.h>

#include <cstdint>

class IpcSemaphore {
  public:
    // Creates or opens the set of key and sets it free (value 1), also when it already existed:
    // a second process creating the wrapper resets the shared lock. 0 or -1.
    int32_t semCreate(uint32_t key);
    // Block until free and take it; -1 without a system call when creation failed.
    int32_t semWait();
    int32_t semPost();
    // Removes the set from the system; semId is left as it was.
    int32_t semRemove();

  private:
    uint32_t key = 0;
    int32_t semId = -1;
    sembuf waitOp{0, -1, SEM_UNDO};
    sembuf postOp{0, 1, SEM_UNDO};
};
