// Frame encoder and extractor: exact wire bytes, random round trips through both take operations,
// the length bounds, resynchronisation after noise and lost flags, and wrap-around in storage.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "FrameCodec.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Ring {
    explicit Ring(int32_t size, uint32_t at = 0) {
        ringCreate(&r, size);
        r.writeIndex.store(at);
        r.readIndex.store(at);
    }
    ~Ring() { ringDestroy(&r); }
    void put(const Bytes& b) { ASSERT_EQ(ringPutBytes(&r, b.data(), uint16_t(b.size())), 0); }
    uint32_t read() const { return r.readIndex.load(); }
    uint32_t write() const { return r.writeIndex.load(); }
    ByteRing r;
};

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes fill(size_t n, uint8_t v) {
    return Bytes(n, v);
}
const Bytes kFlag{0x7E};
const Bytes kHeader{0xFF, 0xFF, 0xFF, 0xFF};

// 7E, header, body (already stuffed), 7E: d = 5 + body size.
Bytes frameOf(const Bytes& body) {
    return cat({kFlag, kHeader, body, kFlag});
}

Bytes encode(Bytes packet) {
    const size_t len = packet.size();
    packet.resize(std::max<size_t>(len, 64));
    Bytes frame(6 + 2 * packet.size());
    frame.resize(size_t(frameEncode(packet.data(), frame.data(), int32_t(len))));
    return frame;
}

Bytes padded(Bytes packet) {
    if (packet.size() < 64) packet.resize(64, 0);
    return packet;
}

// Mode 0: uniform bytes; 1: only 5E and 7E; 2: mostly special and near-special values.
Bytes randomPacket(std::mt19937& rng, size_t len, int mode) {
    static const uint8_t kNear[] = {0x5E, 0x7E, 0x5D, 0x7D, 0x00, 0xFF};
    Bytes p(len);
    for (auto& b : p) {
        if (mode == 0) b = uint8_t(rng());
        if (mode == 1) b = (rng() & 1) ? 0x5E : 0x7E;
        if (mode == 2) b = (rng() % 4) ? kNear[rng() % 6] : uint8_t(rng());
    }
    return p;
}

Bytes takeFrame(Ring& ring, uint16_t limit = 8172) {
    Bytes out(8192);
    const int32_t n = ringTakeFrame(&ring.r, out.data(), limit);
    out.resize(n < 0 ? 0 : size_t(n));
    return out;
}

TEST(FrameEncoder, WireBytesPaddingAndStuffing) {
    Bytes packet(64, 0xEE);
    packet[0] = 0x41;
    Bytes frame(200);
    ASSERT_EQ(frameEncode(packet.data(), frame.data(), 1), 70);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 70),
              cat({kFlag, kHeader, {0x41}, fill(63, 0), kFlag}));
    EXPECT_EQ(packet, cat({{0x41}, fill(63, 0)}));  // padding written into the caller's buffer

    EXPECT_EQ(encode(fill(64, 0x11)), frameOf(fill(64, 0x11)));  // 64 bytes: no padding
    EXPECT_EQ(encode(fill(63, 0x11)), frameOf(cat({fill(63, 0x11), {0}})));
    EXPECT_EQ(encode(fill(64, 0x7E)).size(), 134u);
    Bytes special = fill(64, 0x20);
    special[0] = 0x5E, special[1] = 0x7E, special[2] = 0x5D, special[3] = 0x7D;
    EXPECT_EQ(encode(special),
              frameOf(cat({{0x5E, 0x5D, 0x5E, 0x7D, 0x5D, 0x7D}, fill(60, 0x20)})));
    EXPECT_EQ(encode({}), frameOf(fill(64, 0)));
    EXPECT_EQ(frameEncode(special.data(), frame.data(), -1), -1);
}

