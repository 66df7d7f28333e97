// Frame codec at its own level: exact wire vectors and takes with nowhere to put the frame. The
// rest (ring sizes, bounds, search, leading flags, unstuffing, capacity) is checked against models
// of the same rules in fuzz/, replayed by ctest as fuzz.*.
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
const Bytes kFlag{0x7E}, kHeader{0xFF, 0xFF, 0xFF, 0xFF};
Bytes frameOf(const Bytes& stuffedBody) {
    return kFlag + kHeader + stuffedBody + kFlag;
}

// Exact wire bytes: flag, four FF, the packet padded with zeros to 64 bytes (in the caller's
// buffer) and stuffed (5E -> 5E 5D, 7E -> 5E 7D), flag.
TEST(FrameEncoder, WireVectors) {
    const Bytes special = Bytes{0x5E, 0x7E, 0x5D, 0x7D} + Bytes(60, 0x20);
    const struct {
        Bytes packet, wire;
    } rows[] = {
        {{0x41}, frameOf(Bytes{0x41} + Bytes(63, 0))},
        {Bytes(63, 0x11), frameOf(Bytes(63, 0x11) + Bytes{0})},
        {Bytes(64, 0x11), frameOf(Bytes(64, 0x11))},
        {special, frameOf(Bytes{0x5E, 0x5D, 0x5E, 0x7D, 0x5D, 0x7D} + Bytes(60, 0x20))},
    };
    for (const auto& row : rows) {
        Bytes packet = row.packet + Bytes(64, 0xEE), out(200);
        ASSERT_EQ(frameEncode(packet.data(), out.data(), int32_t(row.packet.size())),
                  int32_t(row.wire.size()));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + long(row.wire.size())), row.wire);
        const Bytes padded = row.packet + Bytes(64 - std::min<size_t>(64, row.packet.size()), 0);
        EXPECT_EQ(Bytes(packet.begin(), packet.begin() + long(padded.size())), padded);
    }
}

// A null output or a limit of 0 takes nothing, and a negative length encodes nothing.
TEST(FrameCodec, NothingToTakeInto) {
    ByteRing r;
    ringCreate(&r, 1024);
    Bytes out = frameOf(Bytes(64, 0x44));
    ASSERT_EQ(ringPutBytes(&r, out.data(), uint16_t(out.size())), 0);
    out.resize(8192);
    EXPECT_EQ(ringTakeFrame(&r, nullptr, 8172), -1) << "frame, null output";
    EXPECT_EQ(ringTakePacket(&r, nullptr, 8192), -1) << "packet, null output";
    EXPECT_EQ(ringTakeFrame(&r, out.data(), 0), -1) << "frame, limit 0";
    EXPECT_EQ(ringTakePacket(&r, out.data(), 0), -1) << "packet, limit 0";
    EXPECT_EQ(ringTakePacket(&r, out.data(), 8192), 64) << "all still there";
    EXPECT_EQ(frameEncode(out.data(), out.data() + 100, -1), -1);
    ringDestroy(&r);
}

}  // namespace
