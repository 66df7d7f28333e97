// Supervision pass and registry as a state machine: ticks are delivered by calling the pass (or
// the message handler) directly, so no test waits for the 10-second timer.
#include <gtest/gtest.h>

#include <algorithm>

#include "FakeMonitored.h"
#include "Monitor.h"
#include "ProcessContext.h"

namespace {

class SupervisionPass : public ::testing::Test {
  protected:
    void TearDown() override {
        for (MonitoredObject* object : added) removeMonitoredObject(object);
        EXPECT_EQ(monitoredObjectCount(), 0u) << "registry left dirty";
    }
    void add(FakeMonitored& object) {
        addMonitoredObject(&object);
        added.push_back(&object);
    }
    static long count(const CallLog& calls, const char* entry) {
        return std::count(calls.begin(), calls.end(), entry);
    }
    void passes(int n) {
        for (int i = 0; i < n; ++i) supervisionPass();
    }

    CallLog log;
    std::vector<MonitoredObject*> added;
};

TEST_F(SupervisionPass, StuckObjectIsKilledAtTheThirdTickAndAgainThreeTicksLater) {
    FakeMonitored stuck("worker", &log);
    add(stuck);
    testing::internal::CaptureStdout();
    passes(2);
    EXPECT_EQ(stuck.misses, 2);
    EXPECT_EQ(count(takeCalls(log), "worker:stop"), 0);

    supervisionPass();
    EXPECT_EQ(takeCalls(log),
              (CallLog{"worker:heartbeat", "worker:missed", "worker:stop", "worker:start"}));
    EXPECT_EQ(stuck.misses, 0);
    EXPECT_EQ(stuck.missedCalls, 3);

    // The recorded counter was not reset by the restart: still no progress, killed again on the
    // third tick after it.
    passes(2);
    EXPECT_EQ(count(takeCalls(log), "worker:stop"), 0);
    passes(1);
    EXPECT_EQ(count(takeCalls(log), "worker:stop"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "kill worker\nkill worker\n");
}

TEST_F(SupervisionPass, MovingHeartbeatIsRecordedAndNeverKilled) {
    FakeMonitored busy("busy", &log);
    busy.misses = 2;  // progress after two misses resets the count
    add(busy);
    testing::internal::CaptureStdout();
    for (int tick = 0; tick < 10; ++tick) {
        busy.beat += 7;
        supervisionPass();
        EXPECT_EQ(busy.misses, 0);
        EXPECT_EQ(busy.last, busy.beat);
    }
    EXPECT_EQ(busy.missedCalls, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(SupervisionPass, TwiceRegisteredObjectIsVisitedTwicePerPass) {
    FakeMonitored twice("twice", &log);
    add(twice);
    add(twice);
    // Moving once per tick: the first visit records the counter, the second finds it unchanged.
    for (int tick = 0; tick < 4; ++tick) {
        twice.beat += 1;
        supervisionPass();
        EXPECT_EQ(twice.misses, 1);
    }
    // Stuck: two misses per pass, so the kill comes on the second pass, and the second visit of
    // that pass counts the restarted object's first miss.
    twice.misses = 0;
    testing::internal::CaptureStdout();
    passes(2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "kill twice\n");
    EXPECT_EQ(twice.misses, 1);
}

TEST_F(SupervisionPass, RemovalTakesOutOnlyTheFirstEntryAndKeepsTheOrder) {
    FakeMonitored a("a", &log), b("b", &log), absent("absent", nullptr);
    add(a);
    add(b);
    add(a);
    removeMonitoredObject(&a);
    removeMonitoredObject(&absent);
    added = {&b, &a};
    ASSERT_EQ(monitoredObjectCount(), 2u);
    a.beat = b.beat = 1;
    supervisionPass();
    EXPECT_EQ(takeCalls(log),
              (CallLog{"b:heartbeat", "b:heartbeat", "a:heartbeat", "a:heartbeat"}));
}

TEST_F(SupervisionPass, MonitorStartWaitsForEachObjectInRegistrationOrder) {
    FakeMonitored first("first", &log), second("second", &log);
    first.pollsUntilRunning = 5;
    add(first);
    add(second);
    monitorStartObjects();
    EXPECT_EQ(takeCalls(log), (CallLog{"first:start", "second:start"}));
    EXPECT_EQ(first.polls, 5);
}

TEST_F(SupervisionPass, EveryMessageCountsButOnlyATickRunsThePass) {
    FakeMonitored object("object", &log);
    object.beat = 3;
    add(object);
    ProcessStatusRecord record{};
    record.msgCount = 0xFFFFFFFEu;
    monitorHandleMessage(&record, 2);
    EXPECT_EQ(record.msgCount, 0xFFFFFFFFu);
    EXPECT_TRUE(log.empty());

    monitorHandleMessage(&record, kTickMsgType);
    EXPECT_EQ(record.msgCount, 0u);  // wraps
    EXPECT_EQ(object.last, 3u);
    object.beat = 4;
    monitorHandleMessage(nullptr, kTickMsgType);  // no record: still handled
    EXPECT_EQ(object.last, 4u);
    EXPECT_EQ(record.state, 0u);
    EXPECT_EQ(record.pid, 0);
}

}  // namespace
