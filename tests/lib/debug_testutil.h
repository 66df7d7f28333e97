// Helpers of the debug-unit tests: capture of fd 1 or 2, a loopback UDP peer, peer records.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "debug.h"

namespace debugtest {

// Sends the descriptor into a temporary file until text() is called.
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

// A UDP socket on 127.0.0.1 and a free port: the only peer the tests ever send to.
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

inline DebugPeerAddr makePeer(uint16_t basePort, const char* address) {
    DebugPeerAddr peer{};
    peer.reserved = 0xA5;
    peer.basePort = basePort;
    snprintf(peer.address, sizeof peer.address, "%s", address);
    return peer;
}

inline std::string readFile(const char* path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// True when `text` is `shape`, where '#' in the shape stands for one or more digits.
inline bool matchesShape(const std::string& text, const std::string& shape) {
    size_t t = 0;
    for (char s : shape) {
        if (s != '#') {
            if (t >= text.size() || text[t++] != s) return false;
            continue;
        }
        const size_t from = t;
        while (t < text.size() && text[t] >= '0' && text[t] <= '9') ++t;
        if (t == from) return false;
    }
    return t == text.size();
}

// Lowers the descriptor limit so that the next socket() fails with EMFILE; restores on destruction.
class NoMoreDescriptors {
  public:
    NoMoreDescriptors() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        const int lowestFree = dup(STDIN_FILENO);
        close(lowestFree);
        rlimit tight = saved_;
        tight.rlim_cur = static_cast<rlim_t>(lowestFree);
        setrlimit(RLIMIT_NOFILE, &tight);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }

  private:
    rlimit saved_{};
};

}  // namespace debugtest
