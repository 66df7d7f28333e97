// Interface of an object that the monitor thread supervises: a heartbeat it advances while it
// works, plus the bookkeeping the monitor keeps in the object itself (the monitor holds no
// per-object state).
#pragma once

#include <cstdint>
#include <string>

class MonitoredObject {
  public:
    virtual ~MonitoredObject() = default;

    // Printed in the kill notice.
    virtual std::string name() = 0;
    // Called when the monitor begins and again after every kill.
    virtual void start() = 0;
    virtual void stop() = 0;
    // Polled without pause after start() when the monitor begins, until true.
    virtual bool isRunning() = 0;
    // Progress counter the object advances while it works.
    virtual uint32_t heartbeat() = 0;
    // The counter as recorded at the previous tick.
    virtual uint32_t lastHeartbeat() = 0;
    virtual void setLastHeartbeat(uint32_t value) = 0;
    // Told once for every tick that finds no progress.
    virtual void onHeartbeatMissed() = 0;
    // Consecutive ticks without progress.
    virtual int32_t missCount() = 0;
    virtual void setMissCount(int32_t value) = 0;
    // Told when a refresh request arrives from the supervisor.
    virtual void onRefresh() = 0;
};
