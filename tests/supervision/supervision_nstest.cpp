// Supervision: the monitor's pass over its registry as a state machine (passes called directly),
// its queue and refresh against the timer manager, the fault trap in forked children, and map table
// lookups in a real segment. Private namespaces: the segment and queue keys are fixed.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "BlemacMapIpManager.h"
#include "FaultTrap.h"
#include "Monitor.h"
#include "MonitoredObject.h"
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

namespace {

using s2etest::captureStdout;
using Calls = std::vector<std::string>;

// A supervised object whose heartbeat the test moves; it logs the calls that matter.
struct Fake : MonitoredObject {
    Fake(std::string n, Calls* l) : id(std::move(n)), log(l) {}
    std::string name() override { return id; }
    void start() override { note("start"), running = true, polls = 0; }
    void stop() override { note("stop"), running = false; }
    bool isRunning() override { return running && ++polls >= pollsUntilRunning; }
    uint32_t heartbeat() override { return note("heartbeat"), beat; }
    uint32_t lastHeartbeat() override { return last; }
    void setLastHeartbeat(uint32_t value) override { last = value; }
    void onHeartbeatMissed() override { note("missed"); }
    int32_t missCount() override { return misses; }
    void setMissCount(int32_t value) override { misses = value; }
    void onRefresh() override { note("refresh"); }
    void note(const char* what) {
        if (log != nullptr) log->push_back(id + ":" + what);
    }
    std::string id;
    Calls* log;
    bool running = false;
    int polls = 0, pollsUntilRunning = 1;
    uint32_t beat = 0, last = 0;
    int32_t misses = 0;
};

class Pass : public ::testing::Test {
  protected:
    void TearDown() override {
        while (monitoredObjectCount() > 0) removeMonitoredObject(added.back()), added.pop_back();
    }
    void add(Fake& object) { addMonitoredObject(&object), added.push_back(&object); }
    long count(const char* entry) { return std::count(log.begin(), log.end(), entry); }
    Calls log;
    std::vector<MonitoredObject*> added;
};

// A stuck heartbeat is missed on every pass; the third miss stops and restarts the object, and
// the recorded counter is kept, so the next kill comes three passes later. A moving one never is.
TEST_F(Pass, StuckObjectsAreRestartedEveryThirdPass) {
    Fake stuck("stuck", &log), busy("busy", &log), twice("twice", &log);
    busy.misses = 2;  // progress resets the count
    add(stuck), add(busy), add(twice), add(twice);
    std::string kills;
    for (int pass = 1; pass <= 6; ++pass) {
        busy.beat += 7, twice.beat += 1;  // twice: the second visit finds it unchanged
        kills += captureStdout([] { supervisionPass(); });
        EXPECT_EQ(count("stuck:stop"), pass / 3) << pass;
        EXPECT_EQ(count("stuck:missed"), pass) << pass;
        EXPECT_EQ(busy.misses + (busy.last == busy.beat), 1) << pass;
        EXPECT_EQ(twice.misses, 1) << pass;
    }
    EXPECT_EQ(kills, "kill stuck\nkill stuck\n");
    EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 8),
              (Calls{"stuck:heartbeat", "stuck:missed", "busy:heartbeat", "busy:heartbeat",
                     "twice:heartbeat", "twice:heartbeat", "twice:heartbeat", "twice:missed"}));
    EXPECT_EQ(count("busy:missed") + count("twice:stop"), 0);
    twice.misses = 0;  // stuck and registered twice: two misses per pass, killed on the second
    kills = captureStdout([] { supervisionPass(), supervisionPass(); });
    EXPECT_EQ(count("twice:stop"), 1);
}

