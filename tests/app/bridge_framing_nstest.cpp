// End-to-end framing of the real daemon: Ethernet frames sent into "uart2eth0" must leave on the
// serial line as exact serial frames, and crafted serial byte streams must arrive as exact frames.
// The test owns the line: /dev/zynq_uart0 is a link to a pseudo-terminal whose master it drives.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

double nowS() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The wire format written out independently of the codec: flag, four FF, stuffed payload padded to
// 64 bytes, flag.
Bytes serialFrame(Bytes payload) {
    if (payload.size() < 64) payload.resize(64, 0);
    Bytes f{0x7E, 0xFF, 0xFF, 0xFF, 0xFF};
    for (uint8_t b : payload) {
        if (b == 0x5E || b == 0x7E) {
            f.push_back(0x5E);
            f.push_back(b == 0x5E ? 0x5D : 0x7D);
        } else {
            f.push_back(b);
        }
    }
    f.push_back(0x7E);
    return f;
}

Bytes ethernetFrame(size_t length, uint8_t seed) {
    Bytes f(length);
    const uint8_t dst[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    const uint8_t src[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::copy(dst, dst + 6, f.begin());
    std::copy(src, src + 6, f.begin() + 6);
    f[12] = 0x88;  // local experimental ethertype 0x88B5: nothing in the kernel answers it
    f[13] = 0xB5;
    for (size_t i = 14; i < length; ++i) {
        // Every fourth byte is one of the two special bytes, so stuffing is well exercised.
        uint8_t v = static_cast<uint8_t>(seed + i * 7);
        if (i % 4 == 0) v = (i / 4) % 2 ? 0x7E : 0x5E;
        f[i] = v;
    }
    return f;
}

class BridgeFraming : public ::testing::Test {
  protected:
    virtual bool withSerialNode() const { return true; }

    void SetUp() override {
        const char* daemon = getenv("S2E_DAEMON");
        ASSERT_NE(daemon, nullptr) << "S2E_DAEMON not set";
        // A private /dev for this mount namespace (the test runs in namespaces of its own) with
        // only the nodes the daemon needs; made once, then each test points the serial node at its
        // own terminal. ptmx is the devpts instance's own node, which keeps working after the move.
        static std::string stageDir;
        if (stageDir.empty()) {
            stageDir = "/tmp/s2e-framing-dev.XXXXXX";
            ASSERT_NE(mkdtemp(&stageDir[0]), nullptr);
            std::string script =
                "set -e; s=" + stageDir +
                "; mount -t tmpfs -o mode=0755,size=1m s2e-dev $s;"
                " for n in null zero random urandom tty; do touch $s/$n;"
                " mount --bind /dev/$n $s/$n; done; ln -s pts/ptmx $s/ptmx;"
                " mkdir $s/pts $s/net; mount --bind /dev/pts $s/pts;"
                " touch $s/net/tun; mount --bind /dev/net/tun $s/net/tun; mount --move $s /dev;"
                " sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1";
            ASSERT_EQ(system(script.c_str()), 0);
        }
        stage = stageDir;
        termios raw{};
        cfmakeraw(&raw);
        char slaveName[128] = {};
        ASSERT_EQ(openpty(&master, &slave, slaveName, &raw, nullptr), 0);
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
        unlink("/dev/zynq_uart0");
        if (withSerialNode()) {
            ASSERT_EQ(symlink(slaveName, "/dev/zynq_uart0"), 0);
        }

        outPath = stage + ".out";
        unlink(outPath.c_str());  // the last test's daemon output must not count as this one's
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(out, 2);
            close(master);
            std::vector<std::string> words;
            std::istringstream emu(getenv("S2E_EMULATOR") ? getenv("S2E_EMULATOR") : "");
            for (std::string w; emu >> w;) words.push_back(w);
            words.push_back(daemon);
            std::vector<char*> argv;
            for (auto& w : words) argv.push_back(&w[0]);
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        double deadline = nowS() + 60;
        while (readFile(outPath).find("circleDealThread startUp!") == std::string::npos) {
            ASSERT_LT(nowS(), deadline) << readFile(outPath);
            ASSERT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "daemon ended: " << readFile(outPath);
            usleep(20000);
        }

        packet = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
        ASSERT_GE(packet, 0);
        sockaddr_ll ll{};
        ll.sll_family = AF_PACKET;
        ll.sll_protocol = htons(ETH_P_ALL);
        ll.sll_ifindex = static_cast<int>(if_nametoindex("uart2eth0"));
        ASSERT_NE(ll.sll_ifindex, 0);
        ASSERT_EQ(bind(packet, reinterpret_cast<sockaddr*>(&ll), sizeof ll), 0);
        ifindex = ll.sll_ifindex;
    }

    void TearDown() override {
        std::string out = readFile(outPath);
        EXPECT_EQ(out.find("Sanitizer"), std::string::npos) << out;
        EXPECT_EQ(out.find("runtime error:"), std::string::npos) << out;
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            // The interface goes away after the process, asynchronously; the next test's daemon
            // must not attach to the dying one.
            double deadline = nowS() + 10;
            while (if_nametoindex("uart2eth0") != 0 && nowS() < deadline) usleep(10000);
        }
        if (packet >= 0) close(packet);
        if (master >= 0) close(master);
        if (slave >= 0) close(slave);
        // /dev is ours only in this mount namespace; it goes when the namespace does.
    }

    bool daemonAlive() { return waitpid(pid, nullptr, WNOHANG) == 0; }

    void sendIntoTap(const Bytes& frame) {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = ifindex;
        to.sll_halen = 6;
        std::copy(frame.begin(), frame.begin() + 6, to.sll_addr);
        ASSERT_EQ(sendto(packet, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof to),
                  static_cast<ssize_t>(frame.size()));
    }

    // Reads the line until `want` bytes arrived or the time is up.
    Bytes readLine(size_t want, double seconds) {
        Bytes got;
        double deadline = nowS() + seconds;
        uint8_t buf[8192];
        while (got.size() < want && nowS() < deadline) {
            pollfd p{master, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            ssize_t n = read(master, buf, sizeof buf);
            if (n > 0) got.insert(got.end(), buf, buf + n);
        }
        return got;
    }

    void writeLine(const Bytes& bytes) {
        size_t off = 0;
        while (off < bytes.size()) {
            ssize_t n = write(master, bytes.data() + off, bytes.size() - off);
            if (n > 0) {
                off += static_cast<size_t>(n);
            } else {
                usleep(1000);
            }
        }
    }

    // Frames arriving on uart2eth0 (received direction only) until `count` or the time is up.
    std::vector<Bytes> receiveFromTap(size_t count, double seconds) {
        std::vector<Bytes> frames;
        double deadline = nowS() + seconds;
        uint8_t buf[9000];
        while (frames.size() < count && nowS() < deadline) {
            pollfd p{packet, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            sockaddr_ll from{};
            socklen_t len = sizeof from;
            ssize_t n =
                recvfrom(packet, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
            if (n > 0 && from.sll_pkttype != PACKET_OUTGOING) frames.emplace_back(buf, buf + n);
        }
        return frames;
    }

    std::string stage, outPath;
    int master = -1, slave = -1, packet = -1, ifindex = 0;
    pid_t pid = -1;
};

TEST_F(BridgeFraming, FramesFromTheInterfaceLeaveOnTheLineByteExact) {
    // Short (padded to 64 in the frame), minimum, typical and full-size frames, in order.
    std::vector<Bytes> frames = {ethernetFrame(42, 1), ethernetFrame(60, 2), ethernetFrame(64, 3),
                                 ethernetFrame(333, 4), ethernetFrame(1514, 5)};
    Bytes expected;
    for (const Bytes& f : frames) {
        Bytes s = serialFrame(f);
        expected.insert(expected.end(), s.begin(), s.end());
    }
    for (const Bytes& f : frames) sendIntoTap(f);
    Bytes got = readLine(expected.size(), 20);
    EXPECT_EQ(got, expected);
    // Nothing else follows: no stray bytes after the last frame.
    EXPECT_TRUE(readLine(1, 0.5).empty());
    EXPECT_TRUE(daemonAlive());
}

TEST_F(BridgeFraming, CraftedLineBytesArriveOnTheInterfaceAsFrames) {
    Bytes a = ethernetFrame(60, 10), b = ethernetFrame(64, 11), c = ethernetFrame(1514, 12),
          d = ethernetFrame(98, 13), e = ethernetFrame(100, 14);
    Bytes stream;
    auto add = [&stream](const Bytes& bytes) {
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    };
    add({0x00, 0x13, 0xA5, 0xFF, 0x5D});  // noise before the first flag
    add(serialFrame(a));                  // arrives padded to 64 bytes
    add(serialFrame(b));
    add({0x7E, 0x7E, 0x7E});  // runs of flags between frames
    // A frame with a payload far too short to be a packet: consumed and dropped.
    add({0x7E, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x02, 0x03, 0x7E});
    add(serialFrame(c));
    // A frame longer than any the line may carry: dropped, and the one after it still comes out.
    Bytes huge(3200, 0x11);
    add(serialFrame(huge));
    add(serialFrame(d));
    add({0x42, 0x42, 0x42});  // noise again
    add(serialFrame(e));
    writeLine(stream);

    Bytes aPadded = a;
    aPadded.resize(64, 0);
    std::vector<Bytes> expected = {aPadded, b, c, d, e};
    std::vector<Bytes> got = receiveFromTap(expected.size(), 20);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(got[i], expected[i]) << "frame " << i;
    EXPECT_TRUE(receiveFromTap(1, 0.5).empty());
    EXPECT_TRUE(daemonAlive());
}

TEST_F(BridgeFraming, RandomLineNoiseNeverStopsTheBridge) {
    // A few hundred kilobytes of random bytes, flags included, then one clean frame: the daemon
    // must survive the noise, and the clean frame must come through.
    uint64_t state = 88172645463325252ull;
    Bytes noise(300000);
    for (uint8_t& x : noise) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        x = static_cast<uint8_t>(state);
    }
    writeLine(noise);
    Bytes clean = ethernetFrame(200, 20);
    Bytes tail = {0x7E};  // ends whatever frame the noise left open
    Bytes framed = serialFrame(clean);
    tail.insert(tail.end(), framed.begin(), framed.end());

    bool seen = false;
    double deadline = nowS() + 30;
    while (!seen && nowS() < deadline) {
        writeLine(tail);
        for (const Bytes& f : receiveFromTap(64, 0.5)) seen = seen || f == clean;
    }
    EXPECT_TRUE(seen);
    EXPECT_TRUE(daemonAlive()) << readFile(outPath);
}

// Without a serial node every frame for the line fails after its write attempts, so the frame ring
// fills and further frames are dropped whole; both are reported with the right byte counts.
class BridgeWithoutLine : public BridgeFraming {
  protected:
    bool withSerialNode() const override { return false; }
};

TEST_F(BridgeWithoutLine, FramesForADeadLineAreDroppedAndReported) {
    Bytes frame(1000, 0x11);  // no special bytes: 1006 bytes once framed
    const std::string discard = "ERR:Discard 1000 bytes of data due to full tun buffer!\n";
    const std::string unsent = "ERR:Fail to send data to Serial[1006bytes]\n";
    std::string out;
    double deadline = nowS() + 30;
    // The daemon's stdout is block-buffered: keep the reports coming until both have been written.
    while (nowS() < deadline) {
        for (int i = 0; i < 50; ++i) sendIntoTap(frame);
        usleep(100000);
        out = readFile(outPath);
        if (out.find(discard) != std::string::npos && out.find(unsent) != std::string::npos) break;
    }
    EXPECT_NE(out.find(discard), std::string::npos) << out.substr(0, 2000);
    EXPECT_NE(out.find(unsent), std::string::npos) << out.substr(0, 2000);
    EXPECT_NE(out.find("Rs232 open error"), std::string::npos);
    EXPECT_TRUE(daemonAlive());
}

}  // namespace
