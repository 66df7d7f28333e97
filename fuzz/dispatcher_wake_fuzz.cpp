// libFuzzer target: the dispatcher's wake-up rule against a dispatcher that polls after every
// chunk. One stream of line bytes (noise with and without flags, good, torn, too-short and
// over-long frames, unterminated runs, flags) is cut into chunks of 1..4096 bytes and stored into
// two serial rings. The polling model takes from its ring until nothing moves after every chunk;
// the other runs passes only when DispatcherWake says a chunk needs one, then passes until it may
// sleep. After every chunk both must have delivered the same packets, refused the same chunks, and
// the woken ring must still have room for a whole read; after one that woke no one, it must hold
// less than an unterminated run's limit (3048 bytes). Some streams hold clean frames only.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "DispatcherWake.h"
#include "FrameCodec.h"
#include "FuzzInput.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRingSize = 16384;
constexpr uint32_t kReadSize = 4096;
constexpr uint16_t kLimit = 8192;
constexpr size_t kStreamCap = 400000;  // keeps one input fast

struct Rng {  // xorshift: long streams from short inputs
    uint64_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return uint32_t(s >> 32);
    }
};

// A packet as the interface would hand it over: random, or made of special bytes only, or an IPv4
// or IPv6 packet whose length field is true to the packet.
Bytes makePacket(Rng& rng, uint32_t length, uint8_t kind) {
    Bytes p(length);
    for (auto& b : p) b = uint8_t(rng.next());
    if (length > 12 && (p[12] == 0x08 || p[12] == 0x86)) p[12] = 0;  // no IP type by chance
    if (kind % 5 == 1) std::fill(p.begin(), p.end(), kFrameFlag);
    if (kind % 5 == 2) std::fill(p.begin(), p.end(), kFrameEscape);
    if (kind % 5 == 3) {
        for (auto& b : p) b = (rng.next() & 1) ? kFrameFlag : kFrameEscape;
    }
    if (kind % 5 == 4 && length >= 60) {
        const bool v6 = rng.next() & 1;
        const uint32_t ip = v6 ? length - 14 - 40 : length - 14;
        const uint32_t field = ip - rng.next() % 8 % (ip + 1);  // the frame may carry padding
        p[12] = v6 ? 0x86 : 0x08;
        p[13] = v6 ? 0xDD : 0x00;
        p[v6 ? 18 : 16] = uint8_t(field >> 8);
        p[v6 ? 19 : 17] = uint8_t(field);
    }
    return p;
}

void appendFrame(Bytes& stream, Bytes packet) {
    const size_t length = packet.size();
    packet.resize(std::max<size_t>(length, kFramePaddedLength));
    Bytes frame(6 + 2 * packet.size());
    const int32_t n = frameEncode(packet.data(), frame.data(), int32_t(length));
    stream.insert(stream.end(), frame.begin(), frame.begin() + n);
}

// Takes until readIndex stops moving, as a dispatcher that passes after every chunk would.
void pollDrain(ByteRing* ring, std::vector<Bytes>& out) {
    Bytes packet(kLimit);
    for (;;) {
        const uint32_t before = ring->readIndex.load();
        const int32_t n = ringTakePacket(ring, packet.data(), kLimit);
        if (n > 0) out.emplace_back(packet.begin(), packet.begin() + n);
        if (ring->readIndex.load() == before) return;
    }
}

// The dispatcher's loop, passes back to back, until it would sleep without a time limit.
void wokenDrain(ByteRing* ring, std::vector<Bytes>& out) {
    Bytes packet(kLimit);
    for (bool more = true; more;) {
        const int32_t n = takeNextPacket(ring, packet.data(), kLimit, kLimit, &more);
        if (n > 0) out.emplace_back(packet.begin(), packet.begin() + n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const uint8_t config = in.byte();
    const bool clean = config & 1;
    Rng rng{0x9E3779B97F4A7C15ull ^ (uint64_t(config) << 32) ^ size};

    Bytes stream;
    while (!in.empty() && stream.size() < kStreamCap) {
        const uint8_t op = in.byte();
        const uint16_t w = in.word();
        switch (clean ? 1 : op & 7) {
            case 0:  // noise: with flags, or without (which only the fill bound makes a pass drop)
                for (uint32_t i = 0, b; i < w % 8192u; ++i)
                    stream.push_back((b = uint8_t(rng.next())) == 0x7E && (op & 8) ? 0
                                                                                   : uint8_t(b));
                break;
            case 1:  // a good frame
                appendFrame(stream, makePacket(rng, 1 + w % 1514u, op >> 3));
                break;
            case 2: {  // a torn frame
                Bytes frame;
                appendFrame(frame, makePacket(rng, 1 + w % 1514u, op >> 3));
                stream.insert(stream.end(), frame.begin(),
                              frame.begin() + rng.next() % frame.size());
                break;
            }
            case 3:  // over-long: d above 3046
                appendFrame(stream, makePacket(rng, 3030 + w % 1100u, 0));
                break;
            case 4:  // an unterminated run around the wait bound, or far past it
                stream.push_back(kFrameFlag);
                for (uint32_t i = 0; i < (op & 8 ? 3040 + w % 16u : w % 9000u); ++i) {
                    const uint8_t b = uint8_t(rng.next());
                    stream.push_back(b == kFrameFlag ? 0 : b);
                }
                break;
            case 5:  // flags
                stream.insert(stream.end(), 1 + w % 4u, kFrameFlag);
                break;
            case 6: {  // too short: d below 10, or a payload of 11 bytes or fewer
                stream.push_back(kFrameFlag);
                for (uint32_t i = 0; i < w % 20u; ++i) stream.push_back(uint8_t(rng.next() | 1));
                stream.push_back(kFrameFlag);
                break;
            }
            default:  // a long quiet gap is nothing on the line: reseed instead
                rng.s ^= uint64_t(w) << 17 | 1;
                break;
        }
    }

    ByteRing polled, woken;
    ringCreate(&polled, kRingSize);
    ringCreate(&woken, kRingSize);
    std::vector<Bytes> fromPolled, fromWoken;
    const uint32_t maxChunk = 1 + config % 8 * 585u;  // 1 .. 4096
    size_t next = 0;
    while (next < stream.size()) {
        const uint32_t chunk = std::min<uint32_t>(1 + rng.next() % maxChunk, stream.size() - next);
        const uint8_t* bytes = stream.data() + next;
        next += chunk;
        const int32_t polledPut = ringPutBytes(&polled, bytes, uint16_t(chunk));
        const int32_t wokenPut = ringPutBytes(&woken, bytes, uint16_t(chunk));
        CHECK(polledPut == wokenPut);
        pollDrain(&polled, fromPolled);
        const bool woke =
            wokenPut == 0 && DispatcherWake::serialChunkNeedsPass(&woken, bytes, chunk);
        if (woke) wokenDrain(&woken, fromWoken);
        CHECK(fromPolled == fromWoken);
        CHECK(woke || ringUsed(&woken) < 3048);  // an unterminated run's limit: a pass must drop it
        CHECK(ringUsed(&woken) + kReadSize <= kRingSize - 1);
    }
    ringDestroy(&polled);
    ringDestroy(&woken);
    return 0;
}