TEST_F(Pass, RegistryOrderStartAndMessages) {
    Fake a("a", &log), b("b", &log), absent("absent", nullptr);
    a.pollsUntilRunning = 5;
    add(a), add(b), add(a);
    removeMonitoredObject(&a);  // only the first entry goes
    removeMonitoredObject(&absent);
    added = {&b, &a};
    monitorStartObjects();  // waits for each, in order
    EXPECT_EQ(a.polls, 5);
    ProcessStatusRecord record{};
    record.msgCount = 0xFFFFFFFEu;
    monitorHandleMessage(&record, 2);  // every message counts, only a tick runs the pass
    EXPECT_EQ(record.msgCount, 0xFFFFFFFFu);
    a.beat = b.beat = 1;
    monitorHandleMessage(&record, kTickMsgType);
    monitorHandleMessage(nullptr, kTickMsgType);
    EXPECT_EQ(record.msgCount + record.state + uint32_t(record.pid), 0u);
    EXPECT_EQ(log, (Calls{"b:start", "a:start", "b:heartbeat", "b:heartbeat", "a:heartbeat",
                          "a:heartbeat", "b:heartbeat", "b:missed", "a:heartbeat", "a:missed"}));
}

// Each fired timer sets its bit; called on the manager thread.
struct Bits : TimerHandler {
    void onTimer(uint32_t timerId) override { fired |= 1u << timerId; }
    std::atomic<uint32_t> fired{0};
} timers;

// Its refresh arms a timer: had the timers been cleared before the objects were told, it would
// fire.
struct Arming : Fake {
    using Fake::Fake;
    void onRefresh() override {
        Fake::onRefresh();
        TimerManager::instance()->addTimer(&timers, TimerManager::TIMER_ONCE, 100, 2);
    }
};

TEST_F(Pass, RefreshReachesEveryObjectThenClearsTheTimers) {
    Arming first("first", &log);
    Fake second("second", &log);
    add(first), add(second);
    TimerManager::instance()->addTimer(&timers, TimerManager::TIMER_ONCE, 100, 1);
    ProcessStatusRecord record{};
    monitorHandleMessage(&record, kRefreshMsgType);
    EXPECT_EQ(record.msgCount, 1u);
    EXPECT_EQ(log, (Calls{"first:refresh", "second:refresh"}));
    TimerManager::instance()->addTimer(&timers, TimerManager::TIMER_ONCE, 100, 3);
    QueueMsg tick{};
    tick.mtype = 1;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TimerManager::_pMsgQueue.load()->send(tick), 0);  // one pass over every entry
    for (int i = 0; i < 2000 && timers.fired == 0; ++i) usleep(5000);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(timers.fired, 1u << 3);
}

TEST(MonitorQueue, BodiesAreTakenOffAndTicksPosted) {
    s2etest::Queue queue;
    struct {
        long mtype;
        char body[16];
    } withBody{kRefreshMsgType, "payload"}, empty{kTickMsgType, {}}, other{2, "x"};
    ASSERT_EQ(msgsnd(queue.id, &withBody, 16, 0) + msgsnd(queue.id, &empty, 0, 0) +
                  msgsnd(queue.id, &other, 4, 0),
              0);
    std::vector<long> types(3);
    for (long& type : types) ASSERT_TRUE(monitorReceive(queue.id, &type));
    EXPECT_EQ(types, (std::vector<long>{kRefreshMsgType, kTickMsgType, 2}));
    EXPECT_FALSE(monitorReceive(-1, &types[0]));
    monitorQueueId = queue.id;
    EXPECT_EQ(captureStdout([] { TimerHandle(sigval{}); }), "");
    ASSERT_EQ(msgrcv(queue.id, &empty, 0, 0, IPC_NOWAIT), 0);  // size 0: only an empty body fits
    EXPECT_EQ(empty.mtype, kTickMsgType);
    monitorQueueId = -1;
    EXPECT_EQ(captureStdout([] { TimerHandle(sigval{}); }), "TimerHandle");
}

// Empty fault reports on the queue, or -1 for anything else.
int reports(const s2etest::Queue& queue) {
    struct {
        long mtype;
        char body[8];
    } msg;
    int count = 0;
    while (msgrcv(queue.id, &msg, 0, 0, IPC_NOWAIT) == 0)
        count += msg.mtype == kFaultReportMsgType ? 1 : 1000;
    return errno == ENOMSG ? count : -1;
}

