// Driver for a device node reached through one file descriptor (serial ports): implements the
// writer, reader and controller facets at once; the serial adapters derive from it.
#pragma once

#include <termios.h>

#include <cstdint>
#include <string>

#include "DeviceDriver.h"

// DeviceWriter comes first, so it is the primary base. No lock: one thread may read while another
// writes (the kernel serialises the descriptor); open, close, control and resetDevice must not
// overlap with either.
class CommPortDriver : public DeviceWriter, public DeviceReader, public DeviceController {
  public:
    enum : int32_t { PORT_OPENED = 2, PORT_CLOSED = 3 };
    static constexpr uint32_t kDeviceTagSize = 20;

    explicit CommPortDriver(uint16_t deviceId);
    // Releases the names only: the descriptor stays open until the owner calls close().
    virtual ~CommPortDriver();
    CommPortDriver(const CommPortDriver&) = delete;
    CommPortDriver& operator=(const CommPortDriver&) = delete;

    // Declaration order below is the order of the operation table; subclasses keep it.
    // 0 on success, -1 when the node cannot be opened. Does not close an open descriptor.
    int32_t open(const char* deviceName, int32_t flags) override;
    // 0, or -1 when close(2) fails (the descriptor is then kept so the caller may retry).
    int32_t close() override;
    uint16_t getDeviceId() override;
    // Valid until the next open or the object's destruction; empty before the first open.
    const char* getDeviceName() override;
    // One write(2): the accepted count (possibly short) or -1; -1 silently when not open.
    int32_t write(const uint8_t* buffer, uint32_t length) override;
    // Goes through the virtual write, so an override is honoured.
    int32_t writeData(const uint8_t* buffer, uint32_t length) override;
    // Not supported here: -1.
    int32_t resetDevice() override;
    // One read(2): the count, 0 or -1; prints a message and gives -1 when not open.
    int32_t read(uint8_t* buffer, uint32_t length) override;
    // Goes through the virtual read, so an override is honoured.
    int32_t readData(uint8_t* buffer, uint32_t length) override;
    virtual int32_t reservedPort1();
    virtual int32_t reservedPort2();
    // Not supported here: -1. Commands belong to the subclasses.
    int32_t control(int32_t command, uint32_t value) override;
    int32_t reservedControl1() override;
    int32_t reservedControl2() override;
    int32_t reservedControl3() override;
    // buffer holds at least kDeviceTagSize bytes; receives the NUL-terminated tag, returns its
    // length.
    virtual int32_t getDeviceTag(char* buffer);

  protected:
    // Raw 8N1 byte pipe at `speed` (a termios speed code) on `fd`: the configuration shared by the
    // serial adapters. Returns the result of tcsetattr (0 or -1).
    static int32_t applyRawLine(int32_t fd, speed_t speed);

    int32_t _fd;
    uint16_t deviceId;
    int32_t openFlags;
    std::string deviceName;
    std::string devicePath;
    int32_t portState;
    char deviceTag[kDeviceTagSize];
    uint32_t readCount;
};
