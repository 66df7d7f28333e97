// System V message queues: the length-prefixed record QueueMsg, the MsgQueue wrapper, and the two
// key sources (the locked down-counting queueKeyCounter and the up-counting QueueKeySequence).
#pragma once

#include <cstddef>
#include <cstdint>

#include "ThreadLocker.h"

// Payload room of a QueueMsg: receive asks the kernel for up to 2056 bytes after mtype, and those
// bytes land in dataLen (4) plus data, so data must hold 2052 for every request to fit.
constexpr uint32_t kQueueMsgDataSize = 2052;

// Record as it passes through the kernel queue: mtype at 0 (8 bytes, long on the 64-bit target),
// dataLen at 8, payload at 12. The kernel message size is dataLen + 4.
struct QueueMsg {
    long mtype;
    uint32_t dataLen;
    char data[kQueueMsgDataSize];
};
static_assert(sizeof(long) == 8, "QueueMsg needs an 8-byte message type");
static_assert(offsetof(QueueMsg, dataLen) == 8, "QueueMsg layout");
static_assert(offsetof(QueueMsg, data) == 12, "QueueMsg layout");

// Every queue is created with IPC_CREAT and read/write permission for everybody (octal 01666).
constexpr int kQueueCreateFlags = 0x3B6;

// The queue is not owned: nothing removes it, so it outlives the process and is found again by
// key on the next start.
class MsgQueue {
  public:
    // Takes the next key of queueKeyCounter, creates or opens its queue and empties it.
    MsgQueue(int64_t msgType, int32_t rcvFlags);
    // Wraps an existing identifier; no system call.
    MsgQueue(int32_t msgID, int64_t msgType, int32_t rcvFlags);
    ~MsgQueue() {}

    // 0 on success, -1 on failure (also without a system call when the object is unusable).
    int32_t send(const QueueMsg& msg);
    // msg.dataLen on entry is the caller's payload room; 0 when a message arrived, else -1.
    int32_t receive(QueueMsg& msg);
    // Records in the kernel's own form (type word first); size counts the bytes after the type.
    int32_t sendRaw(const void* buffer, int32_t size);
    // size: room after the type word on entry, the count msgrcv returned on exit.
    int32_t receiveRaw(void* buffer, int32_t& size);

    int32_t getMsgID() const { return _msgID; }

  private:
    int32_t _msgID;
    int32_t rcvFlags;  // -1 marks the object unusable for send and receive
    int64_t msgType;
};

// Down-counting key source, starting at 0x200000; guarded by queueKeyLock, which is created on the
// heap during static initialisation and never destroyed.
extern uint32_t queueKeyCounter;
extern ThreadLocker* queueKeyLock;

// Returns the current counter value and decrements the counter, under queueKeyLock.
uint32_t allocQueueKey();
// Creates or opens the queue of key and empties it; its identifier, or -1 after a message.
int32_t openQueue(uint32_t key);

// Up-counting key source starting at 0x310000 that never hands out 0x320000. No lock: it is
// created and advanced by the start-up thread only.
class QueueKeySequence {
  public:
    static QueueKeySequence* instance();
    void reset();
    uint32_t nextKey();
    // Creates or opens the queue of the next key without emptying it; identifier or -1.
    int32_t createQueue();

  private:
    QueueKeySequence() = default;
    uint32_t _nextKey = 0x310000;
};
