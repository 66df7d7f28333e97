// Byte ring and frame codec at their own level: exact wire vectors both ways, the ring's size and
// capacity rules, and the frame search's edge cases as rows. Random inputs against a model of the
// same rules run in fuzz/ (replayed by ctest as fuzz.*).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "FrameCodec.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes fill(size_t n, uint8_t v) {
    return Bytes(n, v);
}
const Bytes kFlag{0x7E}, kHeader{0xFF, 0xFF, 0xFF, 0xFF};
Bytes frameOf(const Bytes& stuffedBody) {
    return kFlag + kHeader + stuffedBody + kFlag;
}

struct Ring {
    explicit Ring(int32_t size, uint32_t at = 0) {
        ringCreate(&r, size);
        r.writeIndex = r.readIndex = at;
    }
    ~Ring() { ringDestroy(&r); }
    void put(const Bytes& b) { ASSERT_EQ(ringPutBytes(&r, b.data(), uint16_t(b.size())), 0); }
    ByteRing r;
};

TEST(ByteRing, SizesCapacityAndAllOrNothing) {
    for (int32_t size : {1024, 2048, 65536, 131072, 1000, 0, -1, 512, 262144, 8191}) {
        Ring ring(size);
        const bool listed = size >= 1024 && size <= 131072 && (size & (size - 1)) == 0;
        const uint32_t want = listed ? uint32_t(size) : 8192u;
        EXPECT_EQ(ring.r.mask, want - 1) << size;
        EXPECT_EQ(ringFreeSpace(&ring.r), want - 1) << size;
    }
    Ring ring(1024, 1000);
    const Bytes data = fill(1023, 0xA5);
    EXPECT_EQ(ringPutBytes(&ring.r, nullptr, 5), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 0), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 1000), 0);  // wraps at the end of storage
    EXPECT_EQ(ringUsed(&ring.r), 1000u);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 24), -1);
    EXPECT_EQ(ringPutBytes(&ring.r, data.data(), 23), 0);
    EXPECT_EQ(ringFreeSpace(&ring.r), 0u);
    EXPECT_EQ(ring.r.writeIndex.load(), 999u);
}

// Exact wire bytes: flag, four FF, the packet padded with zeros to 64 bytes (in the caller's
// buffer) and stuffed (5E -> 5E 5D, 7E -> 5E 7D), flag.
TEST(FrameEncoder, WireVectors) {
    const Bytes special = Bytes{0x5E, 0x7E, 0x5D, 0x7D} + fill(60, 0x20);
    const struct {
        Bytes packet, wire;
    } rows[] = {
        {{0x41}, frameOf(Bytes{0x41} + fill(63, 0))},
        {{}, frameOf(fill(64, 0))},
        {fill(63, 0x11), frameOf(fill(63, 0x11) + Bytes{0})},
        {fill(64, 0x11), frameOf(fill(64, 0x11))},
        {special, frameOf(Bytes{0x5E, 0x5D, 0x5E, 0x7D, 0x5D, 0x7D} + fill(60, 0x20))},
    };
    for (const auto& row : rows) {
        Bytes packet = row.packet + fill(row.packet.size() < 64 ? 64 - row.packet.size() : 0, 0xEE);
        Bytes out(200);
        ASSERT_EQ(frameEncode(packet.data(), out.data(), int32_t(row.packet.size())),
                  int32_t(row.wire.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + long(row.wire.size())), row.wire);
        EXPECT_EQ(packet, row.packet + fill(packet.size() - row.packet.size(), 0));
        Ring ring(1024, 1000);  // the ring encoder, across the end of storage
        packet = row.packet + fill(64, 0);
        ASSERT_EQ(ringPutFrame(&ring.r, packet.data(), uint16_t(row.packet.size())),
                  row.packet.empty() ? -1 : 0);
        if (row.packet.empty()) continue;
        EXPECT_EQ(ringTakeFrame(&ring.r, out.data(), 200), int32_t(row.wire.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + long(row.wire.size())), row.wire);
    }
    EXPECT_EQ(frameEncode(Bytes(64).data(), Bytes(200).data(), -1), -1);
}

TEST(FrameEncoder, RingPutIsAllOrNothingWithinItsWorkingArea) {
    Ring ring(1024);
    Bytes p = fill(64, 0x41);
    EXPECT_EQ(ringPutFrame(&ring.r, nullptr, 10), -1);
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 0), -1);
    ring.put(fill(954, 0));  // free space: 69, one less than the frame
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 1), -1);
    EXPECT_EQ(ring.r.writeIndex.load(), 954u);
    ring.r.readIndex = 1;  // free space: exactly 70
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 1), 0);
    EXPECT_EQ(ring.r.writeIndex.load(), 0u);
    Ring big(131072);
    p = fill(4096, 0x7E);
    EXPECT_EQ(ringPutFrame(&big.r, p.data(), 2045), 0);  // 6 + 2 * 2045 = 4096 bytes
    EXPECT_EQ(ringPutFrame(&big.r, p.data(), 2046), -1);
    p = fill(4091, 0x33);
    EXPECT_EQ(ringPutFrame(&big.r, p.data(), 4090), 0);
    p[0] = 0x5E;
    EXPECT_EQ(ringPutFrame(&big.r, p.data(), 4090), -1);  // one escape too many
    EXPECT_EQ(ringUsed(&big.r), 8192u);
}

