// RS-232 port: raw 8N1 blocking line at 576000 baud, speed change by control command 1.
#include "Rs232Adapter.h"

#include <fcntl.h>
#include <termios.h>

#include <cstdio>

Rs232Adapter::Rs232Adapter(uint16_t deviceId) : CommPortDriver(deviceId) {}

Rs232Adapter::~Rs232Adapter() = default;

int32_t Rs232Adapter::open(const char* deviceName, int32_t flags) {
    if (CommPortDriver::open(deviceName, flags) == -1) {
        printf("CommPortDriver::open %s fail\n", deviceName);
        return -1;
    }
    printf("CommPortDriver::open %s seccess!\n", deviceName);
    if (applyRawLine(_fd, B576000) != 0) {
        puts("Rs232Adapter::open():Can't set termios");
        return -1;
    }
    // The reader thread relies on blocking reads whatever the caller's flags asked for.
    (void)fcntl(_fd, F_SETFL, 0);
    (void)fcntl(_fd, F_SETFD, FD_CLOEXEC);
    return 0;
}

int32_t Rs232Adapter::control(int32_t command, uint32_t value) {
    termios settings{};
    switch (command) {
        case 1:
            (void)tcgetattr(_fd, &settings);
            cfsetispeed(&settings, static_cast<speed_t>(value));
            cfsetospeed(&settings, static_cast<speed_t>(value));
            (void)tcsetattr(_fd, TCSANOW, &settings);
            return 0;
        case 2:
            // Recognised but applies nothing on this port type.
            (void)tcgetattr(_fd, &settings);
            return 0;
        default:
            return 0;
    }
}

int32_t Rs232Adapter::reservedControl1() {
    return 0;
}

int32_t Rs232Adapter::reservedControl2() {
    return -1;
}

int32_t Rs232Adapter::reservedControl3() {
    return -1;
}