TEST(FaultTrap, EachSignalPrintsBannerAndTextReportsOnceAndExitsZero) {
    const int signals[] = {SIGABRT, SIGFPE, SIGILL, SIGSEGV};
    for (int i = 0; i < 4; ++i) {
        s2etest::Queue queue;
        s2etest::Child child([&] {
            FaultTrap trap(queue.id);
            if (signals[i] != SIGSEGV) raise(signals[i]);
            // A page with no access at all: a real fault, not one a sanitizer reports first.
            *static_cast<volatile int*>(
                mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
        });
        EXPECT_EQ(child.status(), 0);
        EXPECT_EQ(child.output(), "Trap System Abnormal  sig = " + std::to_string(signals[i]) +
                                      " pid = " + std::to_string(child.pid) + " **********\n" +
                                      kFaultMessages[i] + "\n");
        EXPECT_EQ(reports(queue), 1);
    }
    EXPECT_STREQ(kFaultMessages[1], "SIGFPE: Arithmetric exception--Terminate with core dump");
}

// In a fresh process of its own: a child forked here starts a thread, which the thread sanitizer
// refuses after a fork from a process with threads (the timer manager's, made by another test).
TEST(FaultTrap, FullOrMissingQueueAndTwoFaultingThreads) {
    if (getenv("S2E_CHILD") == nullptr) {
        EXPECT_EQ(s2etest::rerunCurrentTest("faults"), 0);
        return;
    }
    s2etest::Queue full;
    msqid_ds info = s2etest::queueStat(full.id);
    info.msg_qbytes = 1;  // room for a single message
    ASSERT_EQ(msgctl(full.id, IPC_SET, &info), 0);
    struct {
        long mtype;
        char body[1];
    } filler = {5, {'x'}};
    ASSERT_EQ(msgsnd(full.id, &filler, 1, IPC_NOWAIT), 0);
    for (int queueId : {full.id, -1}) {
        s2etest::Child child([&] {
            FaultTrap trap(queueId);
            raise(SIGABRT);
        });
        EXPECT_EQ(child.status(), 0) << queueId;
        EXPECT_NE(child.output().find(kFaultMessages[0]), std::string::npos);
    }
    s2etest::Queue queue;
    s2etest::Child child([&] {
        FaultTrap trap(queue.id);
        pthread_barrier_t barrier;
        pthread_barrier_init(&barrier, nullptr, 2);
        std::thread other([&] { pthread_barrier_wait(&barrier), raise(SIGILL); });
        pthread_barrier_wait(&barrier);
        raise(SIGFPE);
        other.join();
    });
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(reports(queue), 1);
    int texts = 0;  // either thread may win; one fault text follows the banners
    for (const char* text : kFaultMessages) texts += child.output().find(text) != std::string::npos;
    EXPECT_EQ(texts, 1) << child.output();
}

void removeSegment() {
    const int id = shmget(kMapTableShmKey, 0, 0);
    if (id != -1) shmctl(id, IPC_RMID, nullptr);
}

// Written the way the owning process would, through its own read-write attachment.
TEST(MapTable, LookupsInTheOwnersSegment) {
    removeSegment();
    BlemacMapIpManager manager;  // creates the segment
    auto* owner = static_cast<BlemacMapTable*>(shmat(shmget(kMapTableShmKey, 72, 0), nullptr, 0));
    ASSERT_NE(owner, reinterpret_cast<BlemacMapTable*>(-1));
    EXPECT_EQ(manager.lookup(1), kMapLookupMiss);
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
    EXPECT_EQ(BlemacMapIpManager::instance()->lookup(77), 7000u);
    EXPECT_EQ(BlemacMapIpManager::instance(), BlemacMapIpManager::instance());
    shmdt(owner);
    removeSegment();
    const int small = shmget(kMapTableShmKey, 16, IPC_CREAT | 0666);  // too small for the table
    std::string text = captureStdout([] {
        BlemacMapIpManager unattached;
        EXPECT_EQ(unattached.attach(), nullptr);
        for (uint32_t key : {0u, 1u, 0xFFFFFFFFu})
            EXPECT_EQ(unattached.lookup(key), kMapLookupMiss);
    });
    EXPECT_EQ(text,
              "BlemacMapIpManager: map table 0x400009 not attached\n"
              "BlemacMapIpManager: map table 0x400009 not attached\n");
    shmctl(small, IPC_RMID, nullptr);
}

}  // namespace
