// Rs232Adapter and Rs485Adapter on pseudo-terminals: line settings read back, blocking mode,
// control commands, reset, data in both directions, and the failure messages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>

#include <string>
#include <vector>

#include "DriverTestSupport.h"
#include "Rs232Adapter.h"
#include "Rs485Adapter.h"

namespace {

using Rs232 = Exposed<Rs232Adapter>;
using Rs485 = Exposed<Rs485Adapter>;
constexpr int kFlags = O_RDWR | O_NOCTTY | O_NONBLOCK;

// qemu-user 7.2 turns terminal speeds above 460800 baud into B0; probed once on a pty of our own.
bool highSpeedsLost() {
    static const bool lost = [] {
        int master = -1, slave = -1;
        termios t{};
        if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return false;
        cfsetspeed(&t, B576000);
        tcsetattr(slave, TCSANOW, &t);
        tcgetattr(slave, &t);
        ::close(slave);
        ::close(master);
        return cfgetospeed(&t) == B0;
    }();
    return lost;
}

// A fresh pty per test, its slave cooked and decorated first: every setting the adapters must
// change starts out wrong, and the bits they must keep (ONLCR, CLOCAL, HUPCL, IEXTEN) are there.
class PtyPort : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[128] = {};
        ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
        node = name;
        termios t = attributes();
        t.c_iflag = ICRNL | IXON | IXOFF | ISTRIP | INPCK | BRKINT;
        t.c_oflag = OPOST | ONLCR;
        t.c_cflag |= CSTOPB | CRTSCTS | CLOCAL | HUPCL;
        t.c_lflag |= ICANON | ECHO | ECHOE | ISIG | IEXTEN;
        t.c_cc[VMIN] = t.c_cc[VTIME] = 0;
        cfsetspeed(&t, B9600);
        ASSERT_EQ(tcsetattr(slave, TCSANOW, &t), 0);
    }
    void TearDown() override {
        ::close(slave);
        ::close(master);
    }
    termios attributes() const {
        termios t{};
        EXPECT_EQ(tcgetattr(slave, &t), 0);
        return t;
    }
    // Raw 8N1, no flow control. (The pty driver itself forces CS8|CREAD and clears PARENB.)
    void expectRawLine() const {
        const termios t = attributes();
        EXPECT_EQ(t.c_iflag, 0u);
        EXPECT_EQ(t.c_oflag & (OPOST | ONLCR), tcflag_t(ONLCR));
        EXPECT_EQ(t.c_cflag & (CSIZE | CREAD | PARENB | CSTOPB | CRTSCTS | CLOCAL | HUPCL),
                  tcflag_t(CS8 | CREAD | CLOCAL | HUPCL));
        EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ECHOE | ISIG | IEXTEN), tcflag_t(IEXTEN));
        EXPECT_EQ(t.c_cc[VMIN], 1);
        EXPECT_EQ(t.c_cc[VTIME], 10);
    }
    void expectSpeeds(speed_t speed) const {
        const termios t = attributes();
        EXPECT_EQ(cfgetispeed(&t), speed);
        EXPECT_EQ(cfgetospeed(&t), speed);
    }
    static bool blocking(int32_t fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

    int master = -1, slave = -1;
    std::string node;
};

TEST_F(PtyPort, OpenMakesARawBlockingLine) {
    Rs232 rs232(1);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open(node.c_str(), kFlags), 0); }),
              "CommPortDriver::open " + node + " seccess!\n");
    expectRawLine();
    EXPECT_TRUE(blocking(rs232._fd)) << "O_NONBLOCK in the flags must not survive open";
    EXPECT_EQ(rs232.close(), 0);

    TearDown();
    SetUp();  // cooked and decorated again, on a fresh pty
    Rs485 rs485(2);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.open(node.c_str(), kFlags), 0); }), "");
    expectRawLine();
    expectSpeeds(B115200);
    EXPECT_TRUE(blocking(rs485._fd)) << "O_NONBLOCK in the flags must not survive open";
    EXPECT_EQ(rs485.close(), 0);
}

