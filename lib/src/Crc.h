// Table-driven checksums of the framework library: CRC-16 over the CCITT polynomial (MSB first)
// and CRC-32 over the IEEE 802.3 polynomial (reflected).
#pragma once

#include <array>
#include <cstdint>

namespace crcdetail {
constexpr uint16_t kCrc16Poly = 0x1021u;
constexpr uint32_t kCrc32PolyReversed = 0xEDB88320u;

constexpr std::array<uint16_t, 256> makeCrc16Table() {
    std::array<uint16_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t r = i << 8;
        for (int bit = 0; bit < 8; ++bit) r = (r & 0x8000u) ? (r << 1) ^ kCrc16Poly : r << 1;
        table[i] = static_cast<uint16_t>(r);
    }
    return table;
}

constexpr uint32_t crc32TableEntry(uint32_t i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ kCrc32PolyReversed : c >> 1;
    return c;
}

constexpr std::array<uint32_t, 256> makeCrc32Table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) table[i] = crc32TableEntry(i);
    return table;
}
}  // namespace crcdetail

// The constant tables, built by the compiler; the writable CRC-32 table lives in Crc.cpp.
inline constexpr std::array<uint16_t, 256> crc16Table = crcdetail::makeCrc16Table();
inline constexpr std::array<uint32_t, 256> crc32Table = crcdetail::makeCrc32Table();

static_assert(crc16Table[1] == 0x1021u && crc16Table[3] == 0x3063u && crc16Table[255] == 0x1EF0u,
              "CRC-16 table is the MSB-first CCITT table");
static_assert(crc32Table[1] == 0x77073096u && crc32Table[3] == 0x990951BAu,
              "CRC-32 table is the reflected IEEE 802.3 table");

// CRC-16, register starting at 0, no final XOR (CRC-16/XMODEM).
uint16_t crc16(const uint8_t* data, uint32_t length);
// CRC-16 continued from `crc`: feed each result back in to checksum a buffer in pieces.
uint16_t crc16Resume(const uint8_t* data, uint32_t length, uint16_t crc);
// Same as crc16Resume with the start value first.
uint16_t crc16Update(uint16_t crc, const uint8_t* data, uint32_t length);

// CRC-32 from 0xFFFFFFFF without final inversion (CRC-32/JAMCRC), on the constant table.
uint32_t crc32(const uint8_t* data, uint32_t length);
// CRC-32 register from 0, returned unchanged, on the writable table.
uint32_t crc32Raw(const uint8_t* data, uint32_t length);
// One step of the CRC-32 register on the writable table; only the low 8 bits of `byte` count.
uint32_t crc32Step(uint32_t crc, uint32_t byte);
// Rebuilds the writable table in place. It is filled before main already, so calling this is never
// needed; it may run while other threads checksum.
void crc32BuildTable();
