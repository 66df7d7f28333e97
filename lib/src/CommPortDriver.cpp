// File-descriptor port driver: open/close/read/write on one device node, and the raw line
// configuration that the serial adapters apply on top of it.
#include "CommPortDriver.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

CommPortDriver::CommPortDriver(uint16_t deviceId)
    : _fd(-1), deviceId(deviceId), openFlags(0), portState(PORT_CLOSED), readCount(0) {
    std::memset(deviceTag, 0, sizeof deviceTag);
}

CommPortDriver::~CommPortDriver() = default;

int32_t CommPortDriver::open(const char* deviceName, int32_t flags) {
    // Copy first: a caller may hand us one of our own names (resetDevice reopens with devicePath).
    const std::string path(deviceName);
    this->deviceName = path;
    devicePath = path;
    openFlags = flags;
    _fd = ::open(path.c_str(), flags);
    if (_fd == -1) return -1;
    portState = PORT_OPENED;
    // Keep the port out of programs that this process starts.
    (void)::fcntl(_fd, F_SETFD, FD_CLOEXEC);
    return 0;
}

int32_t CommPortDriver::close() {
    // A descriptor 0 is dropped without closing it: it is never one that open gave us.
    if (_fd > 0 && ::close(_fd) == -1) return -1;
    _fd = -1;
    portState = PORT_CLOSED;
    return 0;
}

uint16_t CommPortDriver::getDeviceId() {
    return deviceId;
}

const char* CommPortDriver::getDeviceName() {
    return deviceName.c_str();
}

int32_t CommPortDriver::write(const uint8_t* buffer, uint32_t length) {
    if (_fd < 0) return -1;
    return static_cast<int32_t>(::write(_fd, buffer, length));
}

int32_t CommPortDriver::writeData(const uint8_t* buffer, uint32_t length) {
    return write(buffer, length);
}

int32_t CommPortDriver::resetDevice() {
    return -1;
}

int32_t CommPortDriver::read(uint8_t* buffer, uint32_t length) {
    if (_fd < 0) {
        printf("_fd=%d < 0 error!\n", _fd);
        return -1;
    }
    // One call only: blocking and time-out come from the descriptor mode and the line settings.
    const ssize_t result = ::read(_fd, buffer, length);
    if (result > 0) ++readCount;
    return static_cast<int32_t>(result);
}

int32_t CommPortDriver::readData(uint8_t* buffer, uint32_t length) {
    return read(buffer, length);
}

int32_t CommPortDriver::reservedPort1() {
    return -1;
}

int32_t CommPortDriver::reservedPort2() {
    return -1;
}

int32_t CommPortDriver::control(int32_t, uint32_t) {
    return -1;
}

int32_t CommPortDriver::reservedControl1() {
    return -1;
}

int32_t CommPortDriver::reservedControl2() {
    return -1;
}

int32_t CommPortDriver::reservedControl3() {
    return -1;
}

int32_t CommPortDriver::getDeviceTag(char* buffer) {
    const size_t length = strnlen(deviceTag, sizeof deviceTag - 1);
    std::memcpy(buffer, deviceTag, length);
    buffer[length] = '\0';
    return static_cast<int32_t>(length);
}

int32_t CommPortDriver::applyRawLine(int32_t fd, speed_t speed) {
    termios settings{};
    (void)tcgetattr(fd, &settings);
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    // Bytes pass untouched in both directions: no flow control, translation, parity or stripping.
    settings.c_iflag = 0;
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    // 8 data bits, one stop bit, no parity, no RTS/CTS, receiver on; speed, CLOCAL and HUPCL stay.
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB | CRTSCTS);
    settings.c_cflag |= CS8 | CREAD;
    settings.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE);
    // VMIN 1, VTIME 10: read() blocks until the first byte arrives, so the reader thread sleeps
    // rather than polls, and then returns what has come without waiting for the buffer to fill;
    // the 1.0 s inter-byte timer only bounds gaps after that byte, never the wait for it.
    settings.c_cc[VTIME] = 10;
    settings.c_cc[VMIN] = 1;
    return tcsetattr(fd, TCSANOW, &settings);
}
