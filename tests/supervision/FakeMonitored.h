// Supervised object for the monitor tests: the test moves its heartbeat and reads back, in order,
// every call the monitor made that matters to the state machine.
#pragma once

#include <string>
#include <vector>

#include "MonitoredObject.h"

using CallLog = std::vector<std::string>;

class FakeMonitored : public MonitoredObject {
  public:
    FakeMonitored(std::string objectName, CallLog* callLog)
        : id(std::move(objectName)), log(callLog) {}

    std::string name() override { return id; }
    void start() override { note("start"), running = true, polls = 0; }
    void stop() override { note("stop"), running = false; }
    bool isRunning() override { return running && ++polls >= pollsUntilRunning; }
    uint32_t heartbeat() override { return note("heartbeat"), beat; }
    uint32_t lastHeartbeat() override { return last; }
    void setLastHeartbeat(uint32_t value) override { last = value; }
    void onHeartbeatMissed() override { note("missed"), ++missedCalls; }
    int32_t missCount() override { return misses; }
    void setMissCount(int32_t value) override { misses = value; }
    void onRefresh() override { note("refresh"); }

    void note(const char* what) {
        if (log != nullptr) log->push_back(id + ":" + what);
    }

    std::string id;
    CallLog* log;
    bool running = false;
    int polls = 0, pollsUntilRunning = 1, missedCalls = 0;
    uint32_t beat = 0, last = 0;
    int32_t misses = 0;
};

// Takes the calls logged so far.
inline CallLog takeCalls(CallLog& log) {
    CallLog out;
    out.swap(log);
    return out;
}
