// Serial line emulator: joins two pseudo-terminals with a relay paced like a 576000 baud 8N1 line
// (57600 bytes per second each way) and injects bit errors, dropped bytes and garbage on demand.
//
// Usage: line_emu [--info FILE] [--control FIFO] [--rate BYTES_PER_S] [--ber P] [--drop P]
//                 [--tick USEC] [--queue BYTES] [--rx-fifo N] [--rx-timeout CHARS] [--seed N]
//                 [--pcap FILE] [--summary]
//   --info FILE     written once both terminals exist: "a <slave path>\nb <slave path>\n"
//                   (written to FILE.tmp, then renamed, so a reader never sees half of it)
//   --control FIFO  a FIFO (made if missing) that takes one command per line:
//                     ber <P> [ab|ba]     probability that a bit on the line flips (0 = clean)
//                     drop <P> [ab|ba]    probability that a byte is lost
//                     garbage <N> [ab|ba] queue a burst of N random bytes on the line
//                     inject <FILE> [ab|ba] queue the bytes of FILE on the line (crafted frames)
//                     flood <S> [ab|ba]   for S seconds (0 ends it) the line carries random bytes
//                                         at its full rate, whatever the sender sends, as from a
//                                         far end at the wrong speed; the sender's bytes are lost
//                     cut [ab|ba]         the line is cut: every byte sent is lost until
//                     mend [ab|ba]        joins it again
//                     hangup <a|b>        that side's terminal goes away, as a UART unplugged:
//                                         its daemon's reads and writes fail from now on; a new
//                                         terminal takes its place on the line (the --info file
//                                         is written again with its path)
//                     clear               no more bit errors or drops
//                     stats               print the counters on standard error
//                   "ab" is the direction from side a to side b; without it a command acts on both.
//   --rate          bytes per second per direction (default 57600: ten bit times per byte)
//   --tick          longest pause of the relay while bytes are in flight (default 100 us): bytes
//                   are handed to the far side no later than this after their last bit time
//   --queue         bytes the relay takes from a side ahead of the line, like a UART transmit
//                   FIFO (default 4096); the rest waits in the pseudo-terminal
//   --rx-fifo N     the receiving UART hands bytes to its driver N at a time, as a receive FIFO
//                   with an interrupt trigger level does (default 1: every byte at once); bytes
//                   short of N are handed over once the line has been quiet for
//   --rx-timeout C  character times (default 4). The board's UART driver uses a trigger level of
//                   56 and a time-out of 40 bit times: --rx-fifo 56 --rx-timeout 4.
//   --pcap FILE     write what each side receives, as its daemon sees it, to a pcapng file:
//                   interfaces "a->b" and "b->a" carry the packets the receiving daemon delivers,
//                   "a->b dropped" and "b->a dropped" the bytes it drops, with the reason
//   --summary       print one line per second on standard error: per direction, frames
//                   delivered and dropped by reason, bytes of noise
// SIGTERM or SIGINT ends it; the counters are printed on standard error at the end.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "LineTap.h"
#include "PcapngCapture.h"

