// Cross-process semaphore lock, run in a private IPC namespace (fixed keys).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "IpcSemaphore.h"

namespace {

#define requireNamespace() \
    if (!std::getenv("S2E_IN_NS")) GTEST_SKIP() << "needs tools/nsrun"

int valueOf(key_t key) {
    return semctl(semget(key, 0, 0), 0, GETVAL);
}

TEST(IpcSemaphore, CreateFreesAnExistingSetAndRemoveDeletesIt) {
    requireNamespace();
    ASSERT_EQ(semctl(semget(0x8000, 1, IPC_CREAT | 0600), 0, SETVAL, 0), 0);
    IpcSemaphore sem;
    ASSERT_EQ(sem.semCreate(0x8000), 0);
    EXPECT_EQ(valueOf(0x8000), 1);
    EXPECT_EQ(sem.semRemove(), 0);
    EXPECT_EQ(semget(0x8000, 0, 0), -1);
    IpcSemaphore neverCreated;
    EXPECT_EQ(neverCreated.semWait(), -1);
}

// The child takes the lock and exits without giving it back; the kernel undoes its decrement.
TEST(IpcSemaphore, LockOfADeadHolderIsReleased) {
    requireNamespace();
    IpcSemaphore sem;
    ASSERT_EQ(sem.semCreate(0x8001), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(sem.semWait() == 0 && valueOf(0x8001) == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the child did not get the lock";
    EXPECT_EQ(valueOf(0x8001), 1);
    EXPECT_EQ(sem.semRemove(), 0);
}

}  // namespace
