// libFuzzer target: bytes in any chunks through ringPutBytes and frames through ringPutFrame
// (against the frame model's encoder and the bounds), taken out by ringTakeFrame and
// ringTakePacketReport from two rings fed alike: the fill, results, frames, payloads, readIndex and
// the report's byte count against a model of the frame search with numbers of its own. The
// daemon's ringTakePacket, which shares the cut and the decoder, is the wake-up target's.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FrameCodec.h"
#include "FrameModel.h"
#include "FuzzInput.h"

namespace {

// The fill as the indices say: at most size - 1 bytes, so equal indices mean an empty ring.
uint32_t modelUsed(const ByteRing& ring) {
    return (ring.writeIndex.load() - ring.readIndex.load()) & (ring.size - 1);
}

void checkRing(const ByteRing& ring) {
    CHECK(ring.writeIndex.load() < ring.size);
    CHECK(ring.readIndex.load() < ring.size);
    CHECK(ringUsed(&ring) == modelUsed(ring));
}

// Into both rings, which hold the same bytes.
void put(ByteRing* frames, ByteRing* packets, const uint8_t* data, uint16_t n) {
    const uint32_t before = frames->writeIndex.load();
    const bool fits = data != nullptr && n > 0 && n <= frames->size - 1 - modelUsed(*frames);
    CHECK(ringPutBytes(frames, data, n) == (fits ? 0 : -1));
    CHECK(ringPutBytes(packets, data, n) == (fits ? 0 : -1));
    if (!fits) CHECK(frames->writeIndex.load() == before);
}

// The cut as the frame format defines it, worked out on a copy of the stored bytes: the result,
// where readIndex must end up, and the frame.
struct Cut {
    int32_t result;
    uint32_t readIndex;
    std::vector<uint8_t> frame;
};

Cut modelCut(const ByteRing& ring, uint16_t limit) {
    const uint32_t m = ring.mask, r = ring.readIndex.load(), w = ring.writeIndex.load();
    auto at = [&](uint32_t p) { return ring.storage[p & m]; };
    if (limit == 0 || ((w - r) & m) < 10) return {-1, r, {}};
    uint32_t s = r;
    while (s != ((w - 2) & m) && !(at(s) == 0x7E && at(s + 1) != 0x7E)) s = (s + 1) & m;
    if (s == ((w - 2) & m)) return {-1, s, {}};
    uint32_t e = (s + 2) & m;
    while (e != w && at(e) != 0x7E) e = (e + 1) & m;
    if (e == w) return {-1, ((w - s) & m) >= 3048 ? w : r, {}};
    const uint32_t d = (e - s) & m;
    if (d < 10 || d > 3046 || d + 1 > limit) return {-1, e, {}};
    Cut cut{int32_t(d + 1), e, {}};
    for (uint32_t i = 0; i <= d; ++i) cut.frame.push_back(at(s + i));
    return cut;
}

// The bytes a take's report names: noise before the start flag, then the unterminated run, or the
// frame up to its end flag, which stays in the ring.
uint32_t reported(const TakeReport& report) {
    switch (report.outcome) {
        case TakeOutcome::kNone:
            return 0;
        case TakeOutcome::kNoise:
            return report.skipped;
        case TakeOutcome::kUnterminated:
            return report.skipped + report.span;
        default:
            return report.skipped + report.span - 1;
    }
}

// Takes a frame from one ring and a packet with its report from the other, with the same limit,
// checked against the model; outputs are exactly limit bytes long, so a write past the limit is an
// address-sanitizer report. Limit 0 and a null output must take nothing.
void take(ByteRing* frames, ByteRing* packets, uint16_t limit, bool nullOutput) {
    std::vector<uint8_t> frame(limit), packet(limit);
    const uint32_t before = frames->readIndex.load();
    const Cut want = nullOutput ? Cut{-1, before, {}} : modelCut(*frames, limit);
    const int32_t nf = ringTakeFrame(frames, nullOutput ? nullptr : frame.data(), limit);
    TakeReport report{};
    const int32_t np =
        ringTakePacketReport(packets, nullOutput ? nullptr : packet.data(), limit, &report);
    CHECK(nf == want.result);
    CHECK(frames->readIndex.load() == want.readIndex);
    CHECK(packets->readIndex.load() == want.readIndex);
    CHECK(reported(report) == ((want.readIndex - before) & frames->mask));
    if (np > 0) CHECK(report.payload == np);
    if (nf < 0) {
        CHECK(np == -1);
        return;
    }
    CHECK(std::equal(want.frame.begin(), want.frame.end(), frame.begin()));
    // The cut frame is zeroed in the ring and readIndex rests on its old end flag.
    const uint32_t e = frames->readIndex.load();
    for (uint32_t i = 0; i < uint32_t(nf); ++i) CHECK(frames->storage[(e - i) & frames->mask] == 0);
    const model::Bytes payload = model::payload(want.frame.data());
    CHECK(np == int32_t(payload.size()));
    CHECK(std::equal(payload.begin(), payload.end(), packet.begin()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const uint8_t config = in.byte();
    const int32_t ringSize = (config & 1) ? 1024 : 16384;
    // Sizes other than a power of two from 1024 to 131072 give the default 8192.
    ByteRing probe;
    const int32_t asked = (int32_t(config) - 8) * (1 << (config % 18));
    ringCreate(&probe, asked);
    const bool listed = asked >= 1024 && asked <= 131072 && (asked & (asked - 1)) == 0;
    CHECK(probe.size == (listed ? uint32_t(asked) : 8192u));
    CHECK(probe.mask == probe.size - 1);
    ringDestroy(&probe);
    ByteRing frames, packets;
    ringCreate(&frames, ringSize);
    ringCreate(&packets, ringSize);
    // Start anywhere in storage so that wrap-around is reached with short inputs.
    const uint32_t at = uint32_t(config >> 1) * 97u & frames.mask;
    for (ByteRing* ring : {&frames, &packets}) {
        ring->writeIndex.store(at);
        ring->readIndex.store(at);
    }
    static uint8_t scratch[16384];
    while (!in.empty()) {
        const uint8_t op = in.byte();
        if ((op & 3) == 0) {  // a chunk of the input as it is
            size_t n = size_t(op >> 2) + 1;
            const uint8_t* chunk = in.take(&n);
            put(&frames, &packets, chunk, uint16_t(n));
        } else if ((op & 3) == 1) {  // a long run of one value, to reach the run bounds
            const uint16_t n = in.word() & 0x1FFF;
            std::memset(scratch, in.byte(), n);
            put(&frames, &packets, scratch, n);
        } else if ((op & 3) == 2) {
            // Mostly the bridge's limits, else any limit up to 4095 (0 included); now and then a
            // null output buffer.
            const uint8_t how = in.byte();
            const uint16_t limit = (how & 3) == 0 ? (in.word() & 0xFFF) : (how & 1) ? 8192 : 8172;
            take(&frames, &packets, limit, (how & 0xF0) == 0xF0);
        } else {
            // A frame put whole by the encoder: a piece of the input or (bit 7) a run of one value
            // up to 4095 bytes long, to reach the longest frame and the 4096-byte working area.
            // Bit 6 first fills the ring with zeros so that the frame fits its free space exactly.
            size_t n = size_t((op >> 2) & 0xF) * 8;
            model::Bytes packet;
            if (op & 0x80) {
                n = in.word() & 0xFFF;
                packet.assign(n, in.byte());
            } else {
                const uint8_t* src = in.take(&n);
                packet.assign(src, src + n);
            }
            const model::Bytes wire = model::encode(packet);
            const uint32_t room = frames.size - 1 - modelUsed(frames);
            if ((op & 0x40) && wire.size() < room) {
                std::memset(scratch, 0, room - wire.size());
                put(&frames, &packets, scratch, uint16_t(room - wire.size()));
            }
            const uint32_t w = frames.writeIndex.load();
            const uint32_t left = frames.size - 1 - modelUsed(frames);
            const bool fits = n > 0 && wire.size() <= 4096 && wire.size() <= left;
            packet.resize(std::max<size_t>(n, 64));
            for (ByteRing* ring : {&frames, &packets}) {
                model::Bytes copy = packet;
                CHECK(ringPutFrame(ring, copy.data(), uint16_t(n)) == (fits ? 0 : -1));
            }
            for (uint32_t i = 0; fits && i < wire.size(); ++i)
                CHECK(frames.storage[(w + i) & frames.mask] == wire[i]);
        }
        checkRing(frames);  // the other ring's indices are compared with these at every take
    }
    ringDestroy(&frames);
    ringDestroy(&packets);
    return 0;
}
