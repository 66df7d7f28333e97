// MsgBufferPool: free and all-buffer lists under one mutex, first-fit reuse, growth on demand,
// and the typed header each buffer carries.
#include "MsgBufferPool.h"

#include <pthread.h>

#include <cstring>
#include <list>

#include "debug.h"

namespace {
constexpr uint16_t kDefaultDataSize = 1024;
constexpr uint32_t kTypeErrorLevel = 0x27120000u;  // level 0 with the pool's tag in the high half

struct PoolState {
    // Guards the lists, the counts, the flag, and every buffer's reference count and owner mask.
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::list<MsgBuf> freeList;  // in the order the buffers became free
    uint32_t freeCount = 0;
    std::list<MsgBuf> allList;  // every buffer created, for the info dump and destroyPool
    uint32_t totalCount = 0;
    bool initialised = false;
};

// Built on first use, so a static constructor elsewhere may already use the pool.
PoolState& pool() {
    static PoolState state;
    return state;
}

class PoolLock {
  public:
    PoolLock() { pthread_mutex_lock(&pool().mutex); }
    ~PoolLock() { pthread_mutex_unlock(&pool().mutex); }
    PoolLock(const PoolLock&) = delete;
    PoolLock& operator=(const PoolLock&) = delete;
};

// Header fields are unaligned, so they are written and read byte-wise.
void putU16(uint8_t* at, uint16_t value) {
    memcpy(at, &value, sizeof value);
}
void putU32(uint8_t* at, uint32_t value) {
    memcpy(at, &value, sizeof value);
}
void putPtr(uint8_t* at, const uint8_t* value) {
    memcpy(at, &value, sizeof value);
}
uint32_t getU32(const uint8_t* at) {
    uint32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}
uint8_t* getPtr(const uint8_t* at) {
    uint8_t* value;
    memcpy(&value, at, sizeof value);
    return value;
}

uint8_t* protocolRecord(const MsgBuf& buf) {
    return buf.header + MSGHDR_PROTOCOL_OFFSET;
}
uint8_t* pdataField(const MsgBuf& buf) {
    return protocolRecord(buf) + offsetof(S_ProtocolMsg, pdata);
}

MsgBuf invalidHandle() {
    MsgBuf handle{};
    handle.state = MSGBUF_INVALID;
    return handle;
}

// A new buffer of exactly `dataSize` data bytes, zero-filled; dataSize is within the pool's limit.
MsgBuf createBuffer(uint16_t dataSize, uint32_t refCount, uint16_t state) {
    MsgBuf buf{};
    buf.state = state;
    buf.blockSize = static_cast<uint16_t>(dataSize + MSGBUF_DATA_OFFSET);
    buf.block = new uint8_t[buf.blockSize]();
    buf.header = buf.block + MSGBUF_HEADER_OFFSET;
    buf.trailer = buf.block + MSGBUF_TRAILER_OFFSET;
    buf.data = buf.block + MSGBUF_DATA_OFFSET;
    buf.dataSize = dataSize;
    buf.userLen = 0;
    buf.owners = new uint32_t(0);
    putU32(buf.block + MSGBUF_REFCOUNT_OFFSET, refCount);
    return buf;
}

// Writes the type word and, for the known types, the body length and body pointer.
void writeHeader(MsgBuf& buf, uint16_t msgType) {
    putU32(buf.header + MSGHDR_TYPE_OFFSET, msgType);
    uint16_t bodyLen = 0;
    switch (msgType) {
        case 2:
            putU16(buf.header + MSGHDR_BODYLEN_OFFSET, sizeof(S_ProtocolMsg));
            putPtr(buf.header + MSGHDR_BODY_OFFSET, protocolRecord(buf));
            putU16(protocolRecord(buf) + offsetof(S_ProtocolMsg, pdataLen), 0);
            putPtr(pdataField(buf), buf.data);
            return;
        case 3:
        case 5:
        case 6:
        case 7:
            bodyLen = 76;
            break;
        case 4:
            bodyLen = 262;
            break;
        default:
            debugLog(kTypeErrorLevel, " Msg type error! Fail to allocate msgbuf! \n");
            return;
    }
    putU16(buf.header + MSGHDR_BODYLEN_OFFSET, bodyLen);
    putPtr(buf.header + MSGHDR_BODY_OFFSET, buf.data);
}

// Where a pointer copied from `source` into `target` must point: the same offset in the new block
// when it pointed into the source block (the data area when that offset is past the new block);
// a pointer to memory outside the source block is the user's and is kept. The end of the block
// counts as inside: an empty pdata at the end of a full data area must not keep pointing into a
// block that may be freed.
uint8_t* relocate(uint8_t* pointer, const MsgBuf& source, const MsgBuf& target) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(pointer);
    const uintptr_t sourceStart = reinterpret_cast<uintptr_t>(source.block);
    if (address < sourceStart || address > sourceStart + source.blockSize) return pointer;
    const uintptr_t offset = address - sourceStart;
    if (offset >= target.blockSize) return target.block + MSGBUF_DATA_OFFSET;
    return target.block + offset;
}
}  // namespace

