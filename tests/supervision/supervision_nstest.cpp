// Supervision: the monitor's steps called directly, the fault trap in forked children, map table
// lookups in a real segment. Private namespaces: the segment and queue keys are fixed.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <csignal>

#include "BlemacMapIpManager.h"
#include "FaultTrap.h"
#include "Monitor.h"
#include "ProcessContext.h"
#include "TestSupport.h"

// The trap's handler ends with exit(0) and its normal exit processing by design; the thread
// sanitizer would report that as a signal-unsafe call and change the status.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace {

using s2etest::captureStdout;
using Calls = std::vector<std::string>;

// A supervised object, registered while it lives; the test moves its heartbeat and reads its log.
struct Fake : MonitoredObject {
    Fake(std::string n, Calls* l) : id(std::move(n)), log(l) { addMonitoredObject(this); }
    ~Fake() override { removeMonitoredObject(this); }
    std::string name() override { return id; }
    void start() override { note("start"); }
    void stop() override { note("stop"); }
    bool isRunning() override { return true; }
    uint32_t heartbeat() override { return note("heartbeat"), beat; }
    uint32_t lastHeartbeat() override { return last; }
    void setLastHeartbeat(uint32_t value) override { last = value; }
    void onHeartbeatMissed() override { note("missed"); }
    int32_t missCount() override { return misses; }
    void setMissCount(int32_t value) override { misses = value; }
    void onRefresh() override { note("refresh"); }
    void note(const char* what) { log->push_back(id + ":" + what); }
    std::string id;
    Calls* log;
    uint32_t beat = 0, last = 0;
    int32_t misses = 0;
};
long count(const Calls& log, const char* entry) {
    return std::count(log.begin(), log.end(), entry);
}

// A stuck heartbeat is missed on every tick; the third miss stops and restarts the object and the
// recorded counter is kept. Progress resets the count. A refresh reaches every object in order.
TEST(Monitor, StuckObjectsAreRestartedEveryThirdTickAndRefreshReachesAll) {
    Calls log;
    Fake stuck("stuck", &log), busy("busy", &log);
    busy.misses = 2;
    ProcessStatusRecord record{};
    record.msgCount = 0xFFFFFFFEu;
    std::string kills;
    for (int tick = 1; tick <= 6; ++tick) {
        busy.beat += 7;
        kills += captureStdout([&] { monitorHandleMessage(&record, kTickMsgType); });
        EXPECT_EQ(count(log, "stuck:stop"), tick / 3) << tick;
        EXPECT_EQ(count(log, "stuck:missed"), tick) << tick;
        EXPECT_EQ(busy.misses, 0) << tick;
    }
    EXPECT_EQ(kills, "kill stuck\nkill stuck\n");
    EXPECT_EQ(count(log, "busy:missed") + count(log, "busy:stop"), 0);
    log.clear();
    monitorHandleMessage(&record, kRefreshMsgType);
    EXPECT_EQ(log, (Calls{"stuck:refresh", "busy:refresh"}));
    EXPECT_EQ(record.msgCount, 5u) << "every message counts, wrapping";
}

// Each signal's banner, text and report are checked on the daemon; here a full or missing queue,
// which must not hold the dying process up.
TEST(FaultTrap, FullOrMissingQueue) {
    const int full = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    msqid_ds info = s2etest::queueStat(full);
    info.msg_qbytes = 0;  // no room at all
    ASSERT_EQ(msgctl(full, IPC_SET, &info), 0);
    for (int queueId : {full, -1}) {
        s2etest::Child child([&] {
            FaultTrap trap(queueId);
            raise(SIGFPE);
        });
        EXPECT_EQ(child.status(), 0) << queueId;
        EXPECT_NE(child.output().find(kFaultMessages[1]), std::string::npos) << child.output();
    }
    msgctl(full, IPC_RMID, nullptr);
}

// Written the way the owning process would, through its own read-write attachment.
TEST(MapTable, LookupsInTheOwnersSegment) {
    shmctl(shmget(kMapTableShmKey, 0, 0), IPC_RMID, nullptr);
    BlemacMapIpManager manager;  // creates the segment
    auto* owner = static_cast<BlemacMapTable*>(shmat(shmget(kMapTableShmKey, 72, 0), nullptr, 0));
    ASSERT_NE(owner, reinterpret_cast<BlemacMapTable*>(-1));
    owner->values[0] = 1234;  // beside the empty slot's key 0: key 0 never matches
    owner->keys[2] = owner->keys[5] = 0x0A000001;
    owner->values[2] = 22, owner->values[5] = 55;
    owner->keys[7] = 77, owner->values[7] = 7000;
    owner->reserved[0] = owner->reserved[1] = 99;
    const struct {
        uint32_t key, value;
    } rows[] = {{0, kMapLookupMiss}, {0x0A000001, 22}, {77, 7000}, {99, kMapLookupMiss}};
    for (const auto& row : rows) EXPECT_EQ(manager.lookup(row.key), row.value) << row.key;
    owner->keys[2] = 0;  // seen without attaching again
    EXPECT_EQ(manager.lookup(0x0A000001), 55u);
    shmdt(owner);
    shmctl(shmget(kMapTableShmKey, 0, 0), IPC_RMID, nullptr);
}

}  // namespace
