// Helpers of the debug-unit tests: standard-output capture, a loopback UDP peer, peer records.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "debug.h"

namespace debugtest {

// Sends fd 1 (or another fd) into a temporary file until text() is called.
class FdCapture {
  public:
    explicit FdCapture(int fd = STDOUT_FILENO) : fd_(fd) {
        fflush(stdout);
        fflush(stderr);
        file_ = tmpfile();
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
        rewind(file_);
        char chunk[4096];
        size_t got;
        while ((got = fread(chunk, 1, sizeof chunk, file_)) > 0) out.append(chunk, got);
        return out;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        fflush(stdout);
        fflush(stderr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    int fd_;
    int saved_ = -1;
    FILE* file_ = nullptr;
};

// A UDP socket bound to 127.0.0.1 on a free port: the only peer the tests ever send to.
class UdpPeer {
  public:
    UdpPeer() {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        int big = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        socklen_t len = sizeof addr;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    ~UdpPeer() { close(fd_); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    uint16_t port() const { return port_; }
    bool ok() const { return fd_ >= 0 && port_ != 0; }

    // Next datagram; `got` false when none arrived within the timeout.
    std::string receive(bool* got = nullptr, int timeoutMs = 3000) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) != 1) {
            if (got != nullptr) *got = false;
            return {};
        }
        char buf[4096];
        const ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (got != nullptr) *got = n >= 0;
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }

    // Throws away whatever is queued.
    void drain() {
        char buf[4096];
        while (recv(fd_, buf, sizeof buf, MSG_DONTWAIT) >= 0) {
        }
    }

  private:
    int fd_ = -1;
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
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// True when `text` starts with `shape`, where '#' in the shape stands for any decimal digit.
inline bool startsWithShape(const std::string& text, const std::string& shape) {
    if (text.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '#' ? !digit : text[i] != shape[i]) return false;
    }
    return true;
}

// The "Msg: <file>,(<line>): " prefix printed before perror on a socket-creation failure.
inline bool isSocketFailurePrefix(const std::string& text, const std::string& file) {
    const std::string head = "Msg: " + file + ",(";
    if (text.compare(0, head.size(), head) != 0 || text.size() < head.size() + 4) return false;
    size_t i = head.size();
    const size_t digitsFrom = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    return i > digitsFrom && text.substr(i) == "): ";
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
