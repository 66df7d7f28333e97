// RS-485 serial port: a CommPortDriver configured as a raw, blocking 8N1 line at 115200 baud, with
// a reset that reopens and reconfigures the node.
#pragma once

#include <cstdint>

#include "CommPortDriver.h"

class Rs485Adapter : public CommPortDriver {
  public:
    explicit Rs485Adapter(uint16_t deviceId);
    virtual ~Rs485Adapter();

    // Opens and configures the line silently; -1 when the node cannot be opened or the terminal
    // settings cannot be applied (the port then stays open, and the failure is logged).
    int32_t open(const char* deviceName, int32_t flags) override;
    // Closes, reopens with the path and flags of the last open, and reconfigures the line. The
    // status flags of that open apply again afterwards (O_NONBLOCK included). 0 or -1.
    int32_t resetDevice() override;
    // 1: set both speeds to the speed code `value`; 2: OR `value` and CREAD into c_cflag; any
    // other command: nothing, 0. -1 (logged) when the settings cannot be applied.
    int32_t control(int32_t command, uint32_t value) override;
    int32_t reservedControl1() override;
    int32_t reservedControl2() override;
    int32_t reservedControl3() override;
};
