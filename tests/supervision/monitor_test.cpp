// Supervision pass and registry as a state machine: ticks are delivered by calling the pass (or
// the message handler) directly, so no test waits for the 10-second timer.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FakeMonitored.h"
#include "Monitor.h"
#include "ProcessContext.h"

namespace {

using Calls = std::vector<std::string>;

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
    static size_t count(const Calls& calls, const std::string& entry) {
        return static_cast<size_t>(std::count(calls.begin(), calls.end(), entry));
    }

    CallLog log;
    std::vector<MonitoredObject*> added;
};

TEST_F(SupervisionPass, StuckObjectIsKilledAtTheThirdTickAndAgainThreeTicksLater) {
    FakeMonitored stuck("worker", &log);
    add(stuck);

    testing::internal::CaptureStdout();
    supervisionPass();
    supervisionPass();
    EXPECT_EQ(stuck.misses, 2);
    EXPECT_EQ(count(log.take(), "worker:stop"), 0u);

    supervisionPass();
    EXPECT_EQ(log.take(),
              (Calls{"worker:heartbeat", "worker:missed", "worker:stop", "worker:start"}));
    EXPECT_EQ(stuck.misses, 0);
    EXPECT_EQ(stuck.missedCalls, 3);
    // A restart does not reset the recorded counter: the object still has to move past it.
    EXPECT_EQ(stuck.last, 0u);

    supervisionPass();
    supervisionPass();
    EXPECT_EQ(count(log.take(), "worker:stop"), 0u);
    supervisionPass();
    EXPECT_EQ(count(log.take(), "worker:stop"), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "kill worker\nkill worker\n");
}

TEST_F(SupervisionPass, MovingHeartbeatIsRecordedAndNeverKilled) {
    FakeMonitored busy("busy", &log);
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

TEST_F(SupervisionPass, ProgressAfterTwoMissesResetsTheCount) {
    FakeMonitored slow("slow", &log);
    add(slow);
    testing::internal::CaptureStdout();
    supervisionPass();
    supervisionPass();
    slow.beat = 1;
    supervisionPass();
    EXPECT_EQ(slow.misses, 0);
    supervisionPass();
    supervisionPass();
    EXPECT_EQ(slow.misses, 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(SupervisionPass, TwiceRegisteredObjectIsVisitedTwicePerPass) {
    FakeMonitored twice("twice", &log);
    add(twice);
    add(twice);
    ASSERT_EQ(monitoredObjectCount(), 2u);

    // Moving once per tick: the first visit records the counter, the second finds it unchanged.
    testing::internal::CaptureStdout();
    for (int tick = 0; tick < 4; ++tick) {
        twice.beat += 1;
        supervisionPass();
        EXPECT_EQ(twice.misses, 1);
    }
    EXPECT_EQ(twice.missedCalls, 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    log.take();

    // Stuck: two misses per pass, so the kill comes on the second pass, and the second visit of
    // that pass counts the restarted object's first miss.
    twice.misses = 0;
    twice.last = twice.beat;
    testing::internal::CaptureStdout();
    supervisionPass();
    EXPECT_EQ(twice.misses, 2);
    supervisionPass();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "kill twice\n");
    EXPECT_EQ(twice.misses, 1);
}

TEST_F(SupervisionPass, RemovalTakesOutOnlyTheFirstEntryAndKeepsTheOrder) {
    FakeMonitored a("a", &log);
    FakeMonitored b("b", &log);
    FakeMonitored c("c", nullptr);
    add(a);
    add(b);
    add(a);

    removeMonitoredObject(&a);
    ASSERT_EQ(monitoredObjectCount(), 2u);
    removeMonitoredObject(&c);  // absent: nothing changes
    ASSERT_EQ(monitoredObjectCount(), 2u);

    a.beat = 1;
    b.beat = 1;
    supervisionPass();
    EXPECT_EQ(log.take(), (Calls{"b:heartbeat", "b:heartbeat", "a:heartbeat", "a:heartbeat"}));
    added = {&b, &a};
}

TEST_F(SupervisionPass, MonitorStartWaitsForEachObjectInRegistrationOrder) {
    FakeMonitored first("first", &log);
    FakeMonitored second("second", &log);
    first.pollsUntilRunning = 5;
    add(first);
    add(second);
    monitorStartObjects();
    EXPECT_EQ(log.take(), (Calls{"first:start", "second:start"}));
    EXPECT_EQ(first.polls, 5);
    EXPECT_EQ(second.polls, 1);
}

TEST_F(SupervisionPass, EveryMessageCountsButOnlyATickRunsThePass) {
    FakeMonitored object("object", &log);
    object.beat = 3;
    add(object);
    ProcessStatusRecord record{};
    record.msgCount = 0xFFFFFFFEu;

    monitorHandleMessage(&record, 2);
    EXPECT_EQ(record.msgCount, 0xFFFFFFFFu);
    EXPECT_TRUE(log.take().empty());

    monitorHandleMessage(&record, kTickMsgType);
    EXPECT_EQ(record.msgCount, 0u);  // wraps
    EXPECT_EQ(object.last, 3u);

    // Without a record the message is still handled.
    object.beat = 4;
    monitorHandleMessage(nullptr, kTickMsgType);
    EXPECT_EQ(object.last, 4u);
    // The fields the monitor does not own stay as they were.
    EXPECT_EQ(record.state, 0u);
    EXPECT_EQ(record.pid, 0);
}

}  // namespace
