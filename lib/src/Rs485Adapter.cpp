// RS-485 port: raw 8N1 blocking line at 115200 baud, speed and control-flag commands, and a reset
// that reopens the node.
#include "Rs485Adapter.h"

#include <fcntl.h>
#include <termios.h>

#include <cstdio>
#include <string>

#include "debug.h"

Rs485Adapter::Rs485Adapter(uint16_t deviceId) : CommPortDriver(deviceId) {}

Rs485Adapter::~Rs485Adapter() = default;

int32_t Rs485Adapter::open(const char* deviceName, int32_t flags) {
    if (CommPortDriver::open(deviceName, flags) == -1) return -1;
    if (applyRawLine(_fd, B115200) != 0) {
        debugLog(LOG_ERROR, "Can't set termios");
        return -1;
    }
    // Blocking reads whatever the caller's flags asked for; resetDevice deliberately does not
    // repeat this.
    (void)fcntl(_fd, F_SETFL, 0);
    (void)fcntl(_fd, F_SETFD, FD_CLOEXEC);
    return 0;
}

int32_t Rs485Adapter::resetDevice() {
    (void)close();
    // CommPortDriver::open copies the name before replacing devicePath, so passing it is safe.
    if (CommPortDriver::open(devicePath.c_str(), openFlags) == -1) return -1;
    if (applyRawLine(_fd, B115200) != 0) {
        debugLog(LOG_ERROR, "Can't set termios");
        return -1;
    }
    printf("Rs485Adapter::resetDevice()\n ");
    return 0;
}

int32_t Rs485Adapter::control(int32_t command, uint32_t value) {
    termios settings{};
    switch (command) {
        case 1:
            (void)tcgetattr(_fd, &settings);
            cfsetispeed(&settings, static_cast<speed_t>(value));
            cfsetospeed(&settings, static_cast<speed_t>(value));
            break;
        case 2:
            (void)tcgetattr(_fd, &settings);
            settings.c_cflag |= static_cast<tcflag_t>(value) | CREAD;
            break;
        default:
            return 0;
    }
    if (tcsetattr(_fd, TCSANOW, &settings) != 0) {
        debugLog(LOG_ERROR, "Can't set termios");
        return -1;
    }
    return 0;
}

int32_t Rs485Adapter::reservedControl1() {
    return 0;
}

int32_t Rs485Adapter::reservedControl2() {
    return -1;
}

int32_t Rs485Adapter::reservedControl3() {
    return -1;
}
