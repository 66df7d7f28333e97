// The daemon when the status segment cannot be had (key 0x400007 taken by a segment too small):
// it reports, never writes through the failed attachment, and the monitor and trap still work.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "Monitor.h"
#include "ProcessContext.h"

namespace {

using Clock = std::chrono::steady_clock;

class Daemon {
  public:
    Daemon() {
        int fds[2];
        if (pipe(fds) != 0) return;
        const char* daemon = getenv("S2E_DAEMON");
        const char* emulator = getenv("S2E_EMULATOR");
        // Under the thread sanitizer: the trap's exit(0) from the handler is by design.
        setenv("TSAN_OPTIONS", "report_signal_unsafe=0", 0);
        pid = fork();
        if (pid == 0) {
            dup2(fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            close(fds[0]);
            close(fds[1]);
            if (emulator != nullptr && *emulator != '\0') {
                execl(emulator, emulator, daemon, static_cast<char*>(nullptr));
            } else {
                execl(daemon, daemon, static_cast<char*>(nullptr));
            }
            _exit(127);
        }
        close(fds[1]);
        out = fds[0];
    }
    ~Daemon() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (out >= 0) close(out);
    }
    // Collects output until text has appeared or the time is up.
    bool waitFor(const std::string& text, int seconds) {
        auto deadline = Clock::now() + std::chrono::seconds(seconds);
        while (output.find(text) == std::string::npos && Clock::now() < deadline) {
            pollfd p = {out, POLLIN, 0};
            if (poll(&p, 1, 50) > 0) {
                char buf[512];
                ssize_t n = read(out, buf, sizeof buf);
                if (n <= 0) break;
                output.append(buf, static_cast<size_t>(n));
            }
        }
        return output.find(text) != std::string::npos;
    }
    int waitExit() {
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    pid_t pid = -1;
    int out = -1;
    std::string output;
};

TEST(DaemonWithoutStatusRecord, ReportsAndRunsOnWithoutWritingThroughIt) {
    ASSERT_NE(getenv("S2E_DAEMON"), nullptr);
    int shmId = shmget(kStatusShmKey, 8, IPC_CREAT | 0666);
    ASSERT_NE(shmId, -1);
    auto* small = static_cast<unsigned char*>(shmat(shmId, nullptr, 0));
    ASSERT_NE(small, reinterpret_cast<unsigned char*>(-1));
    memset(small, 0xAB, 8);

    Daemon daemon;
    ASSERT_GT(daemon.pid, 0);
    std::string banner = "SerialToEth process pid=" + std::to_string(daemon.pid) + "\n";
    ASSERT_TRUE(daemon.waitFor(banner, 10)) << daemon.output;
    EXPECT_NE(daemon.output.find("status record 0x400007 not attached"), std::string::npos);

    // The monitor still serves its queue: a refresh and a type it ignores are taken off.
    int monitorQueue = -1;
    auto deadline = Clock::now() + std::chrono::seconds(10);
    while ((monitorQueue = msgget(0x310000, 0)) == -1 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(monitorQueue, -1);
    struct {
        long mtype;
        char body[4];
    } msg = {kRefreshMsgType, {0}};
    ASSERT_EQ(msgsnd(monitorQueue, &msg, 0, 0), 0);
    msg.mtype = 2;
    ASSERT_EQ(msgsnd(monitorQueue, &msg, 4, 0), 0);
    msqid_ds info{};
    do {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(msgctl(monitorQueue, IPC_STAT, &info), 0);
    } while (info.msg_qnum != 0 && Clock::now() < deadline);
    EXPECT_EQ(info.msg_qnum, 0u);
    EXPECT_EQ(kill(daemon.pid, 0), 0) << "daemon died serving its queue";

    for (int i = 0; i < 8; ++i) EXPECT_EQ(small[i], 0xAB) << "byte " << i << " written";

    // With no record there is no supervisor queue; the trap still ends the process cleanly.
    pid_t pid = daemon.pid;
    kill(pid, SIGSEGV);
    std::string trapBanner =
        "Trap System Abnormal  sig = 11 pid = " + std::to_string(pid) + " **********\n";
    EXPECT_TRUE(daemon.waitFor(
        trapBanner + "SIGSEGV:Memory access violation--Terminate with core dump\n", 10))
        << daemon.output;
    EXPECT_EQ(daemon.waitExit(), 0);
    shmdt(small);
    shmctl(shmId, IPC_RMID, nullptr);
}

}  // namespace