TEST(FrameEncoder, RingPutIsAllOrNothing) {
    Ring ring(1024);
    Bytes packet(64, 0x41);
    EXPECT_EQ(ringPutFrame(&ring.r, nullptr, 10), -1);
    EXPECT_EQ(ringPutFrame(&ring.r, packet.data(), 0), -1);
    EXPECT_EQ(packet, fill(64, 0x41));
    ring.put(fill(1023 - 70 + 1, 0));  // free space: 69
    EXPECT_EQ(ringPutFrame(&ring.r, packet.data(), 1), -1);
    EXPECT_EQ(ring.write(), 954u);
    ring.r.readIndex.store(1);  // free space: exactly 70
    ASSERT_EQ(ringPutFrame(&ring.r, packet.data(), 1), 0);
    EXPECT_EQ(ring.write(), 0u);
    EXPECT_EQ(ring.r.storage[954], 0x7E);
    EXPECT_EQ(ring.r.storage[1023], 0x7E);
}

TEST(FrameEncoder, NeverOverrunsTheWorkingArea) {
    Ring ring(131072);
    Bytes p = fill(4096, 0x7E);
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 2045), 0);  // 6 + 2 * 2045 = 4096
    EXPECT_EQ(ringUsed(&ring.r), 4096u);
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 2046), -1);
    p = fill(65535, 0x33);
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 4090), 0);
    p[0] = 0x5E;
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 4090), -1);  // one escape too many
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 4091), -1);
    EXPECT_EQ(ringPutFrame(&ring.r, p.data(), 65535), -1);
    EXPECT_EQ(ringUsed(&ring.r), 8192u);
}

TEST(FrameRoundTrip, RandomPacketsThroughTakeFrame) {
    std::mt19937 rng(7);
    Ring ring(32768);
    for (int round = 0; round < 1500; ++round) {
        std::vector<Bytes> sent;
        for (int k = int(rng() % 5); k >= 0; --k) {
            Bytes p = randomPacket(rng, 1 + rng() % 2045, int(rng() % 3));
            const Bytes wire = encode(p);
            const size_t len = p.size();
            p.resize(std::max<size_t>(len, 64));
            ASSERT_EQ(ringPutFrame(&ring.r, p.data(), uint16_t(len)), 0);
            sent.push_back(wire);
        }
        for (const Bytes& wire : sent) {
            if (wire.size() > 3047) {
                EXPECT_TRUE(takeFrame(ring).empty());  // too long for the extractor
            } else {
                ASSERT_EQ(takeFrame(ring), wire);
            }
        }
    }
}

TEST(FrameRoundTrip, RandomChunksThroughTakePacket) {
    std::mt19937 rng(11);
    Ring ring(16384);
    Bytes stream;
    std::vector<Bytes> expected;
    for (int i = 0; i < 3000; ++i) {
        Bytes p = randomPacket(rng, 1 + rng() % 1800, i % 10 == 0 ? 1 : int(rng() % 3));
        Bytes wire = encode(p);
        stream.insert(stream.end(), wire.begin(), wire.end());
        if (wire.size() <= 3047) expected.push_back(padded(p));
    }
    std::vector<Bytes> got;
    Bytes out(8192);
    auto drain = [&] {
        for (;;) {
            const uint32_t before = ring.read();
            const int32_t n = ringTakePacket(&ring.r, out.data(), 8192);
            if (n > 0) got.emplace_back(out.begin(), out.begin() + n);
            ASSERT_NE(n, 0);  // every frame here has a payload of 64 bytes or more
            if (n < 0 && ring.read() == before) return;
        }
    };
    for (size_t pos = 0; pos < stream.size();) {
        const size_t chunk = std::min<size_t>(1 + rng() % 4096, stream.size() - pos);
        if (ringPutBytes(&ring.r, stream.data() + pos, uint16_t(chunk)) == 0) pos += chunk;
        if (rng() % 2 || pos < stream.size()) drain();
    }
    drain();
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], expected[i]) << i;
}

