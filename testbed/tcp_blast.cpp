// Bulk TCP transfer for the end-to-end runs: a sender of deterministic pseudo-random bytes and a
// receiver, each printing one line "bytes=N fnv=HEX seconds=S rate=B/s" so the two can be compared.
//
// Usage: tcp_blast recv PORT [TIMEOUT_S]          accept one connection, read until the peer closes
//        tcp_blast check PORT [TIMEOUT_S]         the same, and compare every byte with the stream
//                                                 the sender makes
//        tcp_blast send ADDR PORT BYTES [TIMEOUT_S] connect, send BYTES bytes, close
// The receiver's rate counts from its first to its last byte (the connection set-up is left out).
// check adds a line "corrupt_bytes=N corrupt_bits=N corrupt_segments=N" and, before it, one line
// "corrupt offset=N bytes=N bits=N" per corrupted segment: corrupted bytes closer together than one
// segment can be (kSegmentSpan) are counted as one, since the network stack delivers segments
// whole. Exit status 0 on a complete transfer, 1 otherwise (including a timeout, default 120 s).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

double nowS() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Fnv {
    uint64_t h = 0xcbf29ce484222325ull;
    void add(const uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
    }
};

constexpr uint64_t kStreamSeed = 0x2545F4914F6CDD1Dull;

void fill(uint8_t* p, size_t n, uint64_t& state) {  // xorshift stream, same on both ends
    for (size_t i = 0; i < n; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        p[i] = static_cast<uint8_t>(state);
    }
}

void report(uint64_t bytes, const Fnv& f, double seconds) {
    printf("bytes=%llu fnv=%016llx seconds=%.3f rate=%.0f\n",
           static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(f.h), seconds,
           seconds > 0 ? static_cast<double>(bytes) / seconds : 0.0);
    fflush(stdout);
}

bool waitFor(int fd, short events, double deadline) {
    pollfd p{fd, events, 0};
    for (;;) {
        double left = deadline - nowS();
        if (left <= 0) return false;
        int r = poll(&p, 1, static_cast<int>(left * 1000) + 1);
        if (r > 0) return true;
        if (r < 0 && errno != EINTR) return false;
    }
}

// A stream offset past every byte the sender could have put into one TCP segment over Ethernet.
constexpr uint64_t kSegmentSpan = 1500;

// Compares what arrives with what the sender made, and groups the differences into segments.
struct Checker {
    uint64_t state = 0;  // the sender's generator, advanced in step with the received bytes
    uint64_t bytes = 0, bits = 0, segments = 0;
    uint64_t segmentStart = 0, segmentBytes = 0, segmentBits = 0;
    uint8_t expected[65536];

    void add(uint64_t offset, const uint8_t* p, size_t n) {
        fill(expected, n, state);
        for (size_t i = 0; i < n; ++i) {
            unsigned diff = static_cast<unsigned>(p[i] ^ expected[i]);
            if (diff == 0) continue;
            uint64_t at = offset + i;
            if (segmentBytes == 0 || at >= segmentStart + kSegmentSpan) {
                flush();
                segmentStart = at;
            }
            unsigned flipped = static_cast<unsigned>(__builtin_popcount(diff));
            ++segmentBytes;
            segmentBits += flipped;
            ++bytes;
            bits += flipped;
        }
    }
    void flush() {
        if (segmentBytes == 0) return;
        printf("corrupt offset=%llu bytes=%llu bits=%llu\n",
               static_cast<unsigned long long>(segmentStart),
               static_cast<unsigned long long>(segmentBytes),
               static_cast<unsigned long long>(segmentBits));
        ++segments;
        segmentBytes = segmentBits = 0;
    }
    void report() {
        flush();
        printf("corrupt_bytes=%llu corrupt_bits=%llu corrupt_segments=%llu\n",
               static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(bits),
               static_cast<unsigned long long>(segments));
        fflush(stdout);
    }
};

int receive(int port, double timeout, Checker* check) {
    int ls = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(ls, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(ls, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(ls, 1) != 0) {
        perror("tcp_blast: listen");
        return 1;
    }
    double deadline = nowS() + timeout;
    if (!waitFor(ls, POLLIN, deadline)) {
        fprintf(stderr, "tcp_blast: no connection\n");
        return 1;
    }
    int s = accept(ls, nullptr, nullptr);
    Fnv f;
    uint64_t total = 0;
    double first = 0, last = 0;
    uint8_t buf[65536];
    for (;;) {
        if (!waitFor(s, POLLIN, deadline)) {
            fprintf(stderr, "tcp_blast: timeout\n");
            report(total, f, last - first);
            if (check != nullptr) check->report();
            return 1;
        }
        ssize_t n = read(s, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (total == 0) first = nowS();
        last = nowS();
        f.add(buf, static_cast<size_t>(n));
        if (check != nullptr) check->add(total, buf, static_cast<size_t>(n));
        total += static_cast<uint64_t>(n);
    }
    report(total, f, last - first);
    if (check != nullptr) check->report();
    close(s);
    close(ls);
    return 0;
}

int send(const char* addr, int port, uint64_t bytes, double timeout) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, addr, &a.sin_addr) != 1) {
        fprintf(stderr, "tcp_blast: bad address %s\n", addr);
        return 1;
    }
    double deadline = nowS() + timeout;
    timeval tv{static_cast<time_t>(timeout), 0};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        perror("tcp_blast: connect");
        return 1;
    }
    Fnv f;
    uint64_t state = kStreamSeed, sent = 0;
    uint8_t buf[16384];
    double start = nowS();
    while (sent < bytes) {
        size_t n = bytes - sent < sizeof buf ? static_cast<size_t>(bytes - sent) : sizeof buf;
        fill(buf, n, state);
        f.add(buf, n);
        size_t off = 0;
        while (off < n) {
            ssize_t w = write(s, buf + off, n - off);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0 || nowS() > deadline) {
                fprintf(stderr, "tcp_blast: send failed after %llu bytes\n",
                        static_cast<unsigned long long>(sent + off));
                return 1;
            }
            off += static_cast<size_t>(w);
        }
        sent += n;
    }
    shutdown(s, SHUT_WR);
    // Wait for the receiver to close, so the reported time covers delivery, not just buffering.
    uint8_t sink[256];
    while (waitFor(s, POLLIN, deadline) && read(s, sink, sizeof sink) > 0) {
    }
    report(sent, f, nowS() - start);
    close(s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "recv") == 0) {
        return receive(atoi(argv[2]), argc > 3 ? atof(argv[3]) : 120.0, nullptr);
    }
    if (argc >= 3 && strcmp(argv[1], "check") == 0) {
        Checker check;
        check.state = kStreamSeed;
        return receive(atoi(argv[2]), argc > 3 ? atof(argv[3]) : 120.0, &check);
    }
    if (argc >= 5 && strcmp(argv[1], "send") == 0) {
        return send(argv[2], atoi(argv[3]), strtoull(argv[4], nullptr, 10),
                    argc > 5 ? atof(argv[5]) : 120.0);
    }
    fprintf(stderr,
            "usage: tcp_blast recv|check PORT [TIMEOUT_S] | send ADDR PORT BYTES [TIMEOUT_S]\n");
    return 2;
}
