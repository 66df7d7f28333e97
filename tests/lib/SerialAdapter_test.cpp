// Rs232Adapter and Rs485Adapter on pseudo-terminals: line settings read back, blocking mode,
// control commands, reset, data in both directions, and the failure messages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "DriverTestSupport.h"
#include "Rs232Adapter.h"
#include "Rs485Adapter.h"

namespace {

constexpr int kOpenFlags = O_RDWR | O_NOCTTY | O_NONBLOCK;
constexpr const char* kMissingNode = "/nonexistent-s2e-dir/tty-missing";

// qemu-user 7.2 turns terminal speeds above 460800 baud into B0. Probed once on a pty of our own.
bool highSpeedsLost() {
    static const bool lost = [] {
        int master = -1;
        int slave = -1;
        if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return false;
        termios settings{};
        tcgetattr(slave, &settings);
        cfsetispeed(&settings, B576000);
        cfsetospeed(&settings, B576000);
        tcsetattr(slave, TCSANOW, &settings);
        tcgetattr(slave, &settings);
        const bool result = cfgetospeed(&settings) == B0;
        ::close(slave);
        ::close(master);
        return result;
    }();
    return lost;
}

#define SKIP_IF_HIGH_SPEEDS_LOST()                                                        \
    if (highSpeedsLost())                                                                 \
    GTEST_SKIP() << "this environment (qemu-user emulation) reads terminal speeds above " \
                    "460800 baud back as B0, so B576000 cannot be checked here"

// A fresh pseudo-terminal per test. Before the port opens it, the slave is put in a cooked,
// decorated state, so that every setting the adapter must change starts out wrong and every
// setting it must keep is visibly there.
class PtyPort : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[128] = {};
        ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
        slaveName = name;
        termios settings{};
        ASSERT_EQ(tcgetattr(slave, &settings), 0);
        settings.c_iflag = ICRNL | IXON | IXOFF | ISTRIP | INPCK | BRKINT | IGNPAR;
        settings.c_oflag = OPOST | ONLCR;
        settings.c_cflag |= CSTOPB | CRTSCTS | CLOCAL | HUPCL;
        settings.c_lflag |= ICANON | ECHO | ECHOE | ISIG | IEXTEN;
        settings.c_cc[VMIN] = 0;
        settings.c_cc[VTIME] = 0;
        cfsetispeed(&settings, B9600);
        cfsetospeed(&settings, B9600);
        ASSERT_EQ(tcsetattr(slave, TCSANOW, &settings), 0);
        const termios back = attributes();
        ASSERT_EQ(back.c_cflag & (CSTOPB | CRTSCTS | CLOCAL | HUPCL),
                  static_cast<tcflag_t>(CSTOPB | CRTSCTS | CLOCAL | HUPCL));
        ASSERT_EQ(back.c_oflag & ONLCR, static_cast<tcflag_t>(ONLCR));
        ASSERT_NE(back.c_iflag, 0u);
    }
    void TearDown() override {
        if (slave >= 0) ::close(slave);
        if (master >= 0) ::close(master);
    }

    termios attributes() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(slave, &settings), 0);
        return settings;
    }

    // Raw 8N1 without flow control; the decorations that the configuration must keep survive.
    void expectRawLine() const {
        const termios t = attributes();
        EXPECT_EQ(t.c_iflag, 0u);
        EXPECT_EQ(t.c_oflag & OPOST, 0u);
        EXPECT_EQ(t.c_oflag & ONLCR, static_cast<tcflag_t>(ONLCR)) << "other output bits stay";
        // Note: the pty driver itself forces CS8 | CREAD and clears PARENB on every change.
        EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
        EXPECT_EQ(t.c_cflag & CREAD, static_cast<tcflag_t>(CREAD));
        EXPECT_EQ(t.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
        EXPECT_EQ(t.c_cflag & (CLOCAL | HUPCL), static_cast<tcflag_t>(CLOCAL | HUPCL))
            << "other control bits stay";
        EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
        EXPECT_EQ(t.c_lflag & IEXTEN, static_cast<tcflag_t>(IEXTEN)) << "other local bits stay";
        EXPECT_EQ(t.c_cc[VMIN], 1);
        EXPECT_EQ(t.c_cc[VTIME], 10);
    }

    void expectSpeeds(speed_t speed) const {
        const termios t = attributes();
        EXPECT_EQ(cfgetispeed(&t), speed);
        EXPECT_EQ(cfgetospeed(&t), speed);
    }

    static bool blocking(int32_t fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

    // Reads exactly `count` bytes from `fd`, each wait bounded so that a lost byte fails the test
    // instead of hanging it.
    static std::vector<uint8_t> drain(int fd, size_t count) {
        std::vector<uint8_t> got;
        uint8_t chunk[512];
        while (got.size() < count) {
            pollfd waiter{fd, POLLIN, 0};
            if (poll(&waiter, 1, 5000) != 1) break;
            const ssize_t n = ::read(fd, chunk, std::min(sizeof chunk, count - got.size()));
            if (n <= 0) break;
            got.insert(got.end(), chunk, chunk + n);
        }
        return got;
    }

    int master = -1;
    int slave = -1;
    std::string slaveName;
};

using Rs232 = Exposed<Rs232Adapter>;
using Rs485 = Exposed<Rs485Adapter>;

TEST_F(PtyPort, Rs232OpenMakesARawBlockingLineAndSaysSo) {
    Rs232 port(1);
    int32_t result = -1;
    EXPECT_EQ(captureStdout([&] { result = port.open(slaveName.c_str(), kOpenFlags); }),
              "CommPortDriver::open " + slaveName + " seccess!\n");
    ASSERT_EQ(result, 0);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    expectRawLine();
    EXPECT_TRUE(blocking(port._fd)) << "O_NONBLOCK in the flags must not survive open";
    EXPECT_EQ(fcntl(port._fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs232OpenSetsBothSpeedsTo576000) {
    SKIP_IF_HIGH_SPEEDS_LOST();
    Rs232 port(1);
    captureStdout([&] { ASSERT_EQ(port.open(slaveName.c_str(), kOpenFlags), 0); });
    expectSpeeds(B576000);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs485OpenMakesARawBlockingLineAt115200Silently) {
    Rs485 port(2);
    int32_t result = -1;
    EXPECT_EQ(captureStdout([&] { result = port.open(slaveName.c_str(), kOpenFlags); }), "");
    ASSERT_EQ(result, 0);
    expectRawLine();
    expectSpeeds(B115200);
    EXPECT_TRUE(blocking(port._fd)) << "O_NONBLOCK in the flags must not survive open";
    EXPECT_EQ(fcntl(port._fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs232ControlOneChangesTheSpeed) {
    Rs232 port(1);
    captureStdout([&] { ASSERT_EQ(port.open(slaveName.c_str(), kOpenFlags), 0); });
    EXPECT_EQ(port.control(1, B115200), 0);
    expectSpeeds(B115200);
    EXPECT_EQ(port.control(1, B9600), 0);
    expectSpeeds(B9600);
    expectRawLine();
    EXPECT_EQ(port.close(), 0);
}

// The bridge's own call: control(1, 4102) after open.
TEST_F(PtyPort, Rs232ControlOneSets576000) {
    SKIP_IF_HIGH_SPEEDS_LOST();
    Rs232 port(1);
    captureStdout([&] { ASSERT_EQ(port.open(slaveName.c_str(), 2), 0); });
    ASSERT_EQ(port.control(1, B9600), 0);
    EXPECT_EQ(port.control(1, 4102), 0);
    expectSpeeds(B576000);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs485ControlOneChangesTheSpeed) {
    Rs485 port(2);
    ASSERT_EQ(port.open(slaveName.c_str(), kOpenFlags), 0);
    EXPECT_EQ(port.control(1, B9600), 0);
    expectSpeeds(B9600);
    EXPECT_EQ(port.control(1, B230400), 0);
    expectSpeeds(B230400);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, ControlTwoAddsFlagsOnRs485AndOnlyReadsOnRs232) {
    termios settings = attributes();
    settings.c_cflag &= ~static_cast<tcflag_t>(CLOCAL | CSTOPB);
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &settings), 0);

    Rs232 rs232(1);
    captureStdout([&] { ASSERT_EQ(rs232.open(slaveName.c_str(), kOpenFlags), 0); });
    EXPECT_EQ(rs232.control(2, CLOCAL | CSTOPB), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB), 0u) << "RS-232 applies nothing";
    EXPECT_EQ(rs232.close(), 0);

    Rs485 rs485(2);
    ASSERT_EQ(rs485.open(slaveName.c_str(), kOpenFlags), 0);
    EXPECT_EQ(rs485.control(2, 0), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB | CREAD), static_cast<tcflag_t>(CREAD));
    EXPECT_EQ(rs485.control(2, CLOCAL), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB), static_cast<tcflag_t>(CLOCAL));
    EXPECT_EQ(rs485.control(2, CSTOPB), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB), static_cast<tcflag_t>(CLOCAL | CSTOPB))
        << "flags accumulate";
    EXPECT_EQ(rs485.close(), 0);
}

