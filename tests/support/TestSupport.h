// Helpers of the test programs: output capture, files, a loopback UDP peer, test reruns.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace s2etest {

inline std::string readFile(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}
// Where a symbolic link leads; empty when it is none.
inline std::string readLink(const std::string& path) {
    char target[4096];
    const ssize_t n = readlink(path.c_str(), target, sizeof target);
    return std::string(target, size_t(std::max<ssize_t>(n, 0)));
}
// What was written so far to the open (or unlinked) file of a stream.
inline std::string contents(FILE* file) {
    return fflush(nullptr), readFile("/proc/self/fd/" + std::to_string(fileno(file)));
}

// Sends a descriptor (standard output by default) into a temporary file until text() is called.
struct FdCapture {
    explicit FdCapture(int fd = STDOUT_FILENO)
        : fd_(fd), file_(tmpfile()), saved_((fflush(nullptr), dup(fd))) {
        dup2(fileno(file_), fd_);
    }
    ~FdCapture() { restore(), fclose(file_); }
    // What was written so far; the capture goes on.
    std::string peek() const { return contents(file_); }
    std::string text() { return restore(), peek(); }
    void restore() {
        if (saved_ >= 0) fflush(nullptr), dup2(saved_, fd_), close(saved_), saved_ = -1;
    }
    int fd_;
    FILE* file_;
    int saved_;
};

template <typename Body>
std::string captureStdout(Body&& body) {
    FdCapture capture;
    return body(), capture.text();
}

// A UDP socket on 127.0.0.1 and a free port: the only kind of peer tests ever send to.
struct UdpPeer {
    UdpPeer() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof addr;
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), len);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~UdpPeer() { close(fd_); }
    uint16_t port() const { return port_; }
    // Next datagram; `got` tells an empty datagram from none within the timeout.
    std::string receive(bool* got = nullptr, int timeoutMs = 3000) {
        pollfd p{fd_, POLLIN, 0};
        char buf[4096];
        const ssize_t n = poll(&p, 1, timeoutMs) == 1 ? recv(fd_, buf, sizeof buf, 0) : -1;
        if (got != nullptr) *got = n >= 0;
        return std::string(buf, size_t(std::max<ssize_t>(n, 0)));
    }
    int fd_;
    uint16_t port_ = 0;
};

inline msqid_ds queueStat(int id) {
    msqid_ds ds{};
    msgctl(id, IPC_STAT, &ds);
    return ds;
}

// Runs the current test alone in a fresh process with S2E_CHILD=role; its exit status, or -1.
int rerunCurrentTest(const char* role);
// The child also gets IPC objects of its own: the fixed keys must not meet this process's queues.
#define IN_A_FRESH_PROCESS(role)                       \
    if (getenv("S2E_CHILD") == nullptr) {              \
        EXPECT_EQ(s2etest::rerunCurrentTest(role), 0); \
        return;                                        \
    }                                                  \
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0)

}  // namespace s2etest
