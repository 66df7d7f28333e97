// Supervised object for the monitor tests: the test moves its heartbeat and reads back every call
// the monitor made, in order, from a shared log.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "MonitoredObject.h"

class CallLog {
  public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> hold(lock);
        entries.push_back(entry);
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> hold(lock);
        std::vector<std::string> out;
        out.swap(entries);
        return out;
    }

  private:
    std::mutex lock;
    std::vector<std::string> entries;
};

class FakeMonitored : public MonitoredObject {
  public:
    FakeMonitored(std::string objectName, CallLog* callLog)
        : objectName(std::move(objectName)), log(callLog) {}

    std::string name() override { return objectName; }
    void start() override {
        note("start");
        running = true;
        polls = 0;
    }
    void stop() override {
        note("stop");
        running = false;
    }
    bool isRunning() override {
        ++polls;
        return running && polls >= pollsUntilRunning;
    }
    uint32_t heartbeat() override {
        note("heartbeat");
        return beat;
    }
    uint32_t lastHeartbeat() override { return last; }
    void setLastHeartbeat(uint32_t value) override { last = value; }
    void onHeartbeatMissed() override {
        note("missed");
        ++missedCalls;
    }
    int32_t missCount() override { return misses; }
    void setMissCount(int32_t value) override { misses = value; }
    void onRefresh() override { note("refresh"); }

    void note(const char* what) {
        if (log != nullptr) log->add(objectName + ":" + what);
    }

    std::string objectName;
    CallLog* log;
    bool running = false;
    int polls = 0;
    int pollsUntilRunning = 1;
    uint32_t beat = 0;
    uint32_t last = 0;
    int32_t misses = 0;
    int missedCalls = 0;
};
