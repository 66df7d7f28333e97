// libFuzzer target: arbitrary bytes in arbitrary chunks through ringPutBytes and whole frames
// through ringPutFrame (against the encoder and its bounds), taken out again by
// ringTakeFrame, ringTakePacket and ringTakePacketReport on triplet rings; checks the ring
// invariants, every result, frame, payload and readIndex against a model of the frame search, the
// bounds and the unstuffing (its own numbers, not the codec's), and that the report accounts for
// every byte the take consumed.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FrameCodec.h"
#include "FuzzInput.h"

namespace {

void checkRing(const ByteRing& ring) {
    const uint32_t w = ring.writeIndex.load();
    const uint32_t r = ring.readIndex.load();
    CHECK(w < ring.size);
    CHECK(r < ring.size);
    CHECK(ring.mask == ring.size - 1);
    CHECK(ringUsed(&ring) + ringFreeSpace(&ring) == ring.size - 1);
}

void put(ByteRing* a, ByteRing* b, ByteRing* c, const uint8_t* data, uint16_t n) {
    const uint32_t before = a->writeIndex.load();
    const uint32_t freeSpace = ringFreeSpace(a);
    const int32_t ra = ringPutBytes(a, data, n);
    CHECK(ra == ringPutBytes(b, data, n));
    CHECK(ra == ringPutBytes(c, data, n));
    CHECK(ra == ((data != nullptr && n > 0 && n <= freeSpace) ? 0 : -1));
    if (ra != 0) CHECK(a->writeIndex.load() == before);
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

// Payload of a cut frame (one flag at each end, none between): unstuffed, header dropped, and
// empty when fewer than 12 bytes remain.
std::vector<uint8_t> modelPayload(const std::vector<uint8_t>& frame) {
    std::vector<uint8_t> out;
    bool escaped = false;
    for (size_t i = 1; i + 1 < frame.size(); ++i) {
        const uint8_t b = frame[i];
        if (b == 0x5E) {
            escaped = true;
            continue;
        }
        out.push_back(escaped && b == 0x5D ? 0x5E : escaped && b == 0x7D ? 0x7E : b);
        escaped = false;
    }
    if (out.size() < 4 + 12) return {};
    return std::vector<uint8_t>(out.begin() + 4, out.end());
}

// The report names what the take consumed: noise before the start flag, then the run or the frame
// (whose end flag stays in the ring).
void checkReport(const TakeReport& rep, int32_t np, uint32_t consumed) {
    switch (rep.outcome) {
        case TakeOutcome::kNone:
            CHECK(consumed == 0 && np == -1);
            return;
        case TakeOutcome::kNoise:
            CHECK(consumed == rep.skipped && consumed > 0 && np == -1);
            return;
        case TakeOutcome::kUnterminated:
            CHECK(consumed == rep.skipped + rep.span);
            CHECK(rep.span >= 3048);
            CHECK(np == -1);
            return;
        case TakeOutcome::kTooShort:
        case TakeOutcome::kTooLong:
        case TakeOutcome::kOverLimit:
            CHECK(np == -1 && (rep.outcome != TakeOutcome::kTooShort || rep.span <= 10));
            CHECK(rep.outcome != TakeOutcome::kTooLong || rep.span > 3047);
            break;
        case TakeOutcome::kShortPayload:
            CHECK(np == 0 && rep.payload >= -1 && rep.payload < 12);
            break;
        case TakeOutcome::kDelivered:
            CHECK(np == rep.payload && np >= 12);
            break;
    }
    CHECK(consumed == rep.skipped + rep.span - 1);
}

// Takes from all three rings with the same limit, checked against the model; outputs are exactly
// limit bytes long, so a write past the limit is an address-sanitizer report. Limit 0 and a null
// output must take nothing.
void take(ByteRing* frames, ByteRing* packets, ByteRing* reported, uint16_t limit,
          bool nullOutput) {
    std::vector<uint8_t> frame(limit), packet(limit), again(limit);
    const uint32_t readBefore = frames->readIndex.load();
    const Cut want = nullOutput ? Cut{-1, frames->readIndex.load(), {}} : modelCut(*frames, limit);
    const int32_t nf = ringTakeFrame(frames, nullOutput ? nullptr : frame.data(), limit);
    const int32_t np = ringTakePacket(packets, nullOutput ? nullptr : packet.data(), limit);
    TakeReport rep{};
    CHECK(ringTakePacketReport(reported, nullOutput ? nullptr : again.data(), limit, &rep) == np);
    CHECK(nf == want.result);
    CHECK(frames->readIndex.load() == want.readIndex);
    CHECK(packets->readIndex.load() == want.readIndex);
    CHECK(reported->readIndex.load() == want.readIndex);
    checkReport(rep, np, (want.readIndex - readBefore) & frames->mask);
    if (np > 0) CHECK(std::memcmp(again.data(), packet.data(), size_t(np)) == 0);
    if (nf < 0) {
        CHECK(np == -1);
        return;
    }
    CHECK(std::equal(want.frame.begin(), want.frame.end(), frame.begin()));
    // The cut frame is zeroed in the ring and readIndex rests on its old end flag.
    const uint32_t e = frames->readIndex.load();
    for (uint32_t i = 0; i < uint32_t(nf); ++i) CHECK(frames->storage[(e - i) & frames->mask] == 0);
    const std::vector<uint8_t> payload = modelPayload(want.frame);
    CHECK(np == int32_t(payload.size()) &&
          std::equal(payload.begin(), payload.end(), packet.begin()));
    std::vector<uint8_t> decoded(static_cast<size_t>(nf));
    CHECK(frameDecode(frame.data(), decoded.data()) == np);
    CHECK(std::memcmp(decoded.data(), packet.data(), size_t(np)) == 0);
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
    CHECK(probe.size == (listed ? uint32_t(asked) : 8192u) && probe.mask == probe.size - 1);
    ringDestroy(&probe);
    ByteRing frames, packets, reported;
    ringCreate(&frames, ringSize);
    ringCreate(&packets, ringSize);
    ringCreate(&reported, ringSize);
    // Start anywhere in storage so that wrap-around is reached with short inputs.
    const uint32_t at = uint32_t(config >> 1) * 97u & frames.mask;
    frames.writeIndex.store(at), frames.readIndex.store(at);
    packets.writeIndex.store(at), packets.readIndex.store(at);
    reported.writeIndex.store(at), reported.readIndex.store(at);
    std::vector<uint8_t> scratch(65536);
    while (!in.empty()) {
        const uint8_t op = in.byte();
        if ((op & 3) == 0) {  // a chunk of the input as it is
            size_t n = size_t(op >> 2) + 1;
            const uint8_t* chunk = in.take(&n);
            put(&frames, &packets, &reported, chunk, uint16_t(n));
        } else if ((op & 3) == 1) {  // a long run of one value, to reach the run bounds
            const uint16_t n = in.word() & 0x1FFF;
            std::memset(scratch.data(), in.byte(), n);
            put(&frames, &packets, &reported, scratch.data(), n);
        } else if ((op & 3) == 2) {
            // Mostly the bridge's limits, else any limit up to 4095 (0 included); now and then a
            // null output buffer.
            const uint8_t how = in.byte();
            const uint16_t limit = (how & 3) == 0 ? (in.word() & 0xFFF) : (how & 1) ? 8192 : 8172;
            take(&frames, &packets, &reported, limit, (how & 0xF0) == 0xF0);
        } else {
            // A frame put whole by the encoder: a piece of the input or (bit 7) a run of one value
            // up to 4095 bytes long, to reach the longest frame and the 4096-byte working area.
            // Bit 6 first fills the ring with zeros so that the frame fits its free space exactly.
            size_t n = size_t((op >> 2) & 0xF) * 8;
            std::vector<uint8_t> packet;
            if (op & 0x80) {
                n = in.word() & 0xFFF;
                packet.assign(n, in.byte());
            } else {
                const uint8_t* src = in.take(&n);
                packet.assign(src, src + n);
            }
            packet.resize(std::max<size_t>(n, 64));
            std::vector<uint8_t> copy = packet;
            const int32_t len = frameEncode(copy.data(), scratch.data(), int32_t(n));
            const uint32_t room = ringFreeSpace(&frames);
            if ((op & 0x40) && uint32_t(len) < room) {
                std::memset(scratch.data() + len, 0, room - uint32_t(len));
                put(&frames, &packets, &reported, scratch.data() + len,
                    uint16_t(room - uint32_t(len)));
            }
            const uint32_t w = frames.writeIndex.load();
            const bool fits = n > 0 && len <= 4096 && uint32_t(len) <= ringFreeSpace(&frames);
            for (ByteRing* ring : {&frames, &packets, &reported}) {
                copy = packet;
                CHECK(ringPutFrame(ring, copy.data(), uint16_t(n)) == (fits ? 0 : -1));
            }
            for (int32_t i = 0; fits && i < len; ++i)
                CHECK(frames.storage[(w + uint32_t(i)) & frames.mask] == scratch[size_t(i)]);
        }
        checkRing(frames);
        checkRing(packets);
        checkRing(reported);
    }
    ringDestroy(&frames);
    ringDestroy(&packets);
    ringDestroy(&reported);
    return 0;
}
