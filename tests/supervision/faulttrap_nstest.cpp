// Fault trap in forked children (fresh IPC namespace): texts and their order, exit status 0, one
// report on the supervisor's queue, a full or missing queue, restoring the earlier actions.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "FaultTrap.h"

// The handler ends with exit(0) and its normal exit processing (destructors, stream flushing) by
// design; the thread sanitizer would report that as a signal-unsafe call and change the status.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace {

// Runs body in a forked child whose standard output goes to a temporary file; a wedged child
// dies by SIGALRM.
class ChildRun {
  public:
    template <typename Body>
    explicit ChildRun(Body body) : out(tmpfile()) {
        fflush(stdout);
        pid = fork();
        if (pid == 0) {
            dup2(fileno(out), STDOUT_FILENO);
            alarm(20);
            body();
            _exit(99);
        }
    }
    ~ChildRun() { fclose(out); }
    // Exit code, or 128 + the signal that ended the child; -1 when fork failed.
    int exitStatus() {
        int status = 0;
        if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string output() const {
        std::string text(4096, '\0');
        ssize_t n = pread(fileno(out), &text[0], text.size(), 0);
        text.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return text;
    }
    pid_t pid;

  private:
    FILE* out;
};

struct SupervisorQueue {
    SupervisorQueue() : id(msgget(IPC_PRIVATE, IPC_CREAT | 0600)) {}
    ~SupervisorQueue() { msgctl(id, IPC_RMID, nullptr); }
    // Takes every message, all of which must be empty fault reports; -1 otherwise.
    int takeReports() {
        int count = 0;
        struct {
            long mtype;
            char body[8];
        } msg;
        while (msgrcv(id, &msg, 0, 0, IPC_NOWAIT) == 0) {
            if (msg.mtype != kFaultReportMsgType) return -1;
            ++count;
        }
        return errno == ENOMSG ? count : -1;
    }
    int id;
};

std::string banner(int sig, pid_t pid) {
    return "Trap System Abnormal  sig = " + std::to_string(sig) + " pid = " + std::to_string(pid) +
           " **********\n";
}

class FaultTrapSignals : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(FaultTrapSignals, PrintsBannerAndTextReportsOnceAndExitsZero) {
    int sig = GetParam().first;
    SupervisorQueue queue;
    ChildRun child([&] {
        FaultTrap trap(queue.id);
        if (sig != SIGSEGV) raise(sig);
        // A page with no access at all: a real fault, not one a sanitizer reports first.
        void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
    });
    EXPECT_EQ(child.exitStatus(), 0);
    EXPECT_EQ(child.output(), banner(sig, child.pid) + kFaultMessages[GetParam().second] + "\n");
    EXPECT_EQ(queue.takeReports(), 1);
}

INSTANTIATE_TEST_SUITE_P(AllFour, FaultTrapSignals,
                         ::testing::Values(std::make_pair(SIGABRT, 0), std::make_pair(SIGFPE, 1),
                                           std::make_pair(SIGILL, 2), std::make_pair(SIGSEGV, 3)));

TEST(FaultTrap, FullOrMissingSupervisorQueueDoesNotKeepTheProcessAlive) {
    SupervisorQueue full;
    msqid_ds info{};
    ASSERT_EQ(msgctl(full.id, IPC_STAT, &info), 0);
    info.msg_qbytes = 1;  // room for a single message
    ASSERT_EQ(msgctl(full.id, IPC_SET, &info), 0);
    struct {
        long mtype;
        char body[1];
    } filler = {5, {'x'}};
    ASSERT_EQ(msgsnd(full.id, &filler, 1, IPC_NOWAIT), 0);

    for (int queueId : {full.id, -1}) {
        ChildRun child([&] {
            FaultTrap trap(queueId);
            raise(SIGABRT);
        });
        EXPECT_EQ(child.exitStatus(), 0) << "queue " << queueId;
        EXPECT_NE(child.output().find(kFaultMessages[0]), std::string::npos);
    }
}

TEST(FaultTrap, TwoThreadsFaultingTogetherEndWithOneReport) {
    SupervisorQueue queue;
    ChildRun child([&] {
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
    EXPECT_EQ(child.exitStatus(), 0);
    EXPECT_EQ(queue.takeReports(), 1);
    // Either thread may win; exactly one fault text follows the banners.
    std::string output = child.output();
    int texts = 0;
    for (const char* text : kFaultMessages) texts += output.find(text) != std::string::npos;
    EXPECT_EQ(texts, 1) << output;
}

}  // namespace
