// The bridge in this process, its UART a pseudo-terminal linked as /dev/zynq_uart0 in nsrun's
// /dev: frames to the line across partial and refused writes, both rings overflowing, the address
// helpers. write() here cuts or refuses the port's writes; other calls go on to the real one.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pty.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>

#include "FrameCodec.h"
#include "SerialToEth.h"
#include "TestSupport.h"

using Clock = std::chrono::steady_clock;
namespace {
std::atomic<int> serialFd{-1};  // the port's descriptor
std::atomic<int> writeMode{0};  // 0: whole writes; 1: every other write takes 10 bytes; 2: none
std::atomic<unsigned> writeCalls{0};  // in modes 1 and 2
Clock::time_point refusedAt[100];     // the first 100 refused writes, stored before the count
}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t n) {
    if (fd == serialFd && writeMode != 0) {
        const unsigned call = writeCalls.load();
        if (writeMode == 2 && call < 100) refusedAt[call] = Clock::now();
        if (writeCalls.store(call + 1), writeMode == 2) return 0;
        if (call % 2 == 0 && n > 10) n = 10;
    }
    using Real = ssize_t (*)(int, const void*, size_t);
    return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "write"))(fd, data, n);
}

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

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
        char serialPath[128];
        ASSERT_EQ(openpty(&master, &slave, serialPath, &raw, nullptr), 0);
        ASSERT_EQ(symlink(serialPath, "/dev/zynq_uart0"), 0);
        fcntl(master, F_SETFL, O_NONBLOCK);
        bridge = new SerialToEth;
        bridge->run();
        for (int fd = 0; fd < 64; ++fd)  // the port: the pty's other descriptor
            if (fd != slave &&
                s2etest::readLink("/proc/self/fd/" + std::to_string(fd)) == serialPath)
                serialFd = fd;
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

// A line that takes nothing: a frame costs 100 write attempts, 100 microseconds apart at least,
// and is reported with its whole length. Meanwhile the frame ring fills and further frames are
// dropped whole; and the dispatcher, slowed down so, lets a flood of frames from the line fill the
// serial ring, which drops and reports whole chunks of what the port read.
TEST_F(Bridge, FramesForALineThatTakesNothingAndAFloodFromItAreReportedAndDropped) {
    s2etest::FdCapture out;
    const std::string unsent = "ERR:Fail to send data to Serial[1006bytes]\n",
                      discard = "ERR:Discard 1000 bytes of data due to full tun buffer!\n";
    writeCalls = 0, writeMode = 2;
    sendIntoTap(Bytes(1000, 0x11));  // 1006 bytes once framed
    for (int i = 0; i < 500 && out.peek().find(unsent) == std::string::npos; ++i) usleep(10000);
    EXPECT_EQ(writeCalls.load(), 100u);
    Clock::duration shortest = 1s;
    for (int i = 1; i < 100; ++i) shortest = std::min(shortest, refusedAt[i] - refusedAt[i - 1]);
    ASSERT_GE(shortest, 100us) << "pause between write attempts";  // the rest would take long
    for (int i = 0; i < 300 && out.peek().find(discard) == std::string::npos; ++i) {
        for (int k = 0; k < 50; ++k) sendIntoTap(Bytes(1000, 0x11));
        usleep(100000);
    }
    const Bytes frame = serialFrame(Bytes(1400, 0x22));  // to no one, of no type: dropped
    // The serial ring's report, a whole line: its byte count, or -1 while there is none.
    const std::string head = "\nERR:Discard ",
                      tail = " bytes of data due to full Serial circle buffer!\n";
    long reported = -1;
    auto report = [&](const std::string& t) {
        for (size_t at = 0; reported < 0 && (at = t.find(head, at + 1)) != std::string::npos;) {
            const size_t n = at + head.size(), end = t.find_first_not_of("0123456789", n);
            if (end != std::string::npos && end > n && t.compare(end, tail.size(), tail) == 0)
                reported = std::stol(t.substr(n, end - n));
        }
        return reported >= 0;
    };
    int writes = 0;
    for (int i = 0; i < 3000 && !report(out.peek()); ++i) {
        pollfd p{master, POLLOUT, 0};
        if (poll(&p, 1, 10) == 1) writes += ::write(master, frame.data(), frame.size()) > 0;
    }
    writeMode = 0;
    EXPECT_NE(out.peek().find(unsent), std::string::npos) << out.peek();
    EXPECT_NE(out.peek().find(discard), std::string::npos) << "tun ring";
    ASSERT_GE(reported, 0) << "serial ring, after " << writes << " frames from the line";
    EXPECT_LE(reported, 4096) << "one read's chunk";
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
