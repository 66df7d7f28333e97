// Helpers of the debug-unit tests: peer records, file reading, output shapes, descriptor limits.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "debug.h"

namespace debugtest {

// Descriptor capture and the loopback peer are the shared ones.
using s2etest::FdCapture;
using s2etest::UdpPeer;

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
