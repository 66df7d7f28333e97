// GPIO pins through the board's GPIO character device: each operation opens the node, selects the
// pin's multiplexing, drives or reads the pin, and closes the node, under the adapter's mutex.
#pragma once

#include <pthread.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <string>

// Request record of all three driver requests (native byte order).
struct GpioRequest {
    uint32_t bank;
    uint32_t pin;
    uint32_t value;  // 0 for the pinmux request, the level to drive, or the level read
    uint32_t reserved;
};
static_assert(sizeof(GpioRequest) == 16, "the driver expects a 16-byte request record");

// Request codes of the driver (its encoding says 4 bytes although it takes the whole record).
constexpr unsigned long GPIO_SET_PINMUX = 0x40044700UL;
constexpr unsigned long GPIO_WRITE_PIN = 0x40044702UL;
constexpr unsigned long GPIO_READ_PIN = 0x80044703UL;
static_assert(GPIO_SET_PINMUX == _IOW('G', 0, uint32_t), "pinmux request code");
static_assert(GPIO_WRITE_PIN == _IOW('G', 2, uint32_t), "write request code");
static_assert(GPIO_READ_PIN == _IOR('G', 3, uint32_t), "read request code");

class GpioAdpater {
  public:
    explicit GpioAdpater(const char* nodePath);
    virtual ~GpioAdpater();
    GpioAdpater(const GpioAdpater&) = delete;
    GpioAdpater& operator=(const GpioAdpater&) = delete;

    // -1 when the node cannot be opened, else the sum of the pinmux and write request results.
    int32_t writePin(uint8_t bank, uint8_t pin, uint8_t value);
    // -1 (value untouched) when the node cannot be opened, else the sum of the pinmux and read
    // request results; *value receives the low byte of what the driver reported.
    int32_t readPin(uint8_t bank, uint8_t pin, uint8_t* value);

  private:
    // Held from before the node is opened until after it is closed; normal kind, not reentrant.
    pthread_mutex_t* mutex;
    std::string nodePath;
};
