// The bridge in this process: frames to the line across partial and refused writes, the busy
// interface, the address helpers. open() and write() here hand out a pseudo-terminal for
// "/dev/zynq_uart0" and cut or refuse writes to it; other calls go on to the next definition.
#ifdef _FORTIFY_SOURCE
#undef _FORTIFY_SOURCE  // its inline open() wrapper would clash with the definition below
#endif
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <pty.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cstdarg>

#include "FrameCodec.h"
#include "SerialToEth.h"
#include "TestSupport.h"

namespace {
char serialPath[128];           // where "/dev/zynq_uart0" leads
std::atomic<int> serialFd{-1};  // the port's descriptor
std::atomic<int> writeMode{0};  // 0: whole writes; 1: every other write takes 10 bytes; 2: none
std::atomic<unsigned> writeCalls{0};  // in modes 1 and 2
template <class Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode =
        (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, mode_t) : 0;
    va_end(args);
    auto real = next<int (*)(const char*, int, ...)>("open");
    if (strcmp(path, "/dev/zynq_uart0") != 0) return real(path, flags, mode);
    return serialFd = real(serialPath, flags, mode);
}

// A library built with _FORTIFY_SOURCE calls this for open() with two arguments.
extern "C" int __open_2(const char* path, int flags) {
    return open(path, flags);
}

extern "C" ssize_t write(int fd, const void* data, size_t n) {
    if (fd == serialFd && writeMode != 0) {
        if (writeCalls++, writeMode == 2) return 0;
        if (writeCalls % 2 == 1 && n > 10) n = 10;
    }
    return next<ssize_t (*)(int, const void*, size_t)>("write")(fd, data, n);
}

// "killall udhcpc" stops the stand-in DHCP client: the descriptor that holds a TAP interface.
std::atomic<int> dhcpClientHolds{-1};
extern "C" int system(const char* command) {
    if (strcmp(command, "killall udhcpc") == 0 && dhcpClientHolds >= 0)
        return close(dhcpClientHolds.exchange(-1));
    return next<int (*)(const char*)>("system")(command);
}

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The frame on the line, by the encoder whose exact bytes codec_test pins.
Bytes serialFrame(Bytes payload) {
    Bytes frame(6 + 2 * (payload.size() + 64));
    payload.resize(payload.size() + 64);
    frame.resize(size_t(frameEncode(payload.data(), frame.data(), int32_t(payload.size() - 64))));
    return frame;
}

// One bridge for the program (it cannot be stopped); IPv6 off, so that only the tests' frames pass.
SerialToEth* bridge = nullptr;
int master = -1, slave = -1, packet = -1;
sockaddr_ll tap{};
class Bridge : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (bridge != nullptr) return;
        for (const char* all : {"all", "default"})
            std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + all + "/disable_ipv6") << "1\n";
        termios raw{};
        cfmakeraw(&raw);
        ASSERT_EQ(openpty(&master, &slave, serialPath, &raw, nullptr), 0);
        fcntl(master, F_SETFL, O_NONBLOCK);
        bridge = new SerialToEth;
        bridge->run();
        packet = socket(AF_PACKET, SOCK_RAW, 0);
        tap.sll_family = AF_PACKET, tap.sll_halen = 6;
        tap.sll_ifindex = int(if_nametoindex("uart2eth0"));
    }
    void SetUp() override {
        ASSERT_NE(bridge, nullptr);
        readLine(SIZE_MAX, 0.3);  // whatever an earlier test left on its way
    }
    static void sendIntoTap(const Bytes& frame) {
        ASSERT_EQ(sendto(packet, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&tap),
                         sizeof tap),
                  ssize_t(frame.size()));
    }
    // The line's bytes until `want` arrived, or until it was quiet for `quiet` seconds.
    static Bytes readLine(size_t want, double quiet) {
        Bytes got;
        uint8_t buf[8192];
        for (auto last = Clock::now(); got.size() < want && Clock::now() - last < quiet * 1s;) {
            pollfd p{master, POLLIN, 0};
            const ssize_t n = poll(&p, 1, 20) > 0 ? read(master, buf, sizeof buf) : 0;
            if (n > 0) got.insert(got.end(), buf, buf + n), last = Clock::now();
        }
        return got;
    }
};