TEST(FrameExtractor, LengthBounds) {
    for (uint32_t d : {9u, 10u, 3046u, 3047u}) {
        Ring ring(16384);
        const Bytes f = frameOf(fill(d - 5, 0x41));
        ring.put(f);
        const Bytes got = takeFrame(ring);
        EXPECT_EQ(got.empty(), d == 9 || d == 3047) << d;
        if (!got.empty()) {
            EXPECT_EQ(got, f) << d;
        }
        EXPECT_EQ(ring.read(), d) << d;  // at the end flag either way
    }
    Ring ring(1024);
    const Bytes f = frameOf(fill(95, 0x41));  // d = 100
    ring.put(cat({f, f}));
    EXPECT_TRUE(takeFrame(ring, 100).empty());
    EXPECT_EQ(ring.read(), 100u);
    EXPECT_EQ(takeFrame(ring, 101), f);  // the kept end flag opens the second frame
    // Nine stored bytes are never searched, even when they form a frame.
    Ring small(1024);
    small.put({0x7E, 1, 2, 3, 4, 5, 6, 7, 0x7E});
    EXPECT_TRUE(takeFrame(small).empty());
    EXPECT_EQ(small.read(), 0u);
}

TEST(FrameExtractor, SuccessfulTakeZeroesAcrossTheWrap) {
    Ring ring(1024, 1000);
    const Bytes f = frameOf(cat({fill(18, 0x41), {0x5E}, {0x7D}, fill(20, 0x42)}));
    ring.put(f);  // the escape pair straddles the end of storage: 5E at 1023, 7D at 0
    ASSERT_EQ(ring.r.storage[1023], 0x5E);
    EXPECT_EQ(takeFrame(ring), f);
    EXPECT_EQ(ring.read(), (1000 + f.size() - 1) & 1023);
    for (uint32_t i = 0; i < f.size(); ++i) EXPECT_EQ(ring.r.storage[(1000 + i) & 1023], 0);
    EXPECT_EQ(ringUsed(&ring.r), 1u);

    Ring again(1024, 1000);
    again.put(f);
    Bytes out(8192);
    ASSERT_EQ(ringTakePacket(&again.r, out.data(), 8192), 39);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 39), cat({fill(18, 0x41), {0x7E}, fill(20, 0x42)}));
}

TEST(FrameExtractor, NoiseAndRepeatedFlags) {
    Ring ring(1024);
    ring.put(cat({fill(20, 0x41), {0x7E, 0xFF}}));
    EXPECT_TRUE(takeFrame(ring).empty());
    EXPECT_EQ(ring.read(), 20u);  // everything but the last two bytes is dropped
    const Bytes rest = cat({kHeader, fill(64, 0x43), kFlag});
    ring.put(Bytes(rest.begin() + 1, rest.end()));
    EXPECT_EQ(takeFrame(ring), frameOf(fill(64, 0x43)));  // the kept 7E FF opened the frame

    Ring twice(1024);
    const Bytes f = frameOf(fill(64, 0x44));
    twice.put(cat({{0x7E, 0x7E}, f}));
    EXPECT_EQ(takeFrame(twice), f);
    EXPECT_EQ(twice.read(), 1 + f.size());

    // A frame still waiting for its end flag keeps the noise in front of it.
    Ring waiting(1024);
    waiting.put(cat({fill(5, 0x41), kFlag, kHeader, fill(30, 0x45)}));
    EXPECT_TRUE(takeFrame(waiting).empty());
    EXPECT_EQ(waiting.read(), 0u);
}

TEST(FrameExtractor, UnterminatedRunIsDroppedAtBound) {
    Ring ring(16384);
    ring.put(cat({{0x11}, kFlag, fill(3046, 0x41)}));  // 3047 bytes from the start flag
    EXPECT_TRUE(takeFrame(ring).empty());
    EXPECT_EQ(ring.read(), 0u);
    ring.put({0x41});  // 3048 bytes: the whole content goes
    EXPECT_TRUE(takeFrame(ring).empty());
    EXPECT_EQ(ring.read(), ring.write());
}

TEST(FrameExtractor, LostEndFlagMergesOrDrops) {
    const Bytes next = frameOf(fill(64, 0x52));
    Ring merged(16384);
    merged.put(cat({kFlag, kHeader, fill(20, 0x51), next}));
    Bytes out(8192);
    EXPECT_EQ(ringTakePacket(&merged.r, out.data(), 8192), 20);  // ended by the next start flag
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 20), fill(20, 0x51));
    EXPECT_EQ(ringTakePacket(&merged.r, out.data(), 8192), -1);  // the next frame went with it
    EXPECT_EQ(ringUsed(&merged.r), 2u);

    Ring tooLong(16384);
    tooLong.put(cat({kFlag, kHeader, fill(3100, 0x51), next}));
    EXPECT_EQ(ringTakePacket(&tooLong.r, out.data(), 8192), -1);
    EXPECT_EQ(ringTakePacket(&tooLong.r, out.data(), 8192), 64);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64), fill(64, 0x52));
}