TEST_F(PtyPort, UnknownControlCommandsChangeNothing) {
    Rs232 rs232(1);
    captureStdout([&] { ASSERT_EQ(rs232.open(slaveName.c_str(), kOpenFlags), 0); });
    Rs485 rs485(2);
    ASSERT_EQ(rs485.open(slaveName.c_str(), kOpenFlags), 0);
    // Put a mark the adapters would overwrite if they applied anything.
    ASSERT_EQ(rs485.control(1, B2400), 0);
    const termios before = attributes();
    for (int32_t command : {0, 3, 7, -1}) {
        EXPECT_EQ(rs232.control(command, CSTOPB), 0);
        EXPECT_EQ(rs485.control(command, CSTOPB), 0);
    }
    const termios after = attributes();
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B2400));
    EXPECT_EQ(rs232.close(), 0);
    EXPECT_EQ(rs485.close(), 0);
}

TEST_F(PtyPort, Rs232ResetIsNotSupportedAndLeavesThePortAlone) {
    Rs232 port(1);
    captureStdout([&] { ASSERT_EQ(port.open(slaveName.c_str(), kOpenFlags), 0); });
    ASSERT_EQ(port.control(1, B9600), 0);
    const int32_t fd = port._fd;
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = port.resetDevice(); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(port._fd, fd);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    expectSpeeds(B9600);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs485ResetReopensReconfiguresAndKeepsTheOpenFlags) {
    Rs485 port(2);
    ASSERT_EQ(port.open(slaveName.c_str(), kOpenFlags), 0);
    ASSERT_TRUE(blocking(port._fd));
    ASSERT_EQ(port.control(1, B9600), 0);
    termios settings = attributes();
    settings.c_lflag |= ICANON | ECHO;
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &settings), 0);

    int32_t result = -1;
    EXPECT_EQ(captureStdout([&] { result = port.resetDevice(); }),
              "Rs485Adapter::resetDevice()\n ");
    ASSERT_EQ(result, 0);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_OPENED);
    EXPECT_STREQ(port.getDeviceName(), slaveName.c_str());
    expectRawLine();
    expectSpeeds(B115200);
    EXPECT_FALSE(blocking(port._fd)) << "a reset reapplies the O_NONBLOCK of the last open";
    EXPECT_EQ(fcntl(port._fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(port.close(), 0);
}

TEST_F(PtyPort, Rs485ResetFailsSilentlyWhenTheNodeCannotBeReopened) {
    Rs485 port(2);
    ASSERT_EQ(port.open(kMissingNode, O_RDWR), -1);
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = port.resetDevice(); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(port._fd, -1);
    EXPECT_EQ(port.portState, CommPortDriver::PORT_CLOSED);
}

// All byte values pass unchanged both ways: no CR/NL mapping, no flow-control or signal
// characters eaten, no parity stripping, and nothing echoed back.
TEST_F(PtyPort, EveryByteValueCrossesTheLineUnchangedBothWays) {
    std::vector<uint8_t> pattern(256);
    for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i);

    for (int kind = 0; kind < 2; ++kind) {
        SCOPED_TRACE(kind == 0 ? "Rs232Adapter" : "Rs485Adapter");
        Rs232 rs232(1);
        Rs485 rs485(2);
        CommPortDriver* port = kind == 0 ? static_cast<CommPortDriver*>(&rs232) : &rs485;
        captureStdout([&] { ASSERT_EQ(port->open(slaveName.c_str(), kOpenFlags), 0); });

        ASSERT_EQ(::write(master, pattern.data(), pattern.size()), 256);
        std::vector<uint8_t> received;
        uint8_t chunk[300];
        int reads = 0;
        while (received.size() < pattern.size() && reads < 300) {
            pollfd waiter{slave, POLLIN, 0};
            if (poll(&waiter, 1, 5000) != 1) break;
            const int32_t n = port->read(chunk, sizeof chunk);
            ++reads;
            if (n <= 0) break;
            received.insert(received.end(), chunk, chunk + n);
        }
        EXPECT_EQ(received, pattern);
        EXPECT_EQ(kind == 0 ? rs232.readCount : rs485.readCount, static_cast<uint32_t>(reads));

        ASSERT_EQ(port->write(pattern.data(), static_cast<uint32_t>(pattern.size())), 256);
        EXPECT_EQ(drain(master, pattern.size()), pattern);
        pollfd echo{master, POLLIN, 0};
        EXPECT_EQ(poll(&echo, 1, 50), 0) << "nothing may come back on its own";
        EXPECT_EQ(port->close(), 0);
    }
}

