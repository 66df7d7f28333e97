// Process-wide pool of reference-counted message buffers, handed out through the by-value handle
// MsgBuf; freed buffers are kept and reused, and the pool grows when none fits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ProtocolMsg.h"

enum : uint16_t { MSGBUF_USED = 1, MSGBUF_FREE = 2, MSGBUF_INVALID = 255 };

// Layout of a buffer block: reference count, header, trailer area, data area.
constexpr uint16_t MSGBUF_REFCOUNT_OFFSET = 0;
constexpr uint16_t MSGBUF_HEADER_OFFSET = 4;
constexpr uint16_t MSGBUF_HEADER_SIZE = 128;
constexpr uint16_t MSGBUF_TRAILER_OFFSET = 132;
constexpr uint16_t MSGBUF_TRAILER_SIZE = 20;
constexpr uint16_t MSGBUF_DATA_OFFSET = 152;

// Header fields, offsets from the header.
constexpr uint16_t MSGHDR_TYPE_OFFSET = 0;
constexpr uint16_t MSGHDR_BODYLEN_OFFSET = 40;
constexpr uint16_t MSGHDR_BODY_OFFSET = 42;
constexpr uint16_t MSGHDR_PROTOCOL_OFFSET = 50;  // type 2: embedded S_ProtocolMsg

static_assert(MSGHDR_PROTOCOL_OFFSET + sizeof(S_ProtocolMsg) ==
                  MSGBUF_HEADER_SIZE + 3,  // runs 3 bytes into the trailer area by design
              "embedded protocol record ends 3 bytes past the header");
static_assert(MSGBUF_HEADER_OFFSET + MSGHDR_PROTOCOL_OFFSET + sizeof(S_ProtocolMsg) <=
                  MSGBUF_DATA_OFFSET,
              "embedded protocol record stays clear of the data area");

// Largest data sizes the pool accepts: the 16-bit block size must not wrap, and a copy (which asks
// for twice the source's data size) must get a buffer at least as large as its source.
constexpr uint16_t MSGBUF_MAX_DATA_SIZE = 0xFFFF - MSGBUF_DATA_OFFSET;  // 65383
constexpr uint16_t MSGBUF_MAX_ALLOC_SIZE = MSGBUF_MAX_DATA_SIZE / 2;    // 32691

// Handle of one reference to a pool buffer; copies of a handle are not references of their own
// (use MsgBufferPool::duplicate for that).
struct MsgBuf {
    uint16_t msgType;
    uint16_t state;
    uint8_t* block;
    uint8_t* header;
    uint8_t* trailer;
    uint8_t* data;
    uint16_t blockSize;
    uint16_t dataSize;
    uint16_t userLen;
    uint32_t* owners;
};

class MsgBufferPool {
  public:
    // Creates `count` free buffers of `dataSize` bytes (0 means 1024), once; later calls do
    // nothing. Returns 0, or -1 (nothing created) for a data size above MSGBUF_MAX_DATA_SIZE.
    static int32_t initPool(uint16_t count, uint16_t dataSize);
    // A buffer with room for (size & 0x7FFF) * 2 bytes, first fit from the free list, else a new
    // one. A masked size above MSGBUF_MAX_ALLOC_SIZE is refused with a handle in state
    // MSGBUF_INVALID.
    static MsgBuf allocMsgBuf(uint16_t msgType, uint16_t size, uint32_t owner);
    // One more reference to the same buffer for `owner`; state MSGBUF_INVALID if `buf` is not
    // valid.
    static MsgBuf duplicate(MsgBuf& buf, uint32_t owner);
    // A new buffer with the same content; the caller must hold its reference to `buf` meanwhile.
    static MsgBuf copyMsgBuf(MsgBuf& buf);
    // Turns the buffer into a type-2 message whose body is the embedded S_ProtocolMsg.
    static int32_t makeProtocolMsg(MsgBuf& buf);
    // Gives back the reference held by `buf`; the last one returns the buffer to the free list.
    static int32_t freeMsgBuf(MsgBuf& buf, uint32_t owner);
    static int32_t showPoolInfo();
    // Buffers in use as a percentage of all; the in-use count is taken modulo 256.
    static uint32_t poolUsagePercent();
    // Releases every buffer the pool has created; all handles must have been given back first.
    static int32_t destroyPool();
    // Second entry point of destroyPool, doing the same.
    static int32_t releasePool();
};