int32_t MsgBufferPool::initPool(uint16_t count, uint16_t dataSize) {
    // Takes the lock although it is meant to run before the pool is shared: it costs nothing here.
    PoolLock lock;
    PoolState& state = pool();
    if (state.initialised) return 0;
    if (dataSize == 0) dataSize = kDefaultDataSize;
    if (dataSize > MSGBUF_MAX_DATA_SIZE) {
        debugLog(LOG_ERROR, "ERR: MsgBufferPool::initPool: data size %d too large, refused!\n",
                 dataSize);
        return -1;
    }
    for (uint16_t i = 0; i < count; ++i) {
        const MsgBuf buf = createBuffer(dataSize, 0, MSGBUF_FREE);
        state.allList.push_back(buf);
        ++state.totalCount;
        state.freeList.push_back(buf);
        ++state.freeCount;
    }
    state.initialised = true;
    return 0;
}

MsgBuf MsgBufferPool::allocMsgBuf(uint16_t msgType, uint16_t size, uint32_t owner) {
    if (owner == 0)
        debugLog(LOG_ERROR, "NOTE: MsgBufferPool::allocMsgBuf: anonymous owner......\n");
    // The top bit of the size is masked off before doubling; a masked size above this would wrap
    // the 16-bit block size, and the block would be smaller than its data area.
    if ((size & 0x7FFFu) > MSGBUF_MAX_ALLOC_SIZE) {
        debugLog(LOG_ERROR, "ERR: MsgBufferPool::allocMsgBuf: size %d too large, refused!\n", size);
        return invalidHandle();
    }
    const uint16_t wanted = static_cast<uint16_t>((size & 0x7FFFu) * 2u);

    PoolLock lock;
    PoolState& state = pool();
    MsgBuf buf{};
    auto fit = state.freeList.begin();
    while (fit != state.freeList.end() && fit->dataSize < wanted) ++fit;
    if (fit != state.freeList.end()) {
        buf = *fit;
        buf.state = MSGBUF_USED;
        putU32(buf.block + MSGBUF_REFCOUNT_OFFSET, 1);
        state.freeList.erase(fit);
        --state.freeCount;
    } else {
        debugLog(LOG_WARNING,
                 "NOTE: MsgBufferPool::allocMsgBuf: no proper memory, allocate one. size is %d, "
                 "owner is 0x%x\n",
                 wanted, owner);
        buf = createBuffer(wanted, 1, MSGBUF_USED);
        state.allList.push_back(buf);
        ++state.totalCount;
    }
    buf.msgType = msgType;
    writeHeader(buf, msgType);
    *buf.owners = owner;
    return buf;
}

MsgBuf MsgBufferPool::duplicate(MsgBuf& buf, uint32_t owner) {
    if (owner == 0) debugLog(LOG_ERROR, "NOTE: MsgBufferPool::duplicate: anonymous owner......\n");
    PoolLock lock;
    MsgBuf copy = buf;
    if (buf.state == MSGBUF_USED) {
        uint8_t* count = buf.block + MSGBUF_REFCOUNT_OFFSET;
        putU32(count, getU32(count) + 1);
        *buf.owners |= owner;
    } else {
        copy.state = MSGBUF_INVALID;
    }
    return copy;
}

