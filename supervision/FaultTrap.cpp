// Fault trap: handler installation and the handler itself. The handler writes its fixed texts with
// write(2) and formats numbers by hand, so a fault inside stdio or malloc cannot wedge it.
#include "FaultTrap.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ThreadLocker.h"

const char* const kFaultMessages[4] = {
    "SIGABRT:Send by abort()--Terminate with core dump",
    "SIGFPE: Arithmetric exception--Terminate with core dump",
    "SIGILL:Process tried to excute an illegal instruction--Terminate with core dump",
    "SIGSEGV:Memory access violation--Terminate with core dump",
};

namespace {

// Serialises fault handling between threads: a second faulting thread waits here while the
// first one reports and exits. Made before main and never destroyed: exit(0) runs the static
// destructors while other threads may still be waiting on it.
ThreadLocker& trapLock = *new ThreadLocker();

// Read in the handler; a lock-free atomic is safe to load from a signal handler (relaxed: it is
// set once, before the handler is installed, and orders nothing else).
std::atomic<int32_t> supervisorQid{-1};

// Set by the first handler to get the trap lock. The lock is released before exit(0), and exit
// runs destructors for a while, so a second faulting thread could otherwise take the lock and
// report a second fault before the process is gone. Only touched under the trap lock (relaxed).
std::atomic<bool> faultHandled{false};

constexpr int kTrappedSignals[4] = {SIGABRT, SIGFPE, SIGILL, SIGSEGV};
struct sigaction savedActions[4];

// Appends text to buf at pos without overrunning cap; returns the new position.
size_t appendText(char* buf, size_t pos, size_t cap, const char* text) {
    while (*text != '\0' && pos < cap) buf[pos++] = *text++;
    return pos;
}

size_t appendInt(char* buf, size_t pos, size_t cap, long value) {
    char digits[24];
    size_t n = 0;
    unsigned long magnitude =
        value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
    do {
        digits[n++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0 && pos < cap) buf[pos++] = '-';
    while (n > 0 && pos < cap) buf[pos++] = digits[--n];
    return pos;
}

void writeAll(const char* buf, size_t len) {
    while (len > 0) {
        ssize_t done = write(STDOUT_FILENO, buf, len);
        if (done < 0) {
            if (errno == EINTR) continue;
            return;
        }
        buf += done;
        len -= static_cast<size_t>(done);
    }
}

int messageIndex(int signal) {
    for (int i = 0; i < 4; ++i) {
        if (kTrappedSignals[i] == signal) return i;
    }
    return -1;
}

}  // namespace

FaultTrap::FaultTrap(int32_t queueId) {
    supervisorQid.store(queueId, std::memory_order_relaxed);
    trapInstall();
}

int32_t FaultTrap::supervisorQueueId() {
    return supervisorQid.load(std::memory_order_relaxed);
}

void FaultTrap::trapInstall() {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = faultHandler;
    sigemptyset(&action.sa_mask);
    // SA_NOCLDWAIT has no effect on these signals; no SA_RESETHAND or SA_NODEFER, so the signal
    // stays blocked while its own handler runs.
    action.sa_flags = SA_NOCLDWAIT;
    for (int i = 0; i < 4; ++i) sigaction(kTrappedSignals[i], &action, &savedActions[i]);
}

void FaultTrap::trapRestore() {
    for (int i = 0; i < 4; ++i) sigaction(kTrappedSignals[i], &savedActions[i], nullptr);
}

void FaultTrap::faultHandler(int signal) {
    int savedErrno = errno;
    char line[128];
    size_t n = appendText(line, 0, sizeof line, "Trap System Abnormal  sig = ");
    n = appendInt(line, n, sizeof line, signal);
    n = appendText(line, n, sizeof line, " pid = ");
    n = appendInt(line, n, sizeof line, static_cast<long>(getpid()));
    n = appendText(line, n, sizeof line, " **********\n");
    writeAll(line, n);

    trapLock.lock();
    if (faultHandled.load(std::memory_order_relaxed)) {
        // The process is already ending from the first fault: wait for it without returning
        // to the faulting code.
        trapLock.unlock();
        for (;;) pause();
    }
    faultHandled.store(true, std::memory_order_relaxed);

    // Sent without waiting: a full supervisor queue must not keep a faulted process alive; the
    // supervisor still sees the process end.
    struct {
        long mtype;
        char body[1];
    } report = {kFaultReportMsgType, {0}};
    while (msgsnd(supervisorQid.load(std::memory_order_relaxed), &report, 0, IPC_NOWAIT) == -1 &&
           errno == EINTR) {
    }

    int index = messageIndex(signal);
    if (index >= 0) {
        const char* text = kFaultMessages[index];
        writeAll(text, strlen(text));
    }
    writeAll("\n", 1);

    // nanosleep rather than usleep: only the former is async-signal-safe.
    timespec pause10ms = {0, 10000000};
    nanosleep(&pause10ms, nullptr);
    trapRestore();
    trapLock.unlock();
    errno = savedErrno;
    exit(0);
}