namespace {

volatile sig_atomic_t stopRequested = 0;
int hangupSide = -1;  // set by the "hangup" command, carried out by the relay loop
void onStop(int) {
    stopRequested = 1;
}

int64_t clockNs(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
int64_t nowNs() {
    return clockNs(CLOCK_MONOTONIC);
}

uint64_t rngState = 0x9E3779B97F4A7C15ull;
uint64_t nextRandom() {  // xorshift64*: cheap and good enough for fault placement
    rngState ^= rngState >> 12;
    rngState ^= rngState << 25;
    rngState ^= rngState >> 27;
    return rngState * 2685821657736338717ull;
}
double uniform() {
    return static_cast<double>(nextRandom() >> 11) * (1.0 / 9007199254740992.0);
}

struct Direction {
    const char* name;
    int from = -1;  // master of the sending side
    int to = -1;    // master of the receiving side
    // Bytes taken from the sender and not yet fully on the line.
    uint8_t* queue = nullptr;
    size_t capacity = 0, head = 0, count = 0;
    int64_t nextDone = 0;  // when the byte at the head has its last bit on the line
    double ber = 0, drop = 0;
    bool cut = false;
    int64_t floodUntil = 0;  // the line carries only noise while its bytes end before this
    std::string inject;      // crafted bytes waiting for room in the queue
    // Bytes off the line, waiting in the receiving UART's FIFO for its trigger level or time-out.
    uint8_t fifo[4096];
    size_t pending = 0;
    int64_t lastDone = 0;  // when the newest byte in the FIFO had its last bit on the line
    uint64_t carried = 0, flipped = 0, dropped = 0, garbage = 0, overrun = 0, lostToCut = 0,
             flooded = 0;
    LineTap* tap = nullptr;  // sees what the receiving side gets, when capturing

    size_t room() const { return capacity - count; }
    void push(const uint8_t* data, size_t n, int64_t now, int64_t byteNs) {
        if (count == 0 && nextDone < now + byteNs) nextDone = now + byteNs;  // idle line starts now
        for (size_t i = 0; i < n; ++i) queue[(head + count + i) % capacity] = data[i];
        count += n;
    }
};

void applyFaults(Direction& d, uint8_t* out, size_t& n) {
    if (d.ber <= 0 && d.drop <= 0) return;
    size_t kept = 0;
    for (size_t i = 0; i < n; ++i) {
        if (d.drop > 0 && uniform() < d.drop) {
            ++d.dropped;
            continue;
        }
        uint8_t b = out[i];
        if (d.ber > 0) {
            for (int bit = 0; bit < 8; ++bit) {
                if (uniform() < d.ber) {
                    b ^= static_cast<uint8_t>(1u << bit);
                    ++d.flipped;
                }
            }
        }
        out[kept++] = b;
    }
    n = kept;
}

// Moves every byte whose last bit time has passed into the receiving UART's FIFO, and hands the
// FIFO to the far side when it reaches its trigger level or the line has been quiet long enough.
void deliver(Direction& d, int64_t now, int64_t byteNs, size_t trigger, int64_t quietNs) {
    for (;;) {
        while (d.count > 0 && d.nextDone <= now && d.pending < sizeof d.fifo) {
            size_t n = 1;
            uint8_t b = d.queue[d.head];
            d.head = (d.head + 1) % d.capacity;
            --d.count;
            d.lastDone = d.nextDone;
            d.nextDone += byteNs;
            ++d.carried;
            if (d.cut) {
                ++d.lostToCut;
                continue;
            }
            if (d.lastDone < d.floodUntil) {
                b = static_cast<uint8_t>(nextRandom() >> 56);
                ++d.flooded;
            }
            applyFaults(d, &b, n);
            if (n == 1) d.fifo[d.pending++] = b;
        }
        const bool quiet = now >= d.lastDone + quietNs;
        if (d.pending == 0 || (d.pending < trigger && !quiet && d.pending < sizeof d.fifo)) return;
        ssize_t w = write(d.to, d.fifo, d.pending);
        // A receiver that does not keep up loses bytes, as a UART without flow control would.
        if (w < 0) w = 0;
        d.overrun += d.pending - static_cast<size_t>(w);
        // Stamped with the time the receiver can read them, as its daemon would.
        if (d.tap != nullptr && w > 0) {
            d.tap->feed(d.fifo, static_cast<size_t>(w), clockNs(CLOCK_REALTIME));
        }
        d.pending = 0;
    }
}

void printStats(const Direction* dirs) {
    for (int i = 0; i < 2; ++i) {
        const Direction& d = dirs[i];
        fprintf(
            stderr,
            "line_emu %s: carried %llu flipped-bits %llu dropped %llu garbage %llu overrun %llu "
            "queued %zu cut %llu flooded %llu\n",
            d.name, static_cast<unsigned long long>(d.carried),
            static_cast<unsigned long long>(d.flipped), static_cast<unsigned long long>(d.dropped),
            static_cast<unsigned long long>(d.garbage), static_cast<unsigned long long>(d.overrun),
            d.count, static_cast<unsigned long long>(d.lostToCut),
            static_cast<unsigned long long>(d.flooded));
    }
}

void handleCommand(char* line, Direction* dirs, int64_t now, int64_t byteNs) {
    char verb[16] = {}, arg[64] = {}, which[8] = {};
    int fields = sscanf(line, "%15s %63s %7s", verb, arg, which);
    if (fields < 1) return;
    std::string v = verb;
    // The direction is the last word: after the argument, or in its place for a verb without one.
    const bool bare = v == "cut" || v == "mend";
    const char* dir = bare ? (fields >= 2 ? arg : "") : (fields >= 3 ? which : "");
    const bool ab = dir[0] == 0 || strcmp(dir, "ab") == 0;
    const bool ba = dir[0] == 0 || strcmp(dir, "ba") == 0;
    auto each = [&](auto apply) {
        if (ab) apply(dirs[0]);
        if (ba) apply(dirs[1]);
    };
    if (v == "clear") {
        for (int i = 0; i < 2; ++i) dirs[i].ber = dirs[i].drop = 0;
    } else if (v == "stats") {
        printStats(dirs);
    } else if ((v == "ber" || v == "drop") && fields >= 2) {
        double p = atof(arg);
        each([&](Direction& d) { (v == "ber" ? d.ber : d.drop) = p; });
    } else if (v == "garbage" && fields >= 2) {
        long n = atol(arg);
        each([&](Direction& d) {
            for (long k = 0; k < n && d.room() > 0; ++k) {
                uint8_t b = static_cast<uint8_t>(nextRandom() >> 56);
                d.push(&b, 1, now, byteNs);
                ++d.garbage;
            }
        });
    } else if (v == "hangup" && fields >= 2 && (arg[0] == 'a' || arg[0] == 'b') && arg[1] == 0) {
        hangupSide = arg[0] == 'a' ? 0 : 1;
    } else if (bare) {
        each([&](Direction& d) { d.cut = v == "cut"; });
    } else if (v == "flood" && fields >= 2) {
        const int64_t until = now + static_cast<int64_t>(atof(arg) * 1e9);
        each([&](Direction& d) { d.floodUntil = until; });
    } else if (v == "inject" && fields >= 2) {
        FILE* f = fopen(arg, "rb");
        if (f == nullptr) {
            perror("line_emu: inject");
            return;
        }
        std::string bytes;
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) bytes.append(chunk, n);
        fclose(f);
        each([&](Direction& d) { d.inject += bytes; });
    } else {
        fprintf(stderr, "line_emu: unknown command: %s\n", line);
    }
}

bool writeInfo(const char* infoPath, const std::string& pathA, const std::string& pathB) {
    std::string tmp = std::string(infoPath) + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f) {
        perror("line_emu: info");
        return false;
    }
    fprintf(f, "a %s\nb %s\n", pathA.c_str(), pathB.c_str());
    fclose(f);
    return rename(tmp.c_str(), infoPath) == 0;
}

