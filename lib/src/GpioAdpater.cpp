// GPIO adapter: one open / pinmux request / pin request / close cycle per operation, serialised by
// the adapter's own mutex.
#include "GpioAdpater.h"

#include <fcntl.h>
#include <unistd.h>

#include "ThreadLocker.h"
#include "debug.h"

GpioAdpater::GpioAdpater(const char* nodePath) : mutex(new pthread_mutex_t), nodePath(nodePath) {
    mutexInit(mutex, 1);
}

GpioAdpater::~GpioAdpater() {
    mutexDestroy(mutex);
    delete mutex;
}

int32_t GpioAdpater::writePin(uint8_t bank, uint8_t pin, uint8_t value) {
    mutexLock(mutex);
    const int fd = ::open(nodePath.c_str(), O_RDWR);
    // 0 counts as a failure too: the driver's node is never standard input.
    if (fd <= 0) {
        debugLog(LOG_ERROR, "open gpio node %s failed\n", nodePath.c_str());
        mutexUnlock(mutex);
        return -1;
    }
    GpioRequest request{bank, pin, 0, 0};
    const int muxResult = ::ioctl(fd, GPIO_SET_PINMUX, &request);
    if (muxResult < 0) debugLog(LOG_ERROR, "set  gpio  pinmux fail\n");
    // A failed pinmux does not stop the write: the caller sees it in the summed result.
    request.value = value;
    const int writeResult = ::ioctl(fd, GPIO_WRITE_PIN, &request);
    (void)::close(fd);
    mutexUnlock(mutex);
    return muxResult + writeResult;
}

int32_t GpioAdpater::readPin(uint8_t bank, uint8_t pin, uint8_t* value) {
    mutexLock(mutex);
    const int fd = ::open(nodePath.c_str(), O_RDWR);
    if (fd <= 0) {
        debugLog(LOG_ERROR, "open gpio node %s failed\n", nodePath.c_str());
        mutexUnlock(mutex);
        return -1;
    }
    GpioRequest request{bank, pin, 0, 0};
    const int muxResult = ::ioctl(fd, GPIO_SET_PINMUX, &request);
    if (muxResult < 0) debugLog(LOG_ERROR, "set  gpio  pinmux fail\n");
    const int readResult = ::ioctl(fd, GPIO_READ_PIN, &request);
    const int32_t sum = muxResult + readResult;
    if (sum < 0) {
        debugLog(LOG_ERROR, "read gpio fail\n");
    } else {
        debugLog(LOG_INFO, "gpio%d_%d=%d\n", bank, pin, static_cast<int>(request.value));
    }
    // Stored even after a failed read: the caller gets what the driver left there, or 0.
    *value = static_cast<uint8_t>(request.value & 0xFFu);
    (void)::close(fd);
    mutexUnlock(mutex);
    return sum;
}
