// The serial port driver on pseudo-terminals (in nsrun's /dev): line settings read back, the line
// speed command, reset, failure texts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>

#include "Rs232Adapter.h"
#include "Rs485Adapter.h"
#include "TestSupport.h"

using s2etest::captureStdout;

namespace {

// qemu-user 7.2 turns terminal speeds above 460800 baud into B0 (S2E_EMULATOR: the tests run under
// it); a real terminal keeps them.
speed_t readBack(speed_t speed) {
    const char* emulator = getenv("S2E_EMULATOR");
    return speed == B576000 && emulator != nullptr && *emulator != '\0' ? B0 : speed;
}

// A fresh pty per test, its slave cooked first: every setting an adapter must change starts out
// wrong, and the bits it must keep (ONLCR, CLOCAL, HUPCL, IEXTEN) are there.
class Pty : public ::testing::Test {
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
    void TearDown() override { ::close(slave), ::close(master); }
    termios attributes() const {
        termios t{};
        tcgetattr(slave, &t);
        return t;
    }
    // Raw 8N1, no flow control, a blocking descriptor, VMIN 1 and VTIME 10.
    void expectRawLine(speed_t speed, int fd) const {
        const termios t = attributes();
        EXPECT_EQ(t.c_iflag, 0u);
        EXPECT_EQ(t.c_oflag & (OPOST | ONLCR), tcflag_t(ONLCR));
        EXPECT_EQ(t.c_cflag & (CSIZE | CREAD | PARENB | CSTOPB | CRTSCTS | CLOCAL | HUPCL),
                  tcflag_t(CS8 | CREAD | CLOCAL | HUPCL));
        EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ECHOE | ISIG | IEXTEN), tcflag_t(IEXTEN));
        EXPECT_EQ(t.c_cc[VMIN], 1) << "VMIN";
        EXPECT_EQ(t.c_cc[VTIME], 10) << "VTIME";
        EXPECT_EQ(cfgetispeed(&t), readBack(speed)) << "input speed";
        EXPECT_EQ(cfgetospeed(&t), readBack(speed)) << "output speed";
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    }
    int master = -1, slave = -1;
    std::string node;
};

// Opens the descriptor of a port for inspection.
template <class Base>
struct Port : Base {
    using Base::_fd;
    using Base::Base;
    using Base::portState;
};

TEST_F(Pty, OpenRawLineControlAndReset) {
    Port<Rs232Adapter> rs232(1);
    const int flags = O_RDWR | O_NOCTTY | O_NONBLOCK;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open(node.c_str(), flags), 0); }),
              "CommPortDriver::open " + node + " seccess!\n");
    expectRawLine(B576000, rs232._fd);
    EXPECT_EQ(rs232.control(1, B2400), 0);
    const termios slow = attributes();
    EXPECT_EQ(cfgetospeed(&slow), speed_t(B2400)) << "command 1 sets the line speed";
    EXPECT_EQ(rs232.control(1, 4102), 0);  // the bridge's call: B576000
    expectRawLine(B576000, rs232._fd);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.resetDevice(), -1); }), "") << "reset: refused";
    EXPECT_EQ(rs232.close(), 0);
}

TEST(SerialPorts, FailuresAndTheirTexts) {
    Port<Rs232Adapter> rs232(1);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open("/dev/null", O_RDWR), -1); }),
              "CommPortDriver::open /dev/null seccess!\nRs232Adapter::open():Can't set termios\n");
    ASSERT_EQ(::close(rs232._fd), 0);  // behind the port's back, so that its close fails
    EXPECT_EQ(rs232.close(), -1);
}

// Descriptor 0 is never the port's own: a port that got it drops it unclosed.
TEST(SerialPorts, APortOnDescriptorZeroLeavesItOpen) {
    ASSERT_EQ(::close(0), 0);
    Port<Rs485Adapter> port(3);
    port.open("/dev/null", O_RDWR);
    ASSERT_EQ(port._fd, 0) << "the lowest free descriptor";
    EXPECT_EQ(port.close(), 0);
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "descriptor 0 still open";
}

}  // namespace
