// Bulk copies between a ByteRing's storage and flat buffers, split where a span wraps at the end
// of storage. Internal to the codec; the caller owns the span it touches (free or stored bytes).
#pragma once

#include <cstring>

#include "ByteRing.h"

// Copies n bytes from src into storage starting at position at.
inline void ringSpanStore(ByteRing* ring, uint32_t at, const uint8_t* src, uint32_t n) {
    const uint32_t first = n < ring->size - at ? n : ring->size - at;
    std::memcpy(ring->storage + at, src, first);
    std::memcpy(ring->storage, src + first, n - first);
}

// Copies n bytes of storage starting at position at into dst.
inline void ringSpanLoad(const ByteRing* ring, uint32_t at, uint8_t* dst, uint32_t n) {
    const uint32_t first = n < ring->size - at ? n : ring->size - at;
    std::memcpy(dst, ring->storage + at, first);
    std::memcpy(dst + first, ring->storage, n - first);
}

// Overwrites n bytes of storage starting at position at with 0.
inline void ringSpanZero(ByteRing* ring, uint32_t at, uint32_t n) {
    const uint32_t first = n < ring->size - at ? n : ring->size - at;
    std::memset(ring->storage + at, 0, first);
    std::memset(ring->storage, 0, n - first);
}

// Position of the first byte equal to value in the n bytes from position at, or -1.
inline int64_t ringSpanFind(const ByteRing* ring, uint32_t at, uint32_t n, uint8_t value) {
    const uint32_t first = n < ring->size - at ? n : ring->size - at;
    const void* hit = std::memchr(ring->storage + at, value, first);
    if (hit != nullptr) return static_cast<const uint8_t*>(hit) - ring->storage;
    hit = std::memchr(ring->storage, value, n - first);
    if (hit != nullptr) return static_cast<const uint8_t*>(hit) - ring->storage;
    return -1;
}