TEST(SerialFailures, MissingNodeMessagesAndResults) {
    Rs232 rs232(1);
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = rs232.open(kMissingNode, O_RDWR); }),
              std::string("CommPortDriver::open ") + kMissingNode + " fail\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rs232._fd, -1);
    EXPECT_EQ(rs232.portState, CommPortDriver::PORT_CLOSED);

    Rs485 rs485(2);
    EXPECT_EQ(captureStdout([&] { result = rs485.open(kMissingNode, O_RDWR); }), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rs485._fd, -1);

    // Neither port is open: reads complain, writes fail quietly, close is harmless twice.
    uint8_t byte = 0;
    CommPortDriver* const ports[] = {&rs232, &rs485};
    for (CommPortDriver* port : ports) {
        EXPECT_EQ(captureStdout([&] { result = port->read(&byte, 1); }), "_fd=-1 < 0 error!\n");
        EXPECT_EQ(result, -1);
        EXPECT_EQ(captureStdout([&] { result = port->write(&byte, 1); }), "");
        EXPECT_EQ(result, -1);
        EXPECT_EQ(port->close(), 0);
        EXPECT_EQ(port->close(), 0);
    }
}

// A node that is no terminal opens but refuses the line settings: the port stays open.
TEST(SerialFailures, NodeWithoutTerminalSettings) {
    const char* node = "/dev/null";
    Rs232 rs232(1);
    int32_t result = 0;
    EXPECT_EQ(captureStdout([&] { result = rs232.open(node, O_RDWR); }),
              "CommPortDriver::open /dev/null seccess!\nRs232Adapter::open():Can't set termios\n");
    EXPECT_EQ(result, -1);
    EXPECT_GE(rs232._fd, 0);
    EXPECT_EQ(rs232.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(captureStdout([&] { result = rs232.control(1, B9600); }), "");
    EXPECT_EQ(result, 0) << "RS-232 does not check the speed change";
    EXPECT_EQ(rs232.close(), 0);

    Rs485 rs485(2);
    EXPECT_EQ(captureStdout([&] { result = rs485.open(node, O_RDWR); }), "Can't set termios");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rs485.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(captureStdout([&] { result = rs485.control(1, B9600); }), "Can't set termios");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(captureStdout([&] { result = rs485.control(2, CLOCAL); }), "Can't set termios");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(captureStdout([&] { result = rs485.resetDevice(); }), "Can't set termios");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(rs485.portState, CommPortDriver::PORT_OPENED);
    EXPECT_EQ(rs485.close(), 0);
}

}  // namespace
