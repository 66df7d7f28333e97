// Single-thread edges of ByteRing: accepted sizes, capacity of size - 1, all-or-nothing inserts
// and inserts that wrap at the end of storage.
#include <gtest/gtest.h>

#include <vector>

#include "ByteRing.h"

namespace {

struct Ring {
    explicit Ring(int32_t size) { ringCreate(&r, size); }
    ~Ring() { ringDestroy(&r); }
    ByteRing r;
};

TEST(ByteRing, SizesOutsideTheListGiveTheDefault) {
    for (int32_t size : {1000, 0, -1, 512, 262144, 8191, 3 << 12}) {
        Ring ring(size);
        EXPECT_EQ(ring.r.size, 8192u) << size;
        EXPECT_EQ(ring.r.mask, 8191u) << size;
    }
    for (int32_t size = 1024; size <= 131072; size *= 2) {
        Ring ring(size);
        EXPECT_EQ(ring.r.size, static_cast<uint32_t>(size));
        EXPECT_EQ(ring.r.mask, static_cast<uint32_t>(size - 1));
        EXPECT_EQ(ringUsed(&ring.r), 0u);
        EXPECT_EQ(ringFreeSpace(&ring.r), static_cast<uint32_t>(size - 1));
    }
}

TEST(ByteRing, HoldsSizeMinusOneAndRefusesWhole) {
    Ring ring(1024);
    std::vector<uint8_t> data(1024, 0xA5);
    const uint8_t one = 1;
    EXPECT_EQ(ringPutBytes(&ring.r, nullptr, 5), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 0), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 1024), -1);  // one more than the free space
    EXPECT_EQ(ringUsed(&ring.r), 0u);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 1000), 0);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 24), -1);
    EXPECT_EQ(ringUsed(&ring.r), 1000u);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 23), 0);
    EXPECT_EQ(ringUsed(&ring.r), 1023u);
    EXPECT_EQ(ringFreeSpace(&ring.r), 0u);
    EXPECT_EQ(ringPutBytes(&ring.r, &one, 1), -1);
    EXPECT_EQ(ring.r.writeIndex.load(), 1023u);
}

TEST(ByteRing, InsertWrapsAtTheEndOfStorageInOrder) {
    Ring ring(1024);
    // As if a consumer had taken the first 1000 bytes.
    ring.r.writeIndex.store(1000);
    ring.r.readIndex.store(1000);
    std::vector<uint8_t> data(100);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i + 1);
    ASSERT_EQ(ringPutBytes(&ring.r, data.data(), 100), 0);
    EXPECT_EQ(ring.r.writeIndex.load(), 76u);
    EXPECT_EQ(ringUsed(&ring.r), 100u);  // readIndex > writeIndex: size + w - r
    for (uint32_t i = 0; i < 100; ++i) EXPECT_EQ(ring.r.storage[(1000 + i) & 1023], i + 1);
    EXPECT_EQ(ringFreeSpace(&ring.r), 923u);
    std::vector<uint8_t> big(924);
    EXPECT_EQ(ringPutBytes(&ring.r, big.data(), 924), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, big.data(), 923), 0);
    EXPECT_EQ(ring.r.writeIndex.load(), 999u);
}

}  // namespace
