// libFuzzer target: the dispatcher's wake-up rule, and the line capture's tap, against the frame
// rules read byte by byte. A line stream (the input, with runs that reach the length bounds) is
// cut into chunks of 1..4096 bytes and stored into a serial ring, which is drained only when
// DispatcherWake says a chunk needs a pass. After every chunk the ring must have delivered every
// packet whose end flag has arrived, as the reference finds them; after a chunk that woke no one
// it must hold less than an unterminated run's limit; and it must always have room for another
// whole read. The tap, reading the same stream in chunks as large, must find the same packets.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "DispatcherWake.h"
#include "FrameModel.h"
#include "FuzzInput.h"
#include "LineTap.h"

namespace {

using model::Bytes;

// The frame rules applied after every byte: a frame opens at a 0x7E followed by another byte and
// ends at the next 0x7E. One of 11 to 3047 bytes with its flags is cut, end flag included, and
// its packet delivered if it has 12 bytes or more; any other keeps its end flag as a possible
// start. A run that reaches 3048 bytes without an end flag is dropped whole.
struct Reference {
    Bytes open;
    std::vector<Bytes> packets;
    void add(uint8_t b) {
        if (open.empty() && b != 0x7E) return;  // noise
        open.push_back(b);
        if (b != 0x7E) {
            if (open.size() >= 3048) open.clear();
            return;
        }
        const size_t d = open.size() - 1;
        const bool cut = d >= 10 && d <= 3046;
        const Bytes packet = cut ? model::payload(open.data()) : Bytes();
        if (!packet.empty()) packets.push_back(packet);
        open.assign(cut ? 0 : 1, 0x7E);
    }
};

// The line capture's tap, which shows a line as the daemon reads it: its packets only.
struct Delivered : WireSink {
    std::vector<Bytes> packets;
    void delivered(uint64_t, int64_t, const uint8_t* payload, size_t length) override {
        packets.emplace_back(payload, payload + length);
    }
    void dropped(uint64_t, int64_t, const uint8_t*, size_t, const std::string&) override {}
    void noise(uint64_t, int64_t, const uint8_t*, size_t) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const Bytes stream = model::lineStream(data + 1, size - 1);
    ByteRing ring;
    ringCreate(&ring, 16384);
    Reference reference;
    size_t delivered = 0;
    Bytes packet(8192);
    std::minstd_rand rng(data[0] + 1u);
    const uint32_t maxChunk = 1 + data[0] % 8 * 585u;  // 1 .. 4096
    for (size_t next = 0; next < stream.size();) {
        const size_t chunk = std::min<size_t>(1 + rng() % maxChunk, stream.size() - next);
        const uint8_t* bytes = stream.data() + next;
        for (size_t i = 0; i < chunk; ++i) reference.add(bytes[i]);
        next += chunk;
        CHECK(ringPutBytes(&ring, bytes, uint16_t(chunk)) == 0);
        const bool woke = DispatcherWake::serialChunkNeedsPass(&ring, bytes, uint32_t(chunk));
        for (bool more = woke; more;) {
            const int32_t n = takeNextPacket(&ring, packet.data(), 8192, 8192, &more);
            if (n <= 0) continue;
            CHECK(delivered < reference.packets.size());
            CHECK(Bytes(packet.begin(), packet.begin() + n) == reference.packets[delivered]);
            ++delivered;
        }
        CHECK(delivered == reference.packets.size());
        if (!woke) CHECK(ringUsed(&ring) < 3048);
        CHECK(ringUsed(&ring) + 4096 <= 16383);
    }
    ringDestroy(&ring);
    Delivered tapped;
    LineTap tap(tapped, std::max<uint32_t>(maxChunk, 64));
    tap.feedNominal(stream.data(), stream.size(), 57600);
    tap.finish(LineTap::nominalNs(stream.size(), 57600));
    CHECK(tapped.packets == reference.packets);
    return 0;
}
