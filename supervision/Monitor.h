// Monitor thread and its registry of supervised objects: counts every message on the monitor queue
// in the status record, runs a supervision pass on each tick and a refresh on request.
#pragma once

#include <signal.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "MonitoredObject.h"

class ProcessContext;
struct ProcessStatusRecord;

// Supervision message types (System V messages with an empty body).
constexpr long kTickMsgType = 1;           // timer -> monitor queue: supervision pass
constexpr long kRefreshMsgType = 0x30000;  // supervisor -> monitor queue: refresh
// The fault report (0x20001) goes from the fault trap to the supervisor's queue; see FaultTrap.h.

// Third consecutive tick without progress kills the object.
constexpr int32_t kMissLimit = 2;

// The monitor queue, set by the process context; -1 until then. Relaxed: it is written before the
// timer and the monitor thread that read it are started.
extern std::atomic<int32_t> monitorQueueId;

// Registry. Both take the registry lock; duplicates are allowed, removal takes the first match.
void addMonitoredObject(MonitoredObject* object);
void removeMonitoredObject(MonitoredObject* object);
size_t monitoredObjectCount();

// Creates the detached monitor thread; prints "fail to create monitor thread" and returns -1 when
// that fails, else 0.
int startMonitorThread(ProcessContext* context);
// Thread body (argument: the ProcessContext); never returns.
void* monitorThread(void* context);
// Tick timer callback: posts a tick to the monitor queue.
void TimerHandle(sigval value);

// The monitor's steps, callable one at a time (the thread is a loop over them).
// Starts every registered object and waits for each to run.
void monitorStartObjects();
// One tick: progress check of every registered object, killing those stuck for three ticks.
void supervisionPass();
// onRefresh() on every registered object, then clears the TimerManager's timers.
void refreshPass();
// Takes the next message of any type off queueId; a body, if any, is truncated away. Returns false
// when the receive failed.
bool monitorReceive(int32_t queueId, long* type);
// Counts one received message in the record (if any) and acts on its type.
void monitorHandleMessage(ProcessStatusRecord* status, long type);
