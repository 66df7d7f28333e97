// Cross-process semaphore lock, run in a private IPC namespace (fixed keys, changed IPC limits).
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "IpcSemaphore.h"

namespace {

bool inTestNamespace() {
    const char* inNs = std::getenv("S2E_IN_NS");
    return inNs != nullptr && std::string(inNs) == "1";
}
#define requireNamespace() \
    if (!inTestNamespace()) GTEST_SKIP() << "needs tools/nsrun"

int valueOf(key_t key) {
    const int id = semget(key, 0, 0);
    EXPECT_GE(id, 0);
    return semctl(id, 0, GETVAL);
}

TEST(IpcSemaphore, CreateSetsAnExistingSetFree) {
    requireNamespace();
    const int id = semget(0x8000, 1, IPC_CREAT | 0600);
    ASSERT_GE(id, 0);
    ASSERT_EQ(semctl(id, 0, SETVAL, 0), 0);
    IpcSemaphore sem;
    ASSERT_EQ(sem.semCreate(0x8000), 0);
    EXPECT_EQ(valueOf(0x8000), 1);
    EXPECT_EQ(sem.semWait(), 0);
    EXPECT_EQ(valueOf(0x8000), 0);
    EXPECT_EQ(sem.semPost(), 0);
    EXPECT_EQ(valueOf(0x8000), 1);
    EXPECT_EQ(sem.semRemove(), 0);
    EXPECT_EQ(semget(0x8000, 0, 0), -1);
    EXPECT_EQ(sem.semWait(), -1);  // the set is gone
}

// The child takes the lock and exits without giving it back; the kernel undoes its decrement.
TEST(IpcSemaphore, LockOfADeadHolderIsReleased) {
    requireNamespace();
    IpcSemaphore sem;
    ASSERT_EQ(sem.semCreate(0x8001), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool held = sem.semWait() == 0 && semctl(semget(0x8001, 0, 0), 0, GETVAL) == 0;
        _exit(held ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child did not hold the lock";
    EXPECT_EQ(valueOf(0x8001), 1);
    EXPECT_EQ(sem.semWait(), 0);
    EXPECT_EQ(sem.semPost(), 0);
    EXPECT_EQ(sem.semRemove(), 0);
}

TEST(IpcSemaphore, FailedCreateLeavesAnUnusableLock) {
    requireNamespace();
    IpcSemaphore untouched;
    EXPECT_EQ(untouched.semWait(), -1);
    EXPECT_EQ(untouched.semPost(), -1);

    // No semaphore sets may be made in this namespace for a moment.
    const char* limits = "/proc/sys/kernel/sem";
    std::string old;
    std::getline(std::ifstream(limits), old);
    std::ofstream(limits) << "250 32000 32 0\n";
    IpcSemaphore sem;
    const int created = sem.semCreate(0x8002);
    std::ofstream(limits) << old << '\n';
    EXPECT_EQ(created, -1);
    EXPECT_EQ(sem.semWait(), -1);
    EXPECT_EQ(sem.semPost(), -1);
}

}  // namespace