// Flat frames through frameDecode and frameSkipHeader, and (ring >= -1) the same bytes through
// ringTakePacket: payload (empty for 0), where the header scan stops, the header it read.
TEST(FrameDecoder, WireVectors) {
    Bytes counting;
    for (uint8_t i = 10; i < 22; ++i) counting.push_back(i);
    const struct {
        Bytes frame, payload;
        size_t headerEnd;
        Bytes header;
        int ring;
    } rows[] = {
        {frameOf(fill(12, 0x11) +
                 Bytes{0x5D, 0x7D, 0x5E, 0x5D, 0x5E, 0x7D, 0x5E, 0x41, 0x5E, 0x5E, 0x5D, 0x5E}),
         fill(12, 0x11) + Bytes{0x5D, 0x7D, 0x5E, 0x7E, 0x41, 0x5E}, 5, kHeader, 18},
        {kFlag + Bytes{1, 2, 3, 4} + counting + kFlag, counting, 5, {1, 2, 3, 4}, 12},
        {frameOf(fill(11, 0x22)), {}, 5, kHeader, 0},
        {Bytes{0x41} + kHeader + fill(20, 1) + kFlag, {}, 4, {0x41, 0xFF, 0xFF, 0xFF}, -2},
        {frameOf({}), {}, 5, kHeader, -1},
        {kFlag + fill(9, 0x5E) + kFlag, {}, 10, {0, 0, 0, 0}, 0},
        {Bytes{0x7E, 0xFF, 0xFF, 0x7E}, {}, 3, {0xFF, 0xFF, 0, 0}, -2},
        {kFlag + frameOf(fill(12, 0x41)), fill(12, 0x41), 6, kHeader, 12},
        {Bytes{0x7E, 0x5E, 0x5D, 0xFF, 0x5E, 0x41, 0x5E, 0x7D} + fill(12, 3) + kFlag,
         fill(12, 3),
         8,
         {0x5E, 0xFF, 0x41, 0x7E},
         12},
    };
    for (const auto& row : rows) {
        const std::vector<uint8_t> exact(row.frame);  // a read past the end flag is a report
        Bytes out(8192);
        uint8_t header[4] = {9, 9, 9, 9};
        const size_t at = &row - rows;
        EXPECT_EQ(frameDecode(exact.data(), out.data()), int32_t(row.payload.size())) << at;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + long(row.payload.size())), row.payload) << at;
        EXPECT_EQ(frameSkipHeader(exact.data(), header), exact.data() + row.headerEnd) << at;
        EXPECT_EQ(Bytes(header, header + 4), row.header) << at;
        if (row.ring < -1) continue;
        Ring ring(1024, 1020);
        ring.put(row.frame);
        EXPECT_EQ(ringTakePacket(&ring.r, out.data(), 8192), row.ring) << at;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + std::max(row.ring, 0)), row.payload) << at;
    }
}

// The frame search, each row run at the start of storage and across its end: the stream, the
// limit, ringTakeFrame's result and where readIndex ends up (relative to the stream's start).
TEST(FrameExtractor, EdgeCases) {
    const Bytes d69 = frameOf(fill(64, 0x44));
    const struct {
        Bytes stream;
        uint16_t limit;
        int32_t result;
        uint32_t readAfter;
    } rows[] = {
        {frameOf(fill(4, 0x41)), 8172, -1, 9},               // d = 9: too short
        {frameOf(fill(5, 0x41)), 8172, 11, 10},              // d = 10
        {frameOf(fill(3041, 0x41)), 8172, 3047, 3046},       // d = 3046
        {frameOf(fill(3042, 0x41)), 8172, -1, 3047},         // d = 3047: too long
        {frameOf(fill(95, 0x41)), 100, -1, 100},             // d + 1 above the limit
        {frameOf(fill(95, 0x41)), 101, 101, 100},            // d + 1 at the limit
        {{0x7E, 1, 2, 3, 4, 5, 6, 7, 0x7E}, 8172, -1, 0},    // nine bytes are never searched
        {fill(20, 0x41) + Bytes{0x7E, 0xFF}, 8172, -1, 20},  // noise: the last two bytes stay
        {kFlag + d69, 8172, 70, 70},                         // a doubled flag opens the frame
        {fill(5, 0x41) + kFlag + kHeader + fill(30, 0x45), 8172, -1, 0},  // waits, noise kept
        {Bytes{0x11} + kFlag + fill(3046, 0x41), 8172, -1, 0},            // a 3047-byte run is kept
        {Bytes{0x11} + kFlag + fill(3047, 0x41), 8172, -1, 3049},         // at 3048 all is dropped
        {kFlag + kHeader + fill(20, 0x51) + d69, 8172, 26, 25},           // lost end flag: merged
    };
    for (const auto& row : rows) {
        for (uint32_t start : {0u, 16380u}) {
            Ring ring(16384, start);
            ring.put(row.stream);
            Bytes out(8192);
            const size_t at = &row - rows;
            ASSERT_EQ(ringTakeFrame(&ring.r, out.data(), row.limit), row.result) << at;
            EXPECT_EQ(ring.r.readIndex.load(), (start + row.readAfter) & 16383) << at;
            for (int32_t i = 0; i < row.result; ++i) {
                EXPECT_EQ(out[size_t(i)], row.stream[row.readAfter + 1 - size_t(row.result) + i]);
                EXPECT_EQ(ring.r.storage[(start + row.readAfter - uint32_t(i)) & 16383], 0) << at;
            }
        }
    }
    Ring ring(1024);
    ring.put(d69);
    Bytes out(8192);
    EXPECT_EQ(ringTakeFrame(&ring.r, nullptr, 8172), -1);
    EXPECT_EQ(ringTakePacket(&ring.r, nullptr, 8192), -1);
    EXPECT_EQ(ringTakeFrame(&ring.r, out.data(), 0), -1);
    EXPECT_EQ(ringTakePacket(&ring.r, out.data(), 0), -1);
    EXPECT_EQ(ring.r.readIndex.load(), 0u);
    EXPECT_EQ(ringTakePacket(&ring.r, out.data(), 8192), 64);
}

}  // namespace
