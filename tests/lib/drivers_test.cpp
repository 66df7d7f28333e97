// Device drivers: the serial adapters on pseudo-terminals (line settings read back, control
// commands, reset, failure texts) and the GPIO adapter against a stand-in driver defined in this
// program.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>

#include <cstdarg>

#include "GpioAdpater.h"
#include "Rs232Adapter.h"
#include "Rs485Adapter.h"
#include "TestSupport.h"
#include "debug.h"

using s2etest::captureStdout;

namespace {

// The stand-in driver: the adapter opens /dev/null, and its requests, known by their codes, are
// recorded here instead of reaching the real ioctl; every other call goes on to the next
// definition (sanitizer runtime or C library).
std::string trace;
bool failPinmux = false, failPin = false;

}  // namespace

extern "C" int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    auto* r = va_arg(args, GpioRequest*);
    va_end(args);
    const bool pinmux = code == GPIO_SET_PINMUX, read = code == GPIO_READ_PIN;
    if (!pinmux && !read && code != GPIO_WRITE_PIN)
        return reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"))(
            fd, code, r);
    trace += pinmux ? "pinmux " : read ? "read " : "write ";
    for (uint32_t field : {r->bank, r->pin, r->value, r->reserved})
        trace += std::to_string(field) + " ";
    trace.back() = '|';
    if (pinmux ? failPinmux : failPin) return -1;
    if (read) r->value = 0x1FE;
    return 0;
}

namespace {

// Requests and their fields, results added up, texts, and the low byte of the level read; the
// node is closed after every request (the lowest free descriptor stays free).
TEST(Gpio, RequestsResultsAndTexts) {
    debugLevel = LOG_INFO;
    const std::string both = "pinmux 3 4 0 0|write 3 4 1 0|pinmux 3 4 0 0|read 3 4 0 0|",
                      openFailed = "open gpio node /nonexistent-s2e-gpio failed\n";
    // clang-format off
    const struct { const char* node; bool failPinmux, failPin; int32_t result; std::string text, trace; uint8_t level; } rows[] = {
        {"/dev/null", false, false, 0, "gpio3_4=510\n", both, 0xFE},
        {"/dev/null", true, true, -2, "set  gpio  pinmux fail\nset  gpio  pinmux fail\nread gpio fail\n", both, 0},
        {"/nonexistent-s2e-gpio", false, false, -1, openFailed + openFailed, "", 0x77}};
    // clang-format on
    for (const auto& row : rows) {
        GpioAdpater gpio(row.node);
        failPinmux = row.failPinmux, failPin = row.failPin;
        int32_t w = 9, r = 9;  // of the write and of the read
        uint8_t level = 0x77;
        const int lowest = dup(0);
        ::close(lowest);
        EXPECT_EQ(
            captureStdout([&] { w = gpio.writePin(3, 4, 1), r = gpio.readPin(3, 4, &level); }),
            row.text);
        EXPECT_EQ(w * 10 + r, row.result * 11);
        EXPECT_EQ(level, row.level) << "a failed read stores what the request held";
        EXPECT_EQ(std::exchange(trace, ""), row.trace);
        EXPECT_EQ(dup(0), lowest);
        ::close(lowest);
    }
    debugLevel = 0;
}

// qemu-user 7.2 turns terminal speeds above 460800 baud into B0; probed once on a pty of our own.
bool highSpeedsLost() {
    int master = -1, slave = -1;
    termios t{};
    openpty(&master, &slave, nullptr, nullptr, nullptr);
    cfsetspeed(&t, B576000);
    tcsetattr(slave, TCSANOW, &t);
    tcgetattr(slave, &t);
    ::close(slave), ::close(master);
    return cfgetospeed(&t) == B0;
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
        EXPECT_EQ(t.c_cc[VMIN] * 100 + t.c_cc[VTIME], 110);
        EXPECT_EQ(cfgetispeed(&t) == speed && cfgetospeed(&t) == speed,
                  speed != B576000 || !highSpeedsLost());
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    }
    speed_t speed() const {
        const termios t = attributes();
        return cfgetispeed(&t) == cfgetospeed(&t) ? cfgetospeed(&t) : B0;
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

TEST_F(Pty, OpenRawLinesControlAndReset) {
    Port<Rs232Adapter> rs232(1);
    Port<Rs485Adapter> rs485(2);
    const int flags = O_RDWR | O_NOCTTY | O_NONBLOCK;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open(node.c_str(), flags), 0); }),
              "CommPortDriver::open " + node + " seccess!\n");
    expectRawLine(B576000, rs232._fd);
    EXPECT_EQ(rs232.close(), 0);
    TearDown();
    SetUp();  // cooked again, on a fresh pty
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.open(node.c_str(), flags), 0); }), "");
    expectRawLine(B115200, rs485._fd);
    captureStdout([&] { EXPECT_EQ(rs232.open(node.c_str(), 2), 0); });  // the bridge's flags
    EXPECT_EQ(rs232.control(1, B2400), 0);
    EXPECT_EQ(speed(), speed_t(B2400));
    EXPECT_EQ(rs232.control(1, 4102), 0);  // the bridge's call: B576000
    expectRawLine(B576000, rs232._fd);
    EXPECT_EQ(rs485.control(1, B57600), 0);
    EXPECT_EQ(speed(), speed_t(B57600));
    // Command 2: RS-485 ORs the value (and CREAD) into c_cflag, RS-232 only reads.
    termios t = attributes();
    t.c_cflag &= ~tcflag_t(CLOCAL | CSTOPB);
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &t), 0);
    EXPECT_EQ(
        rs232.control(2, CLOCAL | CSTOPB) + rs232.control(7, PARODD) + rs485.control(7, PARODD), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB | PARODD), 0u);
    EXPECT_EQ(rs485.control(2, CLOCAL) + rs485.control(2, CSTOPB), 0);
    EXPECT_EQ(attributes().c_cflag & (CLOCAL | CSTOPB | CSIZE), tcflag_t(CLOCAL | CSTOPB | CS8));
    EXPECT_EQ(speed(), speed_t(B57600));
    const int fd = rs232._fd;
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.resetDevice(), -1); }), "");
    EXPECT_EQ(rs232._fd, fd);
    // RS-485 reopens with the last path and flags (O_NONBLOCK comes back) and sets the line again.
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs485.resetDevice(), 0); }),
              "Rs485Adapter::resetDevice()\n ");
    EXPECT_EQ(speed(), speed_t(B115200));
    EXPECT_NE(fcntl(rs485._fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(rs232.close() + rs485.close(), 0);
}

TEST(SerialPorts, FailuresAndTheirTexts) {
    Port<Rs232Adapter> rs232(1);
    const char* missing = "/nonexistent-s2e-dir/tty";
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open(missing, O_RDWR), -1); }),
              std::string("CommPortDriver::open ") + missing + " fail\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(rs232.open("/dev/null", O_RDWR), -1); }),
              "CommPortDriver::open /dev/null seccess!\nRs232Adapter::open():Can't set termios\n");
    ASSERT_EQ(::close(rs232._fd), 0);  // behind the port's back, so that its close fails
    EXPECT_EQ(rs232.close(), -1);
    s2etest::Child zero([] {  // a port on descriptor 0 drops it unclosed
        ::close(0);
        Port<Rs485Adapter> port(3);
        port.open("/dev/null", O_RDWR);
        _exit(port._fd != 0 ? 2 : port.close() != 0 ? 3 : fcntl(0, F_GETFD) == -1 ? 4 : 0);
    });
    EXPECT_EQ(zero.status(), 0);
}

}  // namespace
