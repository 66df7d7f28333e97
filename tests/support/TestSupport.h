// Helpers shared by the test programs: capture of a descriptor's output, a loopback UDP peer,
// and the guard for tests that must run inside the private namespaces of tools/nsrun.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

// Tests that touch fixed System V keys, /root or network devices skip themselves outside nsrun.
#define S2E_REQUIRE_NAMESPACE() \
    if (std::getenv("S2E_IN_NS") == nullptr) GTEST_SKIP() << "needs the namespaces of tools/nsrun"

namespace s2etest {

// Sends a descriptor (standard output by default) into a temporary file until text() is called.
class FdCapture {
  public:
    explicit FdCapture(int fd = STDOUT_FILENO) : fd_(fd), file_(tmpfile()) {
        fflush(nullptr);
        saved_ = dup(fd_);
        dup2(fileno(file_), fd_);
    }
    ~FdCapture() {
        restore();
        fclose(file_);
    }
    FdCapture(const FdCapture&) = delete;
    FdCapture& operator=(const FdCapture&) = delete;

    std::string text() {
        restore();
        std::string out;
        char chunk[4096];
        rewind(file_);
        for (size_t got; (got = fread(chunk, 1, sizeof chunk, file_)) > 0;) out.append(chunk, got);
        return out;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    int fd_;
    FILE* file_;
    int saved_ = -1;
};

// What `body` writes to standard output.
template <typename Body>
std::string captureStdout(Body&& body) {
    FdCapture capture;
    body();
    return capture.text();
}

// A UDP socket on 127.0.0.1 and a free port: the only kind of peer tests ever send to.
class UdpPeer {
  public:
    UdpPeer() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        const int big = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), len);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~UdpPeer() { close(fd_); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    uint16_t port() const { return port_; }

    // Next datagram; `got` tells an empty datagram from none within the timeout.
    std::string receive(bool* got = nullptr, int timeoutMs = 3000) {
        pollfd p{fd_, POLLIN, 0};
        char buf[4096];
        const ssize_t n = poll(&p, 1, timeoutMs) == 1 ? recv(fd_, buf, sizeof buf, 0) : -1;
        if (got != nullptr) *got = n >= 0;
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }
    void drain() {
        char buf[4096];
        while (recv(fd_, buf, sizeof buf, MSG_DONTWAIT) >= 0) {
        }
    }

  private:
    int fd_;
    uint16_t port_ = 0;
};

}  // namespace s2etest
