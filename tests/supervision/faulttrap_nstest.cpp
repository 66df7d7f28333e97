// Fault trap in a forked child (fresh IPC namespace): texts and their order, exit status 0, one
// report on the supervisor's queue, a full or missing queue, restoring the earlier actions.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "FaultTrap.h"

// The handler ends with exit(0) and its normal exit processing (destructors, stream flushing) by
// design; the thread sanitizer would report that as a signal-unsafe call and change the status.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }
#endif

namespace {

struct RawMsg {
    long mtype;
    char body[8];
};

struct ChildResult {
    bool exited = false;
    int status = -1;
    std::string output;
};

// Runs body in a child whose standard output is captured; the child is killed if it has not
// ended within ten seconds (a wedged handler).
template <typename Body>
ChildResult runChild(Body body) {
    ChildResult result;
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return result;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        close(pipeFds[1]);
        body();
        _exit(99);
    }
    close(pipeFds[1]);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    char buf[512];
    for (;;) {
        pollfd p = {pipeFds[0], POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            ssize_t n = read(pipeFds[0], buf, sizeof buf);
            if (n <= 0) break;
            result.output.append(buf, static_cast<size_t>(n));
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : -WTERMSIG(status);
    return result;
}

std::string banner(int sig, pid_t pid) {
    return "Trap System Abnormal  sig = " + std::to_string(sig) + " pid = " + std::to_string(pid) +
           " **********\n";
}

class SupervisorQueue {
  public:
    SupervisorQueue() : id(msgget(IPC_PRIVATE, IPC_CREAT | 0600)) {}
    ~SupervisorQueue() { msgctl(id, IPC_RMID, nullptr); }
    // Every message on the queue, which must all be empty fault reports; -1 otherwise.
    int takeReports() {
        int count = 0;
        RawMsg msg{};
        while (msgrcv(id, &msg, 0, 0, IPC_NOWAIT) == 0) {
            if (msg.mtype != kFaultReportMsgType) return -1;
            ++count;
        }
        return errno == ENOMSG ? count : -1;
    }
    int id;
};

pid_t childPidFrom(const std::string& output) {
    size_t at = output.find(" pid = ");
    return at == std::string::npos ? -1 : static_cast<pid_t>(std::stol(output.substr(at + 7)));
}

class FaultTrapSignals : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(FaultTrapSignals, PrintsBannerAndTextReportsOnceAndExitsZero) {
    int sig = GetParam().first;
    const char* text = kFaultMessages[GetParam().second];
    SupervisorQueue queue;
    ASSERT_NE(queue.id, -1);
    ChildResult child = runChild([&] {
        FaultTrap trap(queue.id);
        raise(sig);
    });
    ASSERT_TRUE(child.exited) << "killed by signal " << -child.status;
    EXPECT_EQ(child.status, 0);
    pid_t pid = childPidFrom(child.output);
    EXPECT_EQ(child.output, banner(sig, pid) + text + "\n");
    EXPECT_EQ(queue.takeReports(), 1);
}

INSTANTIATE_TEST_SUITE_P(AllFour, FaultTrapSignals,
                         ::testing::Values(std::make_pair(SIGABRT, 0), std::make_pair(SIGFPE, 1),
                                           std::make_pair(SIGILL, 2), std::make_pair(SIGSEGV, 3)));

TEST(FaultTrap, RealInvalidAccessIsTrapped) {
    SupervisorQueue queue;
    ChildResult child = runChild([&] {
        FaultTrap trap(queue.id);
        // A page with no access at all: a real fault, not one a sanitizer reports first.
        void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
    });
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_NE(child.output.find("SIGSEGV:Memory access violation--Terminate with core dump\n"),
              std::string::npos)
        << child.output;
    EXPECT_EQ(queue.takeReports(), 1);
}

TEST(FaultTrap, FullOrMissingSupervisorQueueDoesNotKeepTheProcessAlive) {
    SupervisorQueue full;
    msqid_ds info{};
    ASSERT_EQ(msgctl(full.id, IPC_STAT, &info), 0);
    info.msg_qbytes = 1;  // room for a single message
    ASSERT_EQ(msgctl(full.id, IPC_SET, &info), 0);
    RawMsg filler = {5, "x"};
    ASSERT_EQ(msgsnd(full.id, &filler, 1, IPC_NOWAIT), 0);

    ChildResult child = runChild([&] {
        FaultTrap trap(full.id);
        raise(SIGABRT);
    });
    ASSERT_TRUE(child.exited) << "handler wedged on a full queue";
    EXPECT_EQ(child.status, 0);
    EXPECT_NE(child.output.find("SIGABRT:Send by abort()"), std::string::npos);

    child = runChild([&] {
        FaultTrap trap(-1);
        raise(SIGFPE);
    });
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_NE(child.output.find("SIGFPE: Arithmetric exception"), std::string::npos);
}

void ownHandler(int) {
    const char text[] = "own handler\n";
    ssize_t ignored = write(STDOUT_FILENO, text, sizeof text - 1);
    (void)ignored;
    _exit(7);
}

TEST(FaultTrap, RestorePutsBackTheEarlierActionsAndReinstallKeepsTheQueue) {
    SupervisorQueue queue;
    ChildResult child = runChild([&] {
        signal(SIGILL, ownHandler);
        FaultTrap trap(queue.id);
        FaultTrap::trapRestore();
        raise(SIGILL);
    });
    EXPECT_EQ(child.status, 7);
    EXPECT_EQ(child.output, "own handler\n");
    EXPECT_EQ(queue.takeReports(), 0);

    child = runChild([&] {
        FaultTrap trap(queue.id);
        FaultTrap::trapRestore();
        FaultTrap::trapInstall();
        raise(SIGSEGV);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(queue.takeReports(), 1);
}

TEST(FaultTrap, TwoThreadsFaultingTogetherEndWithOneReport) {
    SupervisorQueue queue;
    ChildResult child = runChild([&] {
        FaultTrap trap(queue.id);
        pthread_barrier_t barrier;
        pthread_barrier_init(&barrier, nullptr, 2);
        std::thread other([&] {
            pthread_barrier_wait(&barrier);
            raise(SIGILL);
        });
        pthread_barrier_wait(&barrier);
        raise(SIGFPE);
        other.join();
    });
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(queue.takeReports(), 1);
    // Either thread may win; exactly one fault text follows the banners.
    size_t texts = 0;
    for (const char* text : kFaultMessages) {
        if (child.output.find(text) != std::string::npos) ++texts;
    }
    EXPECT_EQ(texts, 1u) << child.output;
}

}  // namespace
