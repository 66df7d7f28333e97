// Lock-free single-producer single-consumer byte ring: creation, fill level and the raw insert.
#include "ByteRing.h"

#include "RingSpan.h"

void ringCreate(ByteRing* ring, int32_t size) {
    uint32_t capacity = kRingDefaultSize;
    for (uint32_t s = kRingMinSize; s <= kRingMaxSize; s <<= 1) {
        if (size >= 0 && static_cast<uint32_t>(size) == s) capacity = s;
    }
    ring->size = capacity;
    ring->mask = capacity - 1;
    // Relaxed: the ring is created before either worker thread starts, and thread creation orders
    // it.
    ring->writeIndex.store(0, std::memory_order_relaxed);
    ring->readIndex.store(0, std::memory_order_relaxed);
    ring->storage = new uint8_t[capacity];
}

void ringDestroy(ByteRing* ring) {
    delete[] ring->storage;
}

uint32_t ringUsed(const ByteRing* ring) {
    // Acquire on both: a caller on either side may go on to touch the bytes this count covers.
    const uint32_t w = ring->writeIndex.load(std::memory_order_acquire);
    const uint32_t r = ring->readIndex.load(std::memory_order_acquire);
    return r > w ? w + ring->size - r : w - r;
}

uint32_t ringFreeSpace(const ByteRing* ring) {
    return ring->size - 1 - ringUsed(ring);
}

int32_t ringPutBytes(ByteRing* ring, const uint8_t* data, uint16_t length) {
    if (data == nullptr || length == 0) return -1;
    // Own index, written only by this producer thread: relaxed.
    const uint32_t w = ring->writeIndex.load(std::memory_order_relaxed);
    // Acquire: the consumer's copying and zeroing of the slots it released happen before we reuse
    // them.
    const uint32_t r = ring->readIndex.load(std::memory_order_acquire);
    const uint32_t used = (w - r) & ring->mask;
    if (length > ring->size - 1 - used) return -1;
    ringSpanStore(ring, w, data, length);
    // Release, once for the whole chunk: the bytes are in place before the consumer can see them,
    // so the published index is never ahead of its data.
    ring->writeIndex.store((w + length) & ring->mask, std::memory_order_release);
    return 0;
}
