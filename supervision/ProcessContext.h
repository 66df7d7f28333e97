// Process context: ties the process to the external supervisor through the shared status record,
// the monitor queue, the fault trap and the monitor's tick timer.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

class FaultTrap;
class IntervalTimer;

// Status record shared with the supervisor process (System V shared memory, key 0x400007).
// Little-endian, naturally aligned; the layout is fixed by the other side.
struct ProcessStatusRecord {
    uint32_t msgCount;          // messages received by the monitor (liveness counter)
    uint32_t state;             // 2 at process start, 0 once the monitor runs
    uint8_t monitorUp;          // 1 once the monitor runs
    uint8_t reserved[3];        // never written
    int32_t supervisorQueueId;  // the supervisor's queue; read once at start
    int32_t monitorQueueId;     // the queue the monitor listens on
    int32_t pid;
};
static_assert(sizeof(ProcessStatusRecord) == 24, "status record is 24 bytes");
static_assert(offsetof(ProcessStatusRecord, msgCount) == 0, "msgCount at 0");
static_assert(offsetof(ProcessStatusRecord, state) == 4, "state at 4");
static_assert(offsetof(ProcessStatusRecord, monitorUp) == 8, "monitorUp at 8");
static_assert(offsetof(ProcessStatusRecord, supervisorQueueId) == 12, "supervisorQueueId at 12");
static_assert(offsetof(ProcessStatusRecord, monitorQueueId) == 16, "monitorQueueId at 16");
static_assert(offsetof(ProcessStatusRecord, pid) == 20, "pid at 20");

constexpr key_t kStatusShmKey = 0x400007;
constexpr int32_t kStatePreparing = 2;
constexpr int32_t kStateRunning = 0;
constexpr int32_t kTickPeriodMs = 10000;

// The record is shared with another process and written without a lock: every field access is a
// single aligned load or store (relaxed: no field orders any other memory).
template <typename T>
inline T statusLoad(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <typename T>
inline void statusStore(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

class ProcessContext {
  public:
    // The single context, created on the first call (from main, on the main thread, no lock).
    static ProcessContext* instance();

    ProcessContext(const ProcessContext&) = delete;
    ProcessContext& operator=(const ProcessContext&) = delete;

    FaultTrap* trap;
    // Null when the segment could not be created or attached: nothing is then written to it.
    ProcessStatusRecord* status;
    int32_t statusShmId;
    IntervalTimer* tickTimer;

  private:
    ProcessContext();
    // Never destroyed: the timer thread and the monitor use the context until the process ends.
    ~ProcessContext() = default;
};
