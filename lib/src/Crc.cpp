// CRC-16 and CRC-32 routines over the compile-time tables and the writable CRC-32 table.
#include "Crc.h"

#include <atomic>
#include <cstddef>
#include <utility>

namespace {
// The writable table's entries are atomics so that crc32BuildTable may rewrite them while other
// threads read; the values written always equal those present.
struct WritableCrc32Table {
    std::atomic<uint32_t> entry[256];
};

template <size_t... I>
constexpr WritableCrc32Table makeWritableTable(std::index_sequence<I...>) {
    return WritableCrc32Table{{crc32Table[I]...}};
}

// Constant-initialised: holds its contents before any constructor of the program runs.
WritableCrc32Table writableTable = makeWritableTable(std::make_index_sequence<256>{});

inline uint32_t writableEntry(uint32_t index) {
    // Relaxed: each entry is read for its own value only, which never changes.
    return writableTable.entry[index].load(std::memory_order_relaxed);
}
}  // namespace

uint16_t crc16Resume(const uint8_t* data, uint32_t length, uint16_t crc) {
    uint32_t r = crc;
    for (uint32_t i = 0; i < length; ++i) {
        const uint32_t index = ((r >> 8) ^ data[i]) & 0xFFu;
        r = (crc16Table[index] ^ (r << 8)) & 0xFFFFu;
    }
    return static_cast<uint16_t>(r);
}

uint16_t crc16(const uint8_t* data, uint32_t length) {
    return crc16Resume(data, length, 0);
}

uint16_t crc16Update(uint16_t crc, const uint8_t* data, uint32_t length) {
    return crc16Resume(data, length, crc);
}

uint32_t crc32(const uint8_t* data, uint32_t length) {
    uint32_t r = 0xFFFFFFFFu;
    for (uint32_t i = 0; i < length; ++i) r = crc32Table[(r ^ data[i]) & 0xFFu] ^ (r >> 8);
    return r;
}

uint32_t crc32Step(uint32_t crc, uint32_t byte) {
    return writableEntry((crc ^ byte) & 0xFFu) ^ (crc >> 8);
}

uint32_t crc32Raw(const uint8_t* data, uint32_t length) {
    uint32_t r = 0;
    for (uint32_t i = 0; i < length; ++i) r = crc32Step(r, data[i]);
    return r;
}

void crc32BuildTable() {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        // Relaxed: the value equals the one already stored, so no reader depends on ordering.
        writableTable.entry[i].store(c, std::memory_order_relaxed);
    }
}
