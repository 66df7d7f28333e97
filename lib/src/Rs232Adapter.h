// RS-232 serial port: a CommPortDriver configured as a raw, blocking 8N1 line at 576000 baud.
#pragma once

#include <cstdint>

#include "CommPortDriver.h"

class Rs232Adapter : public CommPortDriver {
  public:
    explicit Rs232Adapter(uint16_t deviceId);
    virtual ~Rs232Adapter();

    // Opens and configures the line; prints the outcome. -1 when the node cannot be opened or the
    // terminal settings cannot be applied (the port then stays open).
    int32_t open(const char* deviceName, int32_t flags) override;
    // 1: set both speeds to the speed code `value` (result not checked); 2: read the settings
    // only; any other command: nothing. Always 0.
    int32_t control(int32_t command, uint32_t value) override;
    int32_t reservedControl1() override;
    int32_t reservedControl2() override;
    int32_t reservedControl3() override;
};