MsgBuf MsgBufferPool::copyMsgBuf(MsgBuf& buf) {
    if (buf.state != MSGBUF_USED) return invalidHandle();
    // The copy is asked for with the source's data size and gets twice that: refusing here keeps
    // that request from being refused later or served with a buffer smaller than the source.
    if (buf.dataSize > MSGBUF_MAX_ALLOC_SIZE) {
        debugLog(LOG_ERROR, "ERR: MsgBufferPool::copyMsgBuf: size %d too large, refused!\n",
                 buf.dataSize);
        return invalidHandle();
    }
    MsgBuf fresh = allocMsgBuf(buf.msgType, buf.dataSize, 0);
    if (fresh.state != MSGBUF_USED) return invalidHandle();

    // A source that is itself a copy may sit in a block larger than the one found for its copy:
    // never copy more than the new block holds. The reference count is not copied (it may change
    // under other owners meanwhile); the copy starts with one reference.
    const uint16_t length = buf.blockSize < fresh.blockSize ? buf.blockSize : fresh.blockSize;
    memcpy(fresh.block + MSGBUF_HEADER_OFFSET, buf.block + MSGBUF_HEADER_OFFSET,
           length - MSGBUF_HEADER_OFFSET);
    putU32(fresh.block + MSGBUF_REFCOUNT_OFFSET, 1);

    // Pointers in the copied header still lead into the source block.
    if (buf.msgType == 2) {
        putPtr(fresh.header + MSGHDR_BODY_OFFSET, protocolRecord(fresh));
        putPtr(pdataField(fresh), relocate(getPtr(pdataField(fresh)), buf, fresh));
    } else if (buf.msgType >= 3 && buf.msgType <= 7) {
        putPtr(fresh.header + MSGHDR_BODY_OFFSET, fresh.block + MSGBUF_DATA_OFFSET);
    }

    MsgBuf result = fresh;
    result.msgType = buf.msgType;
    result.state = buf.state;
    result.trailer = fresh.block + (buf.trailer - buf.block);
    result.data = fresh.block + (buf.data - buf.block);
    result.dataSize = buf.dataSize;
    result.userLen = buf.userLen;
    return result;
}

int32_t MsgBufferPool::makeProtocolMsg(MsgBuf& buf) {
    if (buf.state != MSGBUF_USED) return -1;
    buf.msgType = 2;
    putPtr(buf.header + MSGHDR_BODY_OFFSET, protocolRecord(buf));
    putPtr(pdataField(buf), buf.data);
    return 0;
}

int32_t MsgBufferPool::freeMsgBuf(MsgBuf& buf, uint32_t owner) {
    if (owner == 0) debugLog(LOG_ERROR, "NOTE: MsgBufferPool::freeMsgBuf: anonymous owner......\n");
    if (buf.state != MSGBUF_USED) return -1;
    PoolLock lock;
    PoolState& state = pool();
    buf.msgType = 0;
    buf.state = MSGBUF_FREE;
    buf.userLen = 0;
    uint8_t* countField = buf.block + MSGBUF_REFCOUNT_OFFSET;
    const uint32_t count = getU32(countField) - 1;
    putU32(countField, count);
    *buf.owners &= ~owner;
    if (count == 0) {
        buf.header = buf.block + MSGBUF_HEADER_OFFSET;
        buf.trailer = buf.block + MSGBUF_TRAILER_OFFSET;
        buf.data = buf.block + MSGBUF_DATA_OFFSET;
        state.freeList.push_back(buf);
        ++state.freeCount;
    }
    return 0;
}

int32_t MsgBufferPool::showPoolInfo() {
    PoolLock lock;
    const PoolState& state = pool();
    debugLog(LOG_DEBUG, "MsgBufferPool info: free %d, total %d\n", state.freeCount,
             state.totalCount);
    int number = 0;
    for (const std::list<MsgBuf>* list : {&state.allList, &state.freeList}) {
        for (const MsgBuf& buf : *list) {
            debugLog(LOG_DEBUG, "%3d  %8x  %4d %8d       0x%x\n", number++,
                     static_cast<uint32_t>(reinterpret_cast<uintptr_t>(buf.block)), buf.dataSize,
                     getU32(buf.block + MSGBUF_REFCOUNT_OFFSET), *buf.owners);
        }
    }
    return 0;
}

uint32_t MsgBufferPool::poolUsagePercent() {
    PoolLock lock;
    const PoolState& state = pool();
    if (state.totalCount == 0) return 0;
    // The in-use count is kept to 8 bits: past 255 buffers in use the figure wraps.
    const uint32_t inUse = (state.totalCount - state.freeCount) & 0xFFu;
    return inUse * 100u / state.totalCount;
}

int32_t MsgBufferPool::destroyPool() {
    PoolLock lock;
    PoolState& state = pool();
    if (!state.initialised) return 0;
    for (const MsgBuf& buf : state.allList) {
        delete[] buf.block;
        delete buf.owners;
    }
    state.allList.clear();
    state.freeList.clear();
    state.totalCount = 0;
    state.freeCount = 0;
    state.initialised = false;
    return 0;
}

int32_t MsgBufferPool::releasePool() {
    return destroyPool();
}
