// Supervision: the monitor's steps called directly, the whole of it as a supervisor sees it (keys
// and byte offsets written here), map table lookups in a real segment (the fault trap is checked on
// the daemon). Private namespaces: the segment and queue keys are fixed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <tuple>

#include "BlemacMapIpManager.h"
#include "FaultTrap.h"
#include "Monitor.h"
#include "ProcessContext.h"
#include "TestSupport.h"
#include "TimerManager.h"

// The trap's handler ends with exit(0) and its normal exit processing by design; the thread
// sanitizer would report that as a signal-unsafe call and change the status.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

// The first timer armed in this process: the monitor's tick timer. Released with the count.
itimerspec firstArmed{};
std::atomic<int> armings{0};
extern "C" int timer_settime(timer_t timer, int flags, const itimerspec* value, itimerspec* old) {
    if (armings.load() == 0) firstArmed = *value, armings.store(1, std::memory_order_release);
    using Real = int (*)(timer_t, int, const itimerspec*, itimerspec*);
    return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "timer_settime"))(timer, flags, value, old);
}

namespace {

using s2etest::captureStdout;
using Calls = std::vector<std::string>;

// A supervised object, registered while it lives; the test moves its heartbeat and reads its log.
// Its counter starts again from 0 when it is (re)started.
struct Fake : MonitoredObject {
    Fake(std::string n, Calls* l) : id(std::move(n)), log(l) { addMonitoredObject(this); }
    ~Fake() override { removeMonitoredObject(this); }
    std::string name() override { return id; }
    void start() override { note("start"), beat = 0; }
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

// One object moves at the first tick and then stalls: the monitor records the counter it saw,
// misses it at the next three ticks, kills and restarts it (its counter back at 0, the recorded 5
// kept, so that is progress), then misses it three times more. Progress resets the count. A
// refresh reaches every object in order and clears the timers: a timer added before it no longer
// fires at the tick that fires one added after it.
TEST(Monitor, StalledObjectsAreRestartedEveryThirdMissAndRefreshReachesAllAndClearsTimers) {
    Calls log;
    Fake stalls("stalls", &log), busy("busy", &log);
    busy.misses = 2;
    ProcessStatusRecord record{};
    record.msgCount = 0xFFFFFFFEu;
    // After each tick: the miss count, kills (and restarts) so far, the recorded heartbeat.
    const std::tuple<int32_t, long, uint32_t> after[] = {
        {0, 0, 5}, {1, 0, 5}, {2, 0, 5}, {0, 1, 5}, {0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {0, 2, 0}};
    std::string notices;
    stalls.beat = 5;
    for (size_t tick = 0; tick < std::size(after); ++tick) {
        const auto [misses, kills, recorded] = after[tick];
        SCOPED_TRACE("tick " + std::to_string(tick + 1));
        busy.beat += 7;
        notices += captureStdout([&] { monitorHandleMessage(&record, kTickMsgType); });
        EXPECT_EQ(stalls.misses, misses) << "miss count";
        EXPECT_EQ(count(log, "stalls:stop"), kills) << "kills";
        EXPECT_EQ(count(log, "stalls:start"), kills) << "restarts";
        EXPECT_EQ(stalls.last, recorded) << "recorded heartbeat";
        EXPECT_EQ(busy.misses, 0) << "progress resets the count";
    }
    EXPECT_EQ(notices, "kill stalls\nkill stalls\n");
    EXPECT_EQ(count(log, "stalls:missed"), 6) << "told of every miss";
    EXPECT_EQ(count(log, "busy:stop"), 0) << "moving: never killed";
    struct : TimerHandler {
        void onTimer(uint32_t id) override { ++fired[id]; }
        std::atomic<int> fired[2] = {};
    } timers;
    TimerManager::instance()->addTimer(&timers, 0, 100, 0);  // due at every tick
    log.clear();
    monitorHandleMessage(&record, kRefreshMsgType);
    EXPECT_EQ(log, (Calls{"stalls:refresh", "busy:refresh"}));
    EXPECT_EQ(record.msgCount, 7u) << "every message counts, wrapping";
    TimerManager::instance()->addTimer(&timers, 0, 100, 1);
    QueueMsg tick{1, 0, {}};
    ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);
    for (int i = 0; i < 500 && timers.fired[1] == 0; ++i) usleep(10000);
    TimerManager::instance()->clearTimers();  // takes the list lock: the pass is over
    ASSERT_EQ(timers.fired[1], 1) << "the tick was counted";
    EXPECT_EQ(timers.fired[0], 0) << "the timer added before the refresh was cleared";
}

// What the supervisor relies on, with its keys and offsets: the status record (key 0x400007) that
// it made, the monitor queue (key 0x310000), the tick timer, a refresh request (type 0x30000).
TEST(Supervisor, RecordQueueTicksAndRefresh) {
    IN_A_FRESH_PROCESS("supervised");
    auto* record = static_cast<int32_t*>(shmat(shmget(0x400007, 24, IPC_CREAT | 0666), nullptr, 0));
    auto field = [&](size_t byte) { return __atomic_load_n(record + byte / 4, 0); };
    const int reports = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    __atomic_store_n(record, 41, 0);           // an earlier run's msgCount (byte 0)
    __atomic_store_n(record + 3, reports, 0);  // supervisorQueueId (byte 12)
    ProcessContext* context = ProcessContext::instance();
    context->trap->trapRestore();  // a failed check must not end in the trap's exit(0)
    ASSERT_EQ(startMonitorThread(context), 0);
    for (int i = 0; i < 500 && field(0) == 41; ++i) usleep(10000);
    EXPECT_EQ(field(0), 42) << "msgCount (byte 0): one tick";
    EXPECT_EQ(field(4), 0) << "state (byte 4): running";
    EXPECT_EQ(__atomic_load_n(&reinterpret_cast<uint8_t*>(record)[8], 0), 1)
        << "monitorUp (byte 8)";
    EXPECT_EQ(field(12), reports) << "supervisorQueueId (byte 12) kept";
    EXPECT_EQ(field(16), msgget(0x310000, 0)) << "monitorQueueId (byte 16): key 0x310000";
    EXPECT_EQ(field(20), getpid()) << "pid (byte 20)";
    ASSERT_EQ(armings.load(std::memory_order_acquire), 1) << "the tick timer was armed";
    auto ms = [](const timespec& t) { return t.tv_sec * 1000 + t.tv_nsec / 1e6; };
    EXPECT_EQ(ms(firstArmed.it_value), 100) << "first tick 100 ms after the start";
    EXPECT_EQ(ms(firstArmed.it_interval), 10000) << "then one every 10 seconds";
    EXPECT_EQ(msgget(0x200000, 0), -1) << "no timer manager before a refresh";
    const struct { long type; } refresh{0x30000};
    ASSERT_EQ(msgsnd(field(16), &refresh, 0, 0), 0);
    for (int i = 0; i < 500 && msgget(0x200000, 0) == -1; ++i) usleep(10000);
    EXPECT_NE(msgget(0x200000, 0), -1) << "the refresh made the timer manager (queue 0x200000)";
    EXPECT_EQ(field(0), 43) << "msgCount: the refresh";
}

// Written the way the owning process would: key 0x400009, values from byte 8, keys from byte 40.
TEST(MapTable, LookupsInTheOwnersSegment) {
    shmctl(shmget(0x400009, 0, 0), IPC_RMID, nullptr);
    BlemacMapIpManager manager;  // creates the segment
    auto* owner = static_cast<uint32_t*>(shmat(shmget(0x400009, 72, 0), nullptr, 0));
    ASSERT_NE(owner, reinterpret_cast<uint32_t*>(-1));
    uint32_t *value = owner + 2, *key = owner + 10;
    value[0] = 1234;  // beside the empty slot's key 0: key 0 never matches
    key[2] = key[5] = 0x0A000001;
    value[2] = 22, value[5] = 55;
    key[7] = 77, value[7] = 7000;
    owner[0] = owner[1] = 99;
    const std::pair<uint32_t, uint32_t> rows[] = {// key, value
                                                  {0, 0xFFFFFFFF},
                                                  {0x0A000001, 22},
                                                  {77, 7000},
                                                  {99, 0xFFFFFFFF}};
    for (const auto& [key, value] : rows) EXPECT_EQ(manager.lookup(key), value) << key;
    key[2] = 0;  // seen without attaching again
    EXPECT_EQ(manager.lookup(0x0A000001), 55u);
}

}  // namespace
