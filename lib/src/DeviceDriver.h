// Interface tree of the character-device drivers: the root DeviceDriver and its three facets for
// output, input and control. Only concrete drivers (CommPortDriver and below) are instantiated.
#pragma once

#include <cstdint>

// Root: open, close and identity. Each facet carries its own copy of this base (plain, not
// virtual, inheritance), so a concrete driver gives every operation here one implementation.
class DeviceDriver {
  public:
    virtual ~DeviceDriver() = default;
    virtual int32_t open(const char* deviceName, int32_t flags) = 0;
    virtual int32_t close() = 0;
    virtual uint16_t getDeviceId() = 0;
    virtual const char* getDeviceName() = 0;
};

// Output facet.
class DeviceWriter : public DeviceDriver {
  public:
    virtual int32_t write(const uint8_t* buffer, uint32_t length) = 0;
    virtual int32_t writeData(const uint8_t* buffer, uint32_t length) = 0;
};

// Input facet.
class DeviceReader : public DeviceDriver {
  public:
    virtual int32_t read(uint8_t* buffer, uint32_t length) = 0;
    virtual int32_t readData(uint8_t* buffer, uint32_t length) = 0;
};

// Control facet. The reserved operations hold their places in the table for later commands.
class DeviceController : public DeviceDriver {
  public:
    virtual int32_t resetDevice() = 0;
    virtual int32_t control(int32_t command, uint32_t value) = 0;
    virtual int32_t reservedControl1() = 0;
    virtual int32_t reservedControl2() = 0;
    virtual int32_t reservedControl3() = 0;
};
