// Two-thread runs over one ring: a producer encoding frames (or pushing raw serial chunks) while a
// consumer takes them, checked in order and content; meant to run under the thread sanitizer too.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "FrameCodec.h"

namespace {

constexpr int kPackets = 12000;  // about 9 MB of packet bytes per run

// Packet number i, reproducible on both sides; every seventh one is made of
// special bytes only after its leading sequence number.
std::vector<uint8_t> packetFor(int i) {
    std::mt19937 rng(uint32_t(i) * 2654435761u);
    std::vector<uint8_t> p(1 + rng() % 1514);
    for (auto& b : p) b = (i % 7 == 0) ? ((rng() & 1) ? 0x5E : 0x7E) : uint8_t(rng());
    if (p.size() >= 4) std::memcpy(p.data(), &i, 4);  // the sequence number leads
    return p;
}

std::vector<uint8_t> paddedFor(int i) {
    std::vector<uint8_t> p = packetFor(i);
    if (p.size() < 64) p.resize(64, 0);
    return p;
}

TEST(CodecStress, FramesInOrderThroughTakeFrame) {
    ByteRing ring;
    ringCreate(&ring, 32768);
    std::thread producer([&] {
        for (int i = 0; i < kPackets; ++i) {
            std::vector<uint8_t> p = packetFor(i);
            const size_t len = p.size();
            p.resize(std::max<size_t>(len, 64));
            while (ringPutFrame(&ring, p.data(), uint16_t(len)) != 0) std::this_thread::yield();
        }
    });
    std::vector<uint8_t> frame(8192), expect(8192);
    for (int i = 0; i < kPackets; ++i) {
        int32_t n;
        while ((n = ringTakeFrame(&ring, frame.data(), 8172)) < 0) std::this_thread::yield();
        std::vector<uint8_t> p = paddedFor(i);
        const int32_t want = frameEncode(p.data(), expect.data(), int32_t(p.size()));
        ASSERT_EQ(n, want) << i;
        ASSERT_EQ(0, std::memcmp(frame.data(), expect.data(), size_t(n))) << i;
    }
    producer.join();
    EXPECT_EQ(ringUsed(&ring), 1u);  // the zeroed end flag of the last frame
    ringDestroy(&ring);
}

TEST(CodecStress, RawChunksInOrderThroughTakePacket) {
    ByteRing ring;
    ringCreate(&ring, 16384);
    std::thread producer([&] {
        std::mt19937 rng(5);
        std::vector<uint8_t> stream(8192);
        size_t have = 0;
        for (int i = 0; i < kPackets; ++i) {
            std::vector<uint8_t> p = paddedFor(i);
            have += size_t(frameEncode(p.data(), stream.data() + have, int32_t(p.size())));
            // Chunks cut anywhere, as the serial port delivers them.
            while (have >= 3100 || (i == kPackets - 1 && have > 0)) {
                const size_t chunk = std::min<size_t>(have, 1 + rng() % 4096);
                while (ringPutBytes(&ring, stream.data(), uint16_t(chunk)) != 0) {
                    std::this_thread::yield();
                }
                std::memmove(stream.data(), stream.data() + chunk, have - chunk);
                have -= chunk;
            }
        }
    });
    std::vector<uint8_t> packet(8192);
    for (int i = 0; i < kPackets; ++i) {
        int32_t n;
        while ((n = ringTakePacket(&ring, packet.data(), 8192)) < 0) std::this_thread::yield();
        const std::vector<uint8_t> want = paddedFor(i);
        ASSERT_EQ(size_t(n), want.size()) << i;
        ASSERT_EQ(0, std::memcmp(packet.data(), want.data(), want.size())) << i;
    }
    producer.join();
    ringDestroy(&ring);
}

}  // namespace
