// Stand-in for the external supervisor process: owns the status record and a queue for fault
// reports, shows the daemon's liveness fields, sends refresh requests and fills the map table.
//
// Command line (used by the end-to-end harness; keep it stable):
//   supervisor_emu init
//       Create the status segment (key 0x400007, 24 bytes) if absent, create a private queue for
//       fault reports, write its id into supervisorQueueId and print "supervisorQueueId=<id>".
//       Run it before the daemon starts: the daemon reads supervisorQueueId once, at start-up.
//   supervisor_emu status
//       Print one line "pid=%d state=%u monitorUp=%u msgCount=%u supervisorQueueId=%d
//       monitorQueueId=%d" from the record.
//   supervisor_emu watch [--seconds N]
//       Print that status line once a second and every fault report that arrives on the
//       supervisor's queue ("fault report type=0x20001"), for N seconds or for ever.
//   supervisor_emu faults [--wait-ms N]
//       Take every message off the supervisor's queue, print each as "fault report type=0x%lx",
//       then "faults=<count>". Waits up to N ms (default 0) for the first one.
//   supervisor_emu refresh
//       Send a refresh request (type 0x30000, empty body) to the queue named by monitorQueueId.
//   supervisor_emu map KEY=VALUE...
//       Fill the map table segment (key 0x400009, 72 bytes) slot by slot in the order given (at
//       most eight pairs, numbers in C notation: 12, 0x1c); the remaining slots are cleared.
// Exit status: 0 on success, 1 when a segment or queue cannot be had, 2 on a usage error.
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "BlemacMapIpManager.h"
#include "FaultTrap.h"
#include "Monitor.h"
#include "ProcessContext.h"

namespace {

struct EmptyMsg {
    long mtype;
    char body[1];
};

int usage() {
    fputs(
        "usage: supervisor_emu init | status | watch [--seconds N] | faults [--wait-ms N] |\n"
        "       refresh | map KEY=VALUE...\n",
        stderr);
    return 2;
}

ProcessStatusRecord* attachStatus() {
    int id = shmget(kStatusShmKey, sizeof(ProcessStatusRecord), IPC_CREAT | 0666);
    if (id == -1) {
        perror("supervisor_emu: shmget 0x400007");
        return nullptr;
    }
    void* at = shmat(id, nullptr, 0);
    if (at == reinterpret_cast<void*>(-1)) {
        perror("supervisor_emu: shmat 0x400007");
        return nullptr;
    }
    return static_cast<ProcessStatusRecord*>(at);
}

void printStatus(const ProcessStatusRecord* r) {
    printf("pid=%d state=%u monitorUp=%u msgCount=%u supervisorQueueId=%d monitorQueueId=%d\n",
           statusLoad(r->pid), statusLoad(r->state),
           static_cast<unsigned>(statusLoad(r->monitorUp)), statusLoad(r->msgCount),
           statusLoad(r->supervisorQueueId), statusLoad(r->monitorQueueId));
    fflush(stdout);
}

// Takes every message now on the queue; returns how many.
int drainReports(int queueId) {
    int count = 0;
    for (;;) {
        EmptyMsg msg = {0, {0}};
        if (msgrcv(queueId, &msg, 0, 0, IPC_NOWAIT | MSG_NOERROR) == -1) {
            if (errno == EINTR) continue;
            return count;
        }
        printf("fault report type=0x%lx\n", msg.mtype);
        fflush(stdout);
        ++count;
    }
}

long optionValue(int argc, char** argv, const char* name, long fallback) {
    for (int i = 2; i + 1 < argc; ++i) {
        if (strcmp(argv[i], name) == 0) return strtol(argv[i + 1], nullptr, 0);
    }
    return fallback;
}

void sleepMs(long ms) {
    timespec t = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) == -1 && errno == EINTR) {
    }
}

int cmdInit() {
    ProcessStatusRecord* r = attachStatus();
    if (r == nullptr) return 1;
    int queueId = msgget(IPC_PRIVATE, IPC_CREAT | 0666);
    if (queueId == -1) {
        perror("supervisor_emu: msgget");
        return 1;
    }
    statusStore(r->supervisorQueueId, static_cast<int32_t>(queueId));
    printf("supervisorQueueId=%d\n", queueId);
    return 0;
}

int cmdStatus() {
    ProcessStatusRecord* r = attachStatus();
    if (r == nullptr) return 1;
    printStatus(r);
    return 0;
}

int cmdWatch(int argc, char** argv) {
    ProcessStatusRecord* r = attachStatus();
    if (r == nullptr) return 1;
    long seconds = optionValue(argc, argv, "--seconds", -1);
    for (long s = 0; seconds < 0 || s < seconds; ++s) {
        printStatus(r);
        drainReports(statusLoad(r->supervisorQueueId));
        sleepMs(1000);
    }
    return 0;
}

int cmdFaults(int argc, char** argv) {
    ProcessStatusRecord* r = attachStatus();
    if (r == nullptr) return 1;
    long waitMs = optionValue(argc, argv, "--wait-ms", 0);
    int queueId = statusLoad(r->supervisorQueueId);
    int count = drainReports(queueId);
    for (long waited = 0; count == 0 && waited < waitMs; waited += 10) {
        sleepMs(10);
        count = drainReports(queueId);
    }
    printf("faults=%d\n", count);
    return 0;
}

int cmdRefresh() {
    ProcessStatusRecord* r = attachStatus();
    if (r == nullptr) return 1;
    EmptyMsg msg = {kRefreshMsgType, {0}};
    if (msgsnd(statusLoad(r->monitorQueueId), &msg, 0, IPC_NOWAIT) == -1) {
        perror("supervisor_emu: msgsnd refresh");
        return 1;
    }
    return 0;
}

int cmdMap(int argc, char** argv) {
    if (argc - 2 > 8) return usage();
    uint32_t keys[8] = {};
    uint32_t values[8] = {};
    for (int i = 2; i < argc; ++i) {
        char* end = nullptr;
        unsigned long key = strtoul(argv[i], &end, 0);
        if (end == argv[i] || *end != '=') return usage();
        char* valueText = end + 1;
        unsigned long value = strtoul(valueText, &end, 0);
        if (end == valueText || *end != '\0') return usage();
        keys[i - 2] = static_cast<uint32_t>(key);
        values[i - 2] = static_cast<uint32_t>(value);
    }
    int id = shmget(kMapTableShmKey, kMapTableSize, IPC_CREAT | 0666);
    void* at = id == -1 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (at == reinterpret_cast<void*>(-1)) {
        perror("supervisor_emu: map table 0x400009");
        return 1;
    }
    auto* table = static_cast<BlemacMapTable*>(at);
    for (int i = 0; i < 8; ++i) {
        __atomic_store_n(&table->values[i], values[i], __ATOMIC_RELAXED);
        __atomic_store_n(&table->keys[i], keys[i], __ATOMIC_RELAXED);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const char* cmd = argv[1];
    if (strcmp(cmd, "init") == 0) return cmdInit();
    if (strcmp(cmd, "status") == 0) return cmdStatus();
    if (strcmp(cmd, "watch") == 0) return cmdWatch(argc, argv);
    if (strcmp(cmd, "faults") == 0) return cmdFaults(argc, argv);
    if (strcmp(cmd, "refresh") == 0) return cmdRefresh();
    if (strcmp(cmd, "map") == 0) return cmdMap(argc, argv);
    return usage();
}