TEST(FrameDecoder, UnstuffingRules) {
    const Bytes body = cat({fill(12, 0x11),
                            {0x5D, 0x7D, 0x5E, 0x5D, 0x5E, 0x7D, 0x5E, 0x41},
                            {0x5E, 0x5E, 0x5D, 0x5E}});
    const Bytes want = cat({fill(12, 0x11), {0x5D, 0x7D, 0x5E, 0x7E, 0x41, 0x5E}});
    const Bytes f = frameOf(body);
    Bytes out(8192);
    EXPECT_EQ(frameDecode(f.data(), out.data()), int32_t(want.size()));
    EXPECT_EQ(Bytes(out.begin(), out.begin() + want.size()), want);
    Ring ring(1024);
    ring.put(f);
    EXPECT_EQ(ringTakePacket(&ring.r, out.data(), 8192), int32_t(want.size()));
    EXPECT_EQ(Bytes(out.begin(), out.begin() + want.size()), want);

    // Payload bounds: 12 bytes are delivered, 11 consumed and dropped.
    for (size_t n : {11u, 12u}) {
        Ring r(1024);
        r.put(frameOf(fill(n, 0x22)));
        EXPECT_EQ(ringTakePacket(&r.r, out.data(), 8192), n == 12 ? 12 : 0);
        EXPECT_EQ(r.read(), 5 + n);
        EXPECT_EQ(r.r.storage[0], 0);
    }
    const Bytes notFlag = cat({{0x41}, kHeader, fill(20, 1), kFlag});
    EXPECT_EQ(frameDecode(notFlag.data(), out.data()), 0);
    const Bytes empty = frameOf({});
    EXPECT_EQ(frameDecode(empty.data(), out.data()), 0);
}

TEST(FrameDecoder, ShortHeaderStopsAtTheEndFlag) {
    // Heap copies of exactly the frame's size, so a read past the flag is a sanitizer report.
    const Bytes escapes = cat({kFlag, fill(9, 0x5E), kFlag});  // d = 10, no header byte emitted
    std::vector<uint8_t> exact(escapes);
    Bytes out(8192);
    uint8_t header[4] = {9, 9, 9, 9};
    EXPECT_EQ(frameDecode(exact.data(), out.data()), 0);
    EXPECT_EQ(frameSkipHeader(exact.data(), header), exact.data() + 10);
    EXPECT_EQ(Bytes(header, header + 4), Bytes(4, 0));
    const Bytes two{0x7E, 0xFF, 0xFF, 0x7E};
    std::vector<uint8_t> exactTwo(two);
    EXPECT_EQ(frameDecode(exactTwo.data(), out.data()), 0);
    EXPECT_EQ(frameSkipHeader(exactTwo.data(), header), exactTwo.data() + 3);
    EXPECT_EQ(Bytes(header, header + 4), Bytes({0xFF, 0xFF, 0, 0}));
    const Bytes stuffedHeader{0x7E, 0x5E, 0x5D, 0xFF, 0x5E, 0x41, 0x5E, 0x7D, 0x99};
    EXPECT_EQ(frameSkipHeader(stuffedHeader.data(), header), stuffedHeader.data() + 8);
    EXPECT_EQ(Bytes(header, header + 4), Bytes({0x5E, 0xFF, 0x41, 0x7E}));

    Ring ring(1024);
    ring.put(escapes);
    EXPECT_EQ(ringTakePacket(&ring.r, out.data(), 8192), 0);  // consumed, nothing delivered
    EXPECT_EQ(ring.read(), 10u);
    EXPECT_EQ(ring.r.storage[0], 0);
}

}  // namespace
