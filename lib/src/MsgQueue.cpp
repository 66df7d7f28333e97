// System V message queue wrapper and the process's queue key sources.
#include "MsgQueue.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>

namespace {

constexpr uint32_t kFirstCounterKey = 0x200000;
constexpr uint32_t kFirstSequenceKey = 0x310000;
constexpr uint32_t kSkippedSequenceKey = 0x320000;

// Room for draining: the type word and 2048 bytes; anything longer stops the draining.
constexpr size_t kDrainRoom = 2048;
struct DrainRecord {
    long mtype;
    char data[kDrainRoom];
};

// Largest size receive asks for after mtype (dataLen 0 or 2048 and more).
constexpr size_t kFullReceiveSize = 2056;
static_assert(sizeof(QueueMsg) - offsetof(QueueMsg, dataLen) >= kFullReceiveSize,
              "a receive must always fit in the record");

}  // namespace

uint32_t queueKeyCounter = kFirstCounterKey;
ThreadLocker* queueKeyLock = new ThreadLocker;

uint32_t allocQueueKey() {
    queueKeyLock->lock();
    const uint32_t key = queueKeyCounter;
    queueKeyCounter = key - 1;
    queueKeyLock->unlock();
    return key;
}

int32_t openQueue(uint32_t key) {
    const int32_t id = msgget(static_cast<key_t>(key), kQueueCreateFlags);
    if (id == -1) {
        printf("create msg queue failed! key=%d \n", static_cast<int>(key));
        return -1;
    }
    // A queue found again from an earlier run may still hold its messages; drop them. A message
    // longer than the scratch room, or one with an empty body, ends the draining.
    DrainRecord scratch;
    while (msgrcv(id, &scratch, kDrainRoom, 0, IPC_NOWAIT) > 0) {
    }
    return id;
}

MsgQueue::MsgQueue(int64_t msgType, int32_t rcvFlags)
    : _msgID(-1), rcvFlags(rcvFlags), msgType(msgType) {
    _msgID = openQueue(allocQueueKey());
}

MsgQueue::MsgQueue(int32_t msgID, int64_t msgType, int32_t rcvFlags)
    : _msgID(msgID), rcvFlags(rcvFlags), msgType(msgType) {
    if (msgID == -1) puts("create msg queue failed! _msgID=-1 ");
}

int32_t MsgQueue::send(const QueueMsg& msg) {
    if (_msgID == -1 || rcvFlags == -1) return -1;
    // A length beyond the record would make the kernel read past it.
    if (msg.dataLen > kQueueMsgDataSize) return -1;
    return msgsnd(_msgID, &msg, msg.dataLen + 4, 0) == -1 ? -1 : 0;
}

int32_t MsgQueue::receive(QueueMsg& msg) {
    if (_msgID == -1 || rcvFlags == -1) return -1;
    const size_t size =
        (msg.dataLen >= 1 && msg.dataLen <= 2047) ? msg.dataLen + 8 : kFullReceiveSize;
    return msgrcv(_msgID, &msg, size, msgType, rcvFlags) > 0 ? 0 : -1;
}

int32_t MsgQueue::sendRaw(const void* buffer, int32_t size) {
    return msgsnd(_msgID, buffer, static_cast<size_t>(size), 0) == -1 ? -1 : 0;
}

int32_t MsgQueue::receiveRaw(void* buffer, int32_t& size) {
    const ssize_t count = msgrcv(_msgID, buffer, static_cast<size_t>(size), msgType, rcvFlags);
    size = static_cast<int32_t>(count);
    return count > 0 ? 0 : -1;
}

QueueKeySequence* QueueKeySequence::instance() {
    static QueueKeySequence* sequence = nullptr;
    if (sequence == nullptr) sequence = new QueueKeySequence;
    return sequence;
}

void QueueKeySequence::reset() {
    _nextKey = kFirstSequenceKey;
}

uint32_t QueueKeySequence::nextKey() {
    const uint32_t key = _nextKey;
    _nextKey = (key + 1 == kSkippedSequenceKey) ? kSkippedSequenceKey + 1 : key + 1;
    return key;
}

int32_t QueueKeySequence::createQueue() {
    const int32_t id = msgget(static_cast<key_t>(nextKey()), kQueueCreateFlags);
    if (id == -1) puts("create msg error");
    return id;
}
