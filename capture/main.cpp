// Line capture: reads the raw bytes of the serial line (a second UART wired to it, a file, standard
// input) and writes pcapng, with every packet the daemon would deliver on an Ethernet interface
// and every run of bytes it would drop on a raw-bytes interface, its reason as packet comment.
//
// Usage: serialtoeth-capture [-w FILE] [--summary] [--label NAME]... [--chunk N] SOURCE [SOURCE]
//        serialtoeth-capture --attach [--socket PATH] [-w FILE] [--summary] [--chunk N]
// One SOURCE per direction: a serial device (opened read-only, raw, 576000 baud), a file, or "-".
// Bytes from devices, pipes and terminals carry the time they were read; bytes from a regular
// file carry a nominal time, their offset at 57600 bytes per second counted from 0. --attach reads
// the running daemon's own view of its UART from its tap socket instead. The program also answers
// Wireshark's extcap calls (--extcap-interfaces, --extcap-dlts, --extcap-config, --capture).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LineTap.h"
#include "PcapngCapture.h"
#include "TapView.h"

namespace {

constexpr const char* kProgram = "serialtoeth-capture";
constexpr int64_t kLineBytesPerSecond = 57600;  // 576000 baud, ten bit times per byte
constexpr size_t kFileBlock = 576;              // 10 ms of nominal line time
constexpr size_t kReadSize = 4096;              // the daemon's serial read size
constexpr int kNoiseIdleMs = 200;               // a pause this long ends a noise packet
constexpr const char* kDaemonUart = "/dev/zynq_uart0";
constexpr const char* kExtcapInterface = "serialtoeth";

volatile sig_atomic_t stopRequested = 0;
void onStop(int) {
    stopRequested = 1;
}

int64_t realtimeNs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// With an error on standard error (status 2), else on standard output as asked (--help).
int usage(const char* error) {
    if (error != nullptr) fprintf(stderr, "%s: %s\n", kProgram, error);
    fprintf(error != nullptr ? stderr : stdout,
            "usage: %s [-w FILE] [--summary] [--label NAME]... [--chunk N] SOURCE [SOURCE]\n"
            "       %s --attach [--socket PATH] [-w FILE] [--summary] [--chunk N]\n"
            "  SOURCE        serial device (read-only, raw, 576000 baud), file of raw bytes, or -\n"
            "                for standard input; a second SOURCE is the other direction\n"
            "  --attach      the running daemon's line as it reads and writes it, from its tap\n"
            "                (root only); --socket: the tap's socket (default %s)\n"
            "  --force       read a SOURCE that is the daemon's own UART all the same\n"
            "  -w FILE       write pcapng to FILE (- for standard output, the default when it is\n"
            "                not a terminal)\n"
            "  --summary     print one line per second: delivered, dropped by reason, noise\n"
            "  --label NAME  name of the next source's direction in the capture (default: the\n"
            "                name below /dev, or the file name)\n"
            "  --chunk N     bytes handed to the extractor at a time (default 1: a daemon that\n"
            "                keeps up byte by byte)\n"
            "  --extcap-interfaces, --extcap-dlts, --extcap-config, --capture --fifo PATH:\n"
            "                Wireshark's extcap calls (interface %s, the same as --attach)\n",
            kProgram, kProgram, kTapSocketPath, kExtcapInterface);
    return 2;
}

struct Source {
    std::string path;
    std::string label;
    int fd = -1;
    bool live = false;  // read time stamps; otherwise nominal time from the byte offset
    bool ended = false;
    std::unique_ptr<LineTap> tap;
};

// Raw 8N1 at the line's speed; read-only, so the line itself is never disturbed.
bool setRaw(int fd, const std::string& path) {
    termios t{};
    if (tcgetattr(fd, &t) != 0) return true;  // not a terminal: nothing to set
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    // poll() says when bytes are there; a read then returns what has arrived.
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    if (cfsetispeed(&t, B576000) != 0 || cfsetospeed(&t, B576000) != 0 ||
        tcsetattr(fd, TCSANOW, &t) != 0) {
        fprintf(stderr, "%s: %s: cannot set 576000 baud raw: %s\n", kProgram, path.c_str(),
                strerror(errno));
        return false;
    }
    return true;
}

// The daemon's UART read here would lose the daemon its bytes (a tty hands each to one reader)
// and have its line settings changed under it: refused unless forced, the same device under
// any name (a pseudo-terminal in a test, ttyAMA0 on a board).
bool isDaemonUart(const std::string& path) {
    struct stat source {};
    struct stat uart {};
    return stat(path.c_str(), &source) == 0 && S_ISCHR(source.st_mode) &&
           stat(kDaemonUart, &uart) == 0 && S_ISCHR(uart.st_mode) && source.st_rdev == uart.st_rdev;
}

bool openSource(Source& s, bool force) {
    if (s.path == "-") {
        s.fd = STDIN_FILENO;
    } else if (!force && isDaemonUart(s.path)) {
        fprintf(stderr,
                "%s: %s is %s, the UART of SerialToEth: reading it would take bytes from the "
                "daemon and change its line settings. Use --attach to see what the daemon reads "
                "and writes (--force to read it all the same, with the daemon stopped)\n",
                kProgram, s.path.c_str(), kDaemonUart);
        return false;
    } else {
        s.fd = open(s.path.c_str(), O_RDONLY | O_NOCTTY);
        if (s.fd < 0) {
            fprintf(stderr, "%s: %s: %s\n", kProgram, s.path.c_str(), strerror(errno));
            return false;
        }
    }
    struct stat st {};
    fstat(s.fd, &st);
    s.live = !S_ISREG(st.st_mode);
    if (isatty(s.fd) && !setRaw(s.fd, s.path)) return false;
    if (s.label.empty()) {
        // ttyUSB0 for /dev/ttyUSB0, pts/3 for /dev/pts/3, the file name otherwise.
        const size_t slash = s.path.find_last_of('/');
        if (s.path == "-") {
            s.label = "stdin";
        } else if (s.path.compare(0, 5, "/dev/") == 0) {
            s.label = s.path.substr(5);
        } else {
            s.label = s.path.substr(slash == std::string::npos ? 0 : slash + 1);
        }
    }
    return true;
}

int64_t nominalNs(uint64_t offset) {
    return LineTap::nominalNs(offset, kLineBytesPerSecond);
}

void onStopSignals() {
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigaction(SIGTERM, &sa, nullptr);  // also how Wireshark ends an extcap capture
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a reader that goes away ends the capture through write errors
}

int connectTap(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        fprintf(stderr, "%s: %s: socket path too long\n", kProgram, path.c_str());
        return -1;
    }
    memcpy(addr.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    const int error = errno;
    const char* hint = error == EACCES || error == EPERM          ? " (only root may attach)"
                       : error == ENOENT || error == ECONNREFUSED ? " (is SerialToEth running?)"
                                                                  : "";
    fprintf(stderr, "%s: cannot attach to %s: %s%s\n", kProgram, path.c_str(), strerror(error),
            hint);
    if (fd >= 0) close(fd);
    return -1;
}

// --attach: the tap's records through the decoder into the view, until the daemon closes the
// tap, the output's reader goes away or a signal ends the capture.
int attach(const std::string& socketPath, int outFd, bool summary, size_t chunk) {
    const int fd = connectTap(socketPath);
    if (fd < 0) return 1;
    onStopSignals();
    PcapngCapture capture(outFd, std::string(kProgram) + " (SerialToEth line capture, attached)");
    TapView view(capture, chunk);
    WireSummary lines(outFd == STDOUT_FILENO ? stderr : stdout, false);
    if (summary) {
        for (TapView::Side* side : {&view.rx(), &view.tx()})
            lines.add(side->label, side->tap.get(), &side->daemon);
    }
    TapDecoder decoder;
    std::vector<uint8_t> buf(65536);  // above the daemon's largest message
    int64_t lastInputNs = 0;
    while (!stopRequested && capture.ok()) {
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, kNoiseIdleMs);
        if (r < 0 && errno != EINTR) break;
        const int64_t now = realtimeNs();
        if (summary) lines.advance(now);
        if (r <= 0) {
            if (now - lastInputNs >= kNoiseIdleMs * 1000000ll) capture.flushNoise();
            continue;
        }
        const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
            fprintf(stderr, "%s: the daemon closed its tap\n", kProgram);
            break;
        }
        lastInputNs = now;
        const bool read = decoder.feed(buf.data(), size_t(n), view);
        if (!read || !view.refusal().empty()) {
            fprintf(
                stderr, "%s: %s: %s\n", kProgram, socketPath.c_str(),
                read ? ("the daemon refuses: " + view.refusal()).c_str() : decoder.error().c_str());
            close(fd);
            return 1;
        }
    }
    view.finish(realtimeNs());
    capture.flushNoise();
    if (summary) lines.total();
    close(fd);
    return 0;
}

