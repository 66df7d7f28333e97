// Checksum routines against the catalogued check values, piecewise runs and a table rebuilt while
// other threads checksum.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "Crc.h"

namespace {
const uint8_t kCheck[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
constexpr uint32_t kCheckLen = sizeof kCheck;

std::vector<uint8_t> patternBytes(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + 7);
    return bytes;
}

// Bit-at-a-time IEEE 802.3 CRC-32, independent of the tables.
uint32_t bitwiseCrc32(const uint8_t* data, size_t n, uint32_t r) {
    for (size_t i = 0; i < n; ++i) {
        r ^= data[i];
        for (int b = 0; b < 8; ++b) r = (r & 1u) ? (r >> 1) ^ 0xEDB88320u : r >> 1;
    }
    return r;
}
}  // namespace

TEST(Crc16, CatalogueCheckValuesAndEmptyInput) {
    EXPECT_EQ(crc16(kCheck, kCheckLen), 0x31C3);                // CRC-16/XMODEM
    EXPECT_EQ(crc16Update(0xFFFF, kCheck, kCheckLen), 0x29B1);  // CRC-16/IBM-3740
    EXPECT_EQ(crc16Resume(kCheck, kCheckLen, 0xFFFF), 0x29B1);
    EXPECT_EQ(crc16(kCheck, 0), 0);
    EXPECT_EQ(crc16Resume(kCheck, 0, 0xBEEF), 0xBEEF);
    EXPECT_EQ(crc16Update(0x1234, nullptr, 0), 0x1234);
    EXPECT_EQ(crc16Table[0], 0x0000);
    EXPECT_EQ(crc16Table[2], 0x2042);
}

TEST(Crc16, PiecewiseEqualsOnePassAtEverySplit) {
    const std::vector<uint8_t> data = patternBytes(300);
    const uint16_t whole = crc16(data.data(), static_cast<uint32_t>(data.size()));
    for (uint32_t split = 0; split <= data.size(); split += 37) {
        const uint16_t first = crc16(data.data(), split);
        const uint32_t rest = static_cast<uint32_t>(data.size()) - split;
        EXPECT_EQ(crc16Resume(data.data() + split, rest, first), whole) << "split " << split;
        EXPECT_EQ(crc16Update(first, data.data() + split, rest), whole) << "split " << split;
    }
}

TEST(Crc32, CatalogueCheckValuesAndEmptyInput) {
    EXPECT_EQ(crc32(kCheck, kCheckLen), 0x340BC6D9u);   // CRC-32/JAMCRC
    EXPECT_EQ(~crc32(kCheck, kCheckLen), 0xCBF43926u);  // its complement is the IEEE CRC-32
    EXPECT_EQ(crc32(kCheck, 0), 0xFFFFFFFFu);
    EXPECT_EQ(crc32Raw(kCheck, kCheckLen), 0x2DFD2D88u);
    EXPECT_EQ(crc32Raw(kCheck, 0), 0u);
    const uint8_t one = 0x01;
    EXPECT_EQ(crc32Raw(&one, 1), 0x77073096u);
    EXPECT_EQ(crc32Table[2], 0xEE0E612Cu);
}

TEST(Crc32, TablesAgreeWithBitwiseComputationAndStepsCompose) {
    const std::vector<uint8_t> data = patternBytes(1000);
    const uint32_t n = static_cast<uint32_t>(data.size());
    EXPECT_EQ(crc32(data.data(), n), bitwiseCrc32(data.data(), n, 0xFFFFFFFFu));
    EXPECT_EQ(crc32Raw(data.data(), n), bitwiseCrc32(data.data(), n, 0));
    uint32_t r = 0xFFFFFFFFu;
    // Only the low 8 bits of the byte argument count.
    for (uint8_t b : data) r = crc32Step(r, 0xABCD0000u | b);
    EXPECT_EQ(r, crc32(data.data(), n));
    crc32BuildTable();  // rebuilding changes nothing
    EXPECT_EQ(crc32Raw(data.data(), n), bitwiseCrc32(data.data(), n, 0));
}

// Readers of the writable table keep getting right results while it is rebuilt; under the thread
// sanitizer this also shows the rebuild is race-free.
TEST(Crc32, RebuildWhileOtherThreadsChecksum) {
    const uint32_t expected = crc32Raw(kCheck, kCheckLen);
    std::vector<std::thread> readers;
    std::vector<int> wrong(3, 0);
    for (size_t t = 0; t < wrong.size(); ++t) {
        readers.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) wrong[t] += crc32Raw(kCheck, kCheckLen) != expected;
        });
    }
    for (int i = 0; i < 200; ++i) crc32BuildTable();
    for (auto& reader : readers) reader.join();
    for (int w : wrong) EXPECT_EQ(w, 0);
}
