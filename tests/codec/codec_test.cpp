// Frame codec and checksums at their own level: exact wire vectors and catalogue values. The rest
// of the codec (ring sizes, bounds, search, leading flags, unstuffing, capacity, null outputs and
// limits of 0) is checked against a model of the frame in fuzz/, replayed by ctest as fuzz.*.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Crc.h"
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
    Bytes out(200);
    EXPECT_EQ(frameEncode(out.data(), out.data() + 100, -1), -1) << "a negative length";
}

// The check string's values: CRC-16/XMODEM, CRC-16/IBM-3740 (start 0xFFFF), CRC-32/JAMCRC, and
// the CRC-32 register from 0; pieces and single steps (the byte's high bits ignored) give the same.
TEST(Checksums, CheckStringValues) {
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crc16(check, 9), 0x31C3) << "CRC-16/XMODEM";
    EXPECT_EQ(crc16Update(0xFFFF, check, 9), 0x29B1) << "CRC-16/IBM-3740";
    EXPECT_EQ(crc16Resume(check + 4, 5, crc16Resume(check, 4, 0xFFFF)), 0x29B1) << "in two pieces";
    EXPECT_EQ(crc32(check, 9), 0x340BC6D9u) << "CRC-32/JAMCRC";
    EXPECT_EQ(crc32Raw(check, 9), 0x2DFD2D88u) << "CRC-32 register from 0";
    uint32_t r = 0;
    for (uint8_t b : check) r = crc32Step(r, 0xA500u | b);
    EXPECT_EQ(r, 0x2DFD2D88u) << "step by step";
    crc32BuildTable();
    EXPECT_EQ(crc32Raw(check, 9), 0x2DFD2D88u) << "after the table was built again";
}

}  // namespace