// Wireshark's questions to an extcap program; true when args held one (it is answered).
bool answerExtcap(bool interfaces, bool dlts, bool config) {
    if (interfaces) {
        printf("extcap {version=%s}{help=man serialtoeth-capture}\n", S2E_VERSION);
        printf("interface {value=%s}{display=SerialToEth serial line, the daemon's view (root)}\n",
               kExtcapInterface);
    } else if (dlts) {
        printf("dlt {number=1}{name=EN10MB}{display=Ethernet}\n");
    } else if (config) {
        printf(
            "arg {number=0}{call=--socket}{display=Tap socket}{type=string}{default=%s}"
            "{tooltip=The daemon's tap; only root may attach}\n",
            kTapSocketPath);
    }
    return interfaces || dlts || config;
}

}  // namespace

int main(int argc, char** argv) {
    std::string output;
    bool summary = false;
    size_t chunk = 1;
    std::vector<Source> sources;
    std::string pendingLabel;
    bool attaching = false, force = false;
    std::string socketPath = kTapSocketPath;
    bool extcapInterfaces = false, extcapDlts = false, extcapConfig = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "--attach" || a == "--capture") {
            attaching = true;
        } else if (a == "--socket" || a == "--fifo") {
            const char* v = value();
            if (v == nullptr) return usage((a + " needs a path").c_str());
            (a == "--socket" ? socketPath : output) = v;
        } else if (a == "--force") {
            force = true;
        } else if (a == "--extcap-interfaces") {
            extcapInterfaces = true;
        } else if (a == "--extcap-dlts") {
            extcapDlts = true;
        } else if (a == "--extcap-config") {
            extcapConfig = true;
        } else if (a == "--extcap-interface") {
            const char* v = value();
            if (v == nullptr || std::string(v) != kExtcapInterface)
                return usage(
                    (std::string("the only extcap interface is ") + kExtcapInterface).c_str());
        } else if (a.compare(0, 17, "--extcap-version=") == 0) {
            // Every version so far speaks the calls answered here.
        } else if (a == "--extcap-capture-filter") {
            if (value() != nullptr)
                fprintf(stderr, "%s: capture filters are not applied here\n", kProgram);
        } else if (a == "-w") {
            const char* v = value();
            if (v == nullptr) return usage("-w needs a file name");
            output = v;
        } else if (a == "--summary") {
            summary = true;
        } else if (a == "--label") {
            const char* v = value();
            if (v == nullptr) return usage("--label needs a name");
            pendingLabel = v;
        } else if (a == "--chunk") {
            const char* v = value();
            const long n = v != nullptr ? atol(v) : 0;
            if (n < 1 || n > 4096) return usage("--chunk takes 1 to 4096");
            chunk = static_cast<size_t>(n);
        } else if (a == "-h" || a == "--help") {
            usage(nullptr);
            return 0;
        } else if (a.size() > 1 && a[0] == '-') {
            return usage(("unknown option " + a).c_str());
        } else {
            Source s;
            s.path = a;
            s.label = pendingLabel;
            pendingLabel.clear();
            sources.push_back(std::move(s));
        }
    }
    if (answerExtcap(extcapInterfaces, extcapDlts, extcapConfig)) return 0;
    if (attaching ? !sources.empty() : sources.empty() || sources.size() > 2)
        return usage(attaching ? "--attach takes no source" : "one or two sources");
    if (output.empty() && !summary) {
        if (isatty(STDOUT_FILENO))
            return usage("pcapng is not for a terminal: use -w or --summary");
        output = "-";
    }

    int outFd = -1;
    if (output == "-") {
        outFd = STDOUT_FILENO;
    } else if (!output.empty()) {
        outFd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (outFd < 0) {
            fprintf(stderr, "%s: %s: %s\n", kProgram, output.c_str(), strerror(errno));
            return 1;
        }
    }
    if (attaching) {
        const int status = attach(socketPath, outFd, summary, chunk);
        if (outFd >= 0 && outFd != STDOUT_FILENO) close(outFd);
        return status;
    }
    for (Source& s : sources) {
        if (!openSource(s, force)) return 1;
    }
    onStopSignals();

    PcapngCapture capture(outFd, std::string(kProgram) + " (SerialToEth line capture)");
    bool anyLive = false;
    for (Source& s : sources) {
        s.tap = std::make_unique<LineTap>(capture.addDirection(s.label, s.path), chunk);
        anyLive = anyLive || s.live;
    }
    // Summary lines go where the pcapng does not.
    WireSummary lines(outFd == STDOUT_FILENO ? stderr : stdout, !anyLive);
    if (summary) {
        for (Source& s : sources) lines.add(s.label, s.tap.get());
    }

    std::vector<uint8_t> buf(kReadSize);
    int64_t lastInputNs = 0;
    for (;;) {
        if (stopRequested || !capture.ok()) break;
        bool anyOpen = false;
        // Files first, a block each in turn, so that two files interleave by nominal time.
        bool fileRead = false;
        for (Source& s : sources) {
            if (s.ended || s.live) continue;
            const uint64_t at = s.tap->bytesFed();
            const ssize_t n = read(s.fd, buf.data(), kFileBlock);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                s.ended = true;
                s.tap->finish(nominalNs(at));
                continue;
            }
            if (summary) lines.advance(nominalNs(at));
            s.tap->feedNominal(buf.data(), static_cast<size_t>(n), kLineBytesPerSecond);
            fileRead = true;
        }
        std::vector<pollfd> fds;
        std::vector<Source*> polled;
        for (Source& s : sources) {
            if (s.ended) continue;
            anyOpen = true;
            if (!s.live) continue;
            fds.push_back({s.fd, POLLIN, 0});
            polled.push_back(&s);
        }
        if (!anyOpen) break;
        if (fds.empty()) continue;
        // Wake for the next summary second and to end a noise packet after a pause.
        const int r = poll(fds.data(), fds.size(), fileRead ? 0 : kNoiseIdleMs);
        if (r < 0 && errno != EINTR) break;
        const int64_t now = realtimeNs();
        if (summary && anyLive) lines.advance(now);
        for (size_t i = 0; r > 0 && i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            Source& s = *polled[i];
            const ssize_t n = read(s.fd, buf.data(), buf.size());
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (n <= 0) {
                s.ended = true;
                s.tap->finish(now);
                continue;
            }
            s.tap->feed(buf.data(), static_cast<size_t>(n), now);
            lastInputNs = now;
        }
        if (r == 0 && now - lastInputNs >= kNoiseIdleMs * 1000000ll) {
            capture.flushNoise();
        }
    }
    for (Source& s : sources) {
        if (!s.ended) s.tap->finish(s.live ? realtimeNs() : nominalNs(s.tap->bytesFed()));
    }
    capture.flushNoise();
    if (summary) {
        for (Source& s : sources) {
            if (!s.live) lines.advance(nominalNs(s.tap->bytesFed()));
        }
        lines.total();
    }
    if (outFd >= 0 && outFd != STDOUT_FILENO) close(outFd);
    return 0;
}