// The bridge's own sequence: open(name, 2), then control(1, 4102).
TEST_F(PtyPort, Rs232RunsAt576000) {
    if (highSpeedsLost())
        GTEST_SKIP() << "running under qemu-user, which reads terminal speeds above 460800 baud "
                        "back as B0: B576000 cannot be read back here";
    Rs232 port(1);
    captureStdout([&] { ASSERT_EQ(port.open(node.c_str(), 2), 0); });
    expectSpeeds(B576000);
    ASSERT_EQ(port.control(1, B9600), 0);
    EXPECT_EQ(port.control(1, 4102), 0);
    expectSpeeds(B576000);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, ControlCommands) {
    Rs232 rs232(1);
    Rs485 rs485(2);
    captureStdout([&] { ASSERT_EQ(rs232.open(node.c_str(), kFlags), 0); });
    ASSERT_EQ(rs485.open(node.c_str(), kFlags), 0);
    EXPECT_EQ(rs232.control(1, B57600), 0);
    expectSpeeds(B57600);
    EXPECT_EQ(rs485.control(1, B2400), 0);
    expectSpeeds(B2400);

    // Command 2: RS-485 ORs the value and CREAD into c_cflag, RS-232 only reads.
    termios t = attributes();
    t.c_cflag &= ~tcflag_t(CLOCAL | CSTOPB);
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &t), 0);
    EXPECT_EQ(rs232.control(2, CLOCAL | CSTOPB), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB), 0u);
    EXPECT_EQ(rs485.control(2, CLOCAL), 0);
    EXPECT_EQ(rs485.control(2, CSTOPB), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB), tcflag_t(CLOCAL | CSTOPB));
    EXPECT_EQ(rs232.control(7, PARODD) + rs485.control(7, PARODD), 0);
    EXPECT_EQ(attributes().c_cflag & PARODD, 0u) << "unknown commands touch nothing";
}

TEST_F(PtyPort, ResetDevice) {
    Rs232 rs232(1);
    captureStdout([&] { ASSERT_EQ(rs232.open(node.c_str(), kFlags), 0); });
    const int32_t fd = rs232._fd;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.resetDevice(), -1); }), "");
    EXPECT_EQ(rs232._fd, fd);
    EXPECT_EQ(rs232.close(), 0);

    // RS-485: reopened with the last path and flags (O_NONBLOCK comes back), line set up again.
    Rs485 rs485(2);
    ASSERT_EQ(rs485.open(node.c_str(), kFlags), 0);
    ASSERT_EQ(rs485.control(1, B9600), 0);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.resetDevice(), 0); }),
              "Rs485Adapter::resetDevice()\n ");
    EXPECT_EQ(rs485.portState, CommPortDriver::PORT_OPENED);
    expectSpeeds(B115200);
    EXPECT_FALSE(blocking(rs485._fd));
    EXPECT_EQ(rs485.close(), 0);
}

// Collects `count` bytes with `read`, each wait bounded so a lost byte fails instead of hanging.
template <class Read>
std::vector<uint8_t> collect(int pollFd, size_t count, Read read) {
    std::vector<uint8_t> got(count);
    size_t used = 0;
    pollfd waiter{pollFd, POLLIN, 0};
    for (long n = 0; used < count && poll(&waiter, 1, 5000) == 1; used += size_t(n)) {
        if ((n = read(&got[used], count - used)) <= 0) break;
    }
    got.resize(used);
    return got;
}

// Every byte value crosses unchanged both ways (no CR/NL mapping, no flow-control, signal or
// erase characters eaten, no stripping) and nothing is echoed back.
TEST_F(PtyPort, EveryByteValueCrossesBothWays) {
    std::vector<uint8_t> pattern(256);
    for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = uint8_t(i);
    Rs232 rs232(1);
    Rs485 rs485(2);
    CommPortDriver* ports[] = {&rs232, &rs485};
    for (CommPortDriver* port : ports) {
        captureStdout([&] { ASSERT_EQ(port->open(node.c_str(), kFlags), 0); });
        ASSERT_EQ(::write(master, pattern.data(), pattern.size()), 256);
        EXPECT_EQ(collect(slave, 256, [&](uint8_t* p, size_t n) { return port->read(p, n); }),
                  pattern);
        ASSERT_EQ(port->write(pattern.data(), uint32_t(pattern.size())), 256);
        EXPECT_EQ(collect(master, 256, [&](uint8_t* p, size_t n) { return ::read(master, p, n); }),
                  pattern);
        pollfd echo{master, POLLIN, 0};
        EXPECT_EQ(poll(&echo, 1, 50), 0) << "nothing may come back on its own";
        EXPECT_EQ(port->close(), 0);
    }
    EXPECT_GE(rs232.readCount, 1u);
}

// Missing node, then a node that opens but is no terminal (the port then stays open).
TEST(SerialFailures, OpenMessages) {
    Rs232 rs232(1);
    Rs485 rs485(2);
    const char* missing = "/nonexistent-s2e-dir/tty-missing";
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open(missing, O_RDWR), -1); }),
              std::string("CommPortDriver::open ") + missing + " fail\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.open(missing, O_RDWR), -1); }), "");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.resetDevice(), -1); }), "");

    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open("/dev/null", O_RDWR), -1); }),
              "CommPortDriver::open /dev/null seccess!\nRs232Adapter::open():Can't set termios\n");
    EXPECT_EQ(rs232.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.open("/dev/null", O_RDWR), -1); }),
              "Can't set termios");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.control(1, B9600), -1); }), "Can't set termios");
    EXPECT_EQ(rs485.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(rs232.close() + rs485.close(), 0);
}

}  // namespace