// Short (padded to 64 on the line), minimum, typical and full-size frames, in order, while every
// other write of the port takes only 10 bytes: each write must go on from where the last stopped.
TEST_F(Bridge, FramesFromTheInterfaceLeaveOnTheLineExactlyAcrossPartialWrites) {
    Bytes expected;
    writeMode = 1;
    for (size_t length : {42, 60, 64, 333, 1514}) {  // every fourth byte special
        Bytes frame(length);
        for (size_t i = 0; i < length; ++i)
            frame[i] = i % 4 ? uint8_t(length + i * 7) : i % 8 ? 0x7E : 0x5E;
        const Bytes wire = serialFrame(frame);
        expected.insert(expected.end(), wire.begin(), wire.end());
        sendIntoTap(frame);
    }
    EXPECT_EQ(readLine(expected.size(), 10), expected);
    EXPECT_TRUE(readLine(1, 0.5).empty()) << "no stray bytes";
    writeMode = 0;
}

// A line that takes nothing: a frame costs 100 write attempts and is reported with its whole
// length; the frame ring fills meanwhile and further frames are dropped whole.
TEST_F(Bridge, FramesForALineThatTakesNothingAreReportedAndDropped) {
    s2etest::FdCapture out;
    const std::string unsent = "ERR:Fail to send data to Serial[1006bytes]\n",
                      discard = "ERR:Discard 1000 bytes of data due to full tun buffer!\n";
    writeCalls = 0, writeMode = 2;
    sendIntoTap(Bytes(1000, 0x11));  // 1006 bytes once framed
    for (int i = 0; i < 500 && out.peek().find(unsent) == std::string::npos; ++i) usleep(10000);
    EXPECT_EQ(writeCalls.load(), 100u);
    for (int i = 0; i < 300 && out.peek().find(discard) == std::string::npos; ++i) {
        for (int k = 0; k < 50; ++k) sendIntoTap(Bytes(1000, 0x11));
        usleep(100000);
    }
    writeMode = 0;
    EXPECT_NE(out.peek().find(unsent), std::string::npos) << out.peek();
    EXPECT_NE(out.peek().find(discard), std::string::npos);
}

// An interface held by the DHCP client is taken on the second try, after "killall udhcpc". A
// failed attach ends the process with exit(0): made to fail this program instead.
TEST_F(Bridge, BusyInterfaceIsTakenAfterStoppingTheDhcpClient) {
    static std::atomic<bool> attaching{false};
    atexit([] {
        if (attaching) _exit(3);
    });
    ifreq ifr{};
    ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
    strcpy(ifr.ifr_name, "s2ebusy0");
    dhcpClientHolds = open("/dev/net/tun", O_RDWR);
    ASSERT_EQ(ioctl(dhcpClientHolds, TUNSETIFF, &ifr), 0);
    attaching = true;
    const int fd = bridge->tun_alloc(ifr.ifr_name, IFF_TAP);
    attaching = false;
    EXPECT_GE(fd, 0);
    EXPECT_EQ(dhcpClientHolds, -1) << "the client was not stopped";
    close(fd);
}

// setMac goes through the shell's ifconfig: the command must fit its buffer to run at all.
TEST_F(Bridge, MacAddressSetThroughIfconfigReadsBack) {
    const uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint8_t got[6] = {};
    bridge->setMac("uart2eth0", mac);
    bridge->getMac("uart2eth0", got);
    EXPECT_EQ(Bytes(got, got + 6), Bytes(mac, mac + 6));
}

}  // namespace
