// Lock-free byte ring with one producer and one consumer thread: the queue between the bridge's
// worker threads. Capacity is a power of two so that every index wraps with one AND.
#pragma once

#include <atomic>
#include <cstdint>

// Capacity used when the requested size is not one of the accepted powers of two.
constexpr uint32_t kRingDefaultSize = 8192;
constexpr uint32_t kRingMinSize = 1024;
constexpr uint32_t kRingMaxSize = 131072;

// One slot always stays empty, so a ring holds at most size - 1 bytes.
struct ByteRing {
    uint32_t size;                     // capacity of storage in bytes
    uint32_t mask;                     // size - 1
    std::atomic<uint32_t> writeIndex;  // next byte to store; written only by the producer
    std::atomic<uint32_t> readIndex;   // oldest byte not yet consumed; written only by the consumer
    uint8_t* storage;                  // size bytes, owned by the ring, not cleared at creation
};

// Initialises the record; a size other than 1024, 2048, ..., 131072 gives 8192 bytes.
// Call before any other thread uses the ring.
void ringCreate(ByteRing* ring, int32_t size);
// Releases storage; the record is not used again.
void ringDestroy(ByteRing* ring);

// Snapshots, from any thread: the other side may move its index right after.
uint32_t ringUsed(const ByteRing* ring);
uint32_t ringFreeSpace(const ByteRing* ring);

// Producer only. Appends all length bytes or nothing: 0 when stored, -1 when data is null,
// length is 0 or the free space is too small.
int32_t ringPutBytes(ByteRing* ring, const uint8_t* data, uint16_t length);
