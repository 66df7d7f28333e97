// libFuzzer target for the checksums: every routine against a bitwise model of its register (no
// table), on arbitrary data cut at an arbitrary point and resumed from an arbitrary start value.
#include <cstdint>
#include <cstdlib>

#include "Crc.h"
#include "FuzzInput.h"

namespace {

// MSB first, polynomial 0x1021.
uint16_t bitwise16(uint16_t crc, const uint8_t* data, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        crc ^= static_cast<uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint16_t>(crc & 0x8000u ? (crc << 1) ^ 0x1021u : crc << 1);
    }
    return crc;
}

// Reflected, polynomial 0xEDB88320, no final inversion.
uint32_t bitwise32(uint32_t crc, const uint8_t* data, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = crc & 1u ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Catalogue values of the check string: CRC-16/XMODEM, CRC-16/IBM-3740, CRC-32/JAMCRC.
    static const uint8_t kCheck[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    CHECK(crc16(kCheck, 9) == 0x31C3);
    CHECK(crc16Update(0xFFFF, kCheck, 9) == 0x29B1);
    CHECK(crc32(kCheck, 9) == 0x340BC6D9u);
    CHECK(crc32Raw(kCheck, 9) == 0x2DFD2D88u);
    if (size < 3) return 0;
    const uint16_t start = static_cast<uint16_t>(data[0] | data[1] << 8);
    const size_t cut = data[2] % (size - 2);
    data += 3, size -= 3;
    const auto length = static_cast<uint32_t>(size);
    CHECK(crc16(data, length) == bitwise16(0, data, size));
    CHECK(crc16Update(start, data, length) == bitwise16(start, data, size));
    CHECK(crc16Resume(data + cut, length - uint32_t(cut),
                      crc16Resume(data, uint32_t(cut), start)) == bitwise16(start, data, size));
    CHECK(crc32(data, length) == bitwise32(0xFFFFFFFFu, data, size));
    CHECK(crc32Raw(data, length) == bitwise32(0, data, size));
    // Only the low 8 bits of a step's byte count; rebuilding the writable table changes nothing.
    uint32_t r = start * 0x10001u;
    for (size_t i = 0; i < size; ++i) r = crc32Step(r, uint32_t(start) << 8 | data[i]);
    CHECK(r == bitwise32(start * 0x10001u, data, size));
    if (cut == 0) crc32BuildTable();
    CHECK(crc32Raw(data, length) == bitwise32(0, data, size));
    return 0;
}