int openSide(std::string& slavePath, int& slaveFd) {
    termios raw{};
    cfmakeraw(&raw);
    cfsetispeed(&raw, B576000);
    cfsetospeed(&raw, B576000);
    int master = -1;
    char name[128] = {};
    if (openpty(&master, &slaveFd, name, &raw, nullptr) != 0) {
        perror("line_emu: openpty");
        exit(1);
    }
    // The master side in raw mode too, so nothing the daemon writes is altered on its way to us.
    termios m{};
    tcgetattr(master, &m);
    cfmakeraw(&m);
    tcsetattr(master, TCSANOW, &m);
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    slavePath = name;
    return master;
}

}  // namespace

int main(int argc, char** argv) {
    const char* infoPath = nullptr;
    const char* controlPath = nullptr;
    const char* pcapPath = nullptr;
    bool summary = false;
    double rate = 57600, ber = 0, drop = 0;
    long tickUs = 100, queueBytes = 4096, rxFifo = 1;
    double rxTimeoutChars = 4;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> const char* {
            if (i + 1 >= argc) {
                fprintf(stderr, "line_emu: %s needs a value\n", a.c_str());
                exit(2);
            }
            return argv[++i];
        };
        if (a == "--info")
            infoPath = next();
        else if (a == "--control")
            controlPath = next();
        else if (a == "--rate")
            rate = atof(next());
        else if (a == "--ber")
            ber = atof(next());
        else if (a == "--drop")
            drop = atof(next());
        else if (a == "--tick")
            tickUs = atol(next());
        else if (a == "--queue")
            queueBytes = atol(next());
        else if (a == "--rx-fifo")
            rxFifo = atol(next());
        else if (a == "--rx-timeout")
            rxTimeoutChars = atof(next());
        else if (a == "--seed")
            rngState = strtoull(next(), nullptr, 0) | 1;
        else if (a == "--pcap")
            pcapPath = next();
        else if (a == "--summary")
            summary = true;
        else {
            fprintf(stderr, "line_emu: unknown option %s\n", a.c_str());
            return 2;
        }
    }
    if (rate <= 0 || tickUs <= 0 || queueBytes <= 0 || rxFifo <= 0 || rxFifo > 4096 ||
        rxTimeoutChars < 0) {
        fprintf(stderr, "line_emu: rate, tick, queue and rx-fifo (up to 4096) must be positive\n");
        return 2;
    }
    const int64_t byteNs = static_cast<int64_t>(std::llround(1e9 / rate));
    const size_t trigger = static_cast<size_t>(rxFifo);
    const int64_t quietNs = static_cast<int64_t>(std::llround(rxTimeoutChars * 1e9 / rate));

    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    // Wake-ups at the requested time, not up to 50 us later: the relay's timing is the line's.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);

    std::string pathA, pathB;
    int slaveA = -1, slaveB = -1;
    int masterA = openSide(pathA, slaveA);
    int masterB = openSide(pathB, slaveB);
    // The slave descriptors stay open here so that the line does not hang up while no daemon has
    // its end open (a master read would then fail with EIO).

    Direction dirs[2];
    dirs[0].name = "ab";
    dirs[0].from = masterA;
    dirs[0].to = masterB;
    dirs[1].name = "ba";
    dirs[1].from = masterB;
    dirs[1].to = masterA;
    for (Direction& d : dirs) {
        d.capacity = static_cast<size_t>(queueBytes);
        d.queue = static_cast<uint8_t*>(malloc(d.capacity));
        d.ber = ber;
        d.drop = drop;
    }

    // The capture: each direction seen as the receiving daemon sees it.
    int pcapFd = -1;
    std::unique_ptr<PcapngCapture> capture;
    std::unique_ptr<LineTap> taps[2];
    WireSummary lines(stderr, false);
    if (pcapPath) {
        pcapFd = open(pcapPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (pcapFd < 0) {
            perror("line_emu: pcap");
            return 1;
        }
    }
    if (pcapPath || summary) {
        capture = std::make_unique<PcapngCapture>(pcapFd, "line_emu (SerialToEth line emulator)");
        const char* labels[2] = {"a->b", "b->a"};
        for (int i = 0; i < 2; ++i) {
            taps[i] =
                std::make_unique<LineTap>(capture->addDirection(labels[i], "the emulated line"));
            dirs[i].tap = taps[i].get();
            if (summary) lines.add(labels[i], taps[i].get());
        }
    }
    // Noise is merged into one packet while it continues; a pause this long ends it.
    constexpr int64_t kCaptureIdleNs = 200000000;
    int64_t lastDeliveryNs = 0;

    int controlFd = -1;
    if (controlPath) {
        if (mkfifo(controlPath, 0600) != 0 && errno != EEXIST) {
            perror("line_emu: mkfifo");
            return 1;
        }
        // Opened read-write so the FIFO never reports end-of-file between writers.
        controlFd = open(controlPath, O_RDWR | O_NONBLOCK);
        if (controlFd < 0) {
            perror("line_emu: control");
            return 1;
        }
    }

    if (infoPath) {
        if (!writeInfo(infoPath, pathA, pathB)) return 1;
    } else {
        printf("a %s\nb %s\n", pathA.c_str(), pathB.c_str());
        fflush(stdout);
    }

    std::string controlLine;
    uint8_t buf[4096];
    while (!stopRequested) {
        if (hangupSide >= 0) {
            // Both ends of the old terminal close, so the daemon that holds its slave sees a hung
            // up line; the relay goes on with a new terminal on that side.
            int& master = hangupSide == 0 ? masterA : masterB;
            int& slave = hangupSide == 0 ? slaveA : slaveB;
            std::string& path = hangupSide == 0 ? pathA : pathB;
            close(master);
            close(slave);
            master = openSide(path, slave);
            dirs[hangupSide].from = master;
            dirs[1 - hangupSide].to = master;
            if (infoPath) writeInfo(infoPath, pathA, pathB);
            hangupSide = -1;
        }
        int64_t now = nowNs();
        for (Direction& d : dirs) {
            // Crafted bytes go on as the queue frees; a flood keeps the line busy with filler
            // (replaced by noise on delivery like the sender's own bytes).
            if (!d.inject.empty() && d.room() > 0) {
                const size_t n = d.inject.size() < d.room() ? d.inject.size() : d.room();
                d.push(reinterpret_cast<const uint8_t*>(d.inject.data()), n, now, byteNs);
                d.inject.erase(0, n);
            }
            if (now < d.floodUntil && d.count < 64) {
                uint8_t filler[64] = {};
                const size_t n = 64 - d.count < d.room() ? 64 - d.count : d.room();
                d.push(filler, n, now, byteNs);
            }
            if (d.count > 0 && d.nextDone <= now) lastDeliveryNs = now;
            deliver(d, now, byteNs, trigger, quietNs);
        }
        if (taps[0]) {
            if (summary) lines.advance(clockNs(CLOCK_REALTIME));
            if (now - lastDeliveryNs >= kCaptureIdleNs) {
                capture->flushNoise();
            }
        }

        pollfd fds[3];
        int nfds = 0;
        for (Direction& d : dirs) {
            // Read a side only while its queue has room: the rest waits in the terminal, so
            // the sender feels the line's pace.
            fds[nfds++] = {d.from, static_cast<short>(d.room() > 0 ? POLLIN : 0), 0};
        }
        if (controlFd >= 0) fds[nfds++] = {controlFd, POLLIN, 0};

        // While bytes are in flight, wake when the next one is done, but not sooner than a tick:
        // bytes go over in small batches instead of one wake-up per byte. Bytes waiting in a
        // receive FIFO short of its trigger level go over when the line has been quiet enough.
        int64_t wait = -1;
        for (Direction& d : dirs) {
            if (d.pending > 0 && (d.count == 0 || d.nextDone > d.lastDone + quietNs)) {
                const int64_t until = d.lastDone + quietNs - now;
                if (wait < 0 || until < wait) wait = until < 0 ? 0 : until;
            }
            if (d.count == 0) continue;
            int64_t until = d.nextDone - now;
            int64_t last = d.nextDone + static_cast<int64_t>(d.count - 1) * byteNs - now;
            // The tail of a burst is handed over on time: a frame's last byte is what the far side
            // waits for, so a tick's delay there would show in every round trip.
            if (until < tickUs * 1000) until = last < tickUs * 1000 ? last : tickUs * 1000;
            if (until < 0) until = 0;
            if (wait < 0 || until < wait) wait = until;
        }
        // A capture wakes now and then to end noise packets and print its summary lines.
        if (taps[0] && (wait < 0 || wait > kCaptureIdleNs)) wait = kCaptureIdleNs;
        timespec ts{};
        timespec* tsp = nullptr;
        if (wait >= 0) {
            ts.tv_sec = wait / 1000000000;
            ts.tv_nsec = wait % 1000000000;
            tsp = &ts;
        }
        int r = ppoll(fds, static_cast<nfds_t>(nfds), tsp, nullptr);
        if (r < 0) {
            if (errno == EINTR) continue;
            perror("line_emu: poll");
            break;
        }
        now = nowNs();
        for (int i = 0; i < 2; ++i) {
            Direction& d = dirs[i];
            if (!(fds[i].revents & POLLIN) || d.room() == 0) continue;
            size_t want = d.room() < sizeof buf ? d.room() : sizeof buf;
            ssize_t n = read(d.from, buf, want);
            if (n > 0) d.push(buf, static_cast<size_t>(n), now, byteNs);
        }
        if (controlFd >= 0 && (fds[nfds - 1].revents & POLLIN)) {
            char cbuf[512];
            ssize_t n = read(controlFd, cbuf, sizeof cbuf);
            for (ssize_t k = 0; k < n; ++k) {
                if (cbuf[k] == '\n') {
                    handleCommand(&controlLine[0], dirs, now, byteNs);
                    controlLine.clear();
                } else {
                    controlLine += cbuf[k];
                }
            }
        }
    }
    printStats(dirs);
    if (taps[0]) {
        for (auto& t : taps) t->finish(clockNs(CLOCK_REALTIME));
        capture->flushNoise();
        if (summary) lines.total();
    }
    if (pcapFd >= 0) close(pcapFd);
    close(slaveA);
    close(slaveB);
    close(masterA);
    close(masterB);
    if (controlPath) unlink(controlPath);
    return 0;
}
