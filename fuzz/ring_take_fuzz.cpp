// libFuzzer target: arbitrary bytes in arbitrary chunks through ringPutBytes, taken out again by
// ringTakeFrame and ringTakePacket on twin rings; checks the ring invariants, the result bounds and
// that the two take operations cut the same frames.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FrameCodec.h"

namespace {

class Input {
  public:
    Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ == end_; }
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    uint16_t word() { return uint16_t(byte() | (byte() << 8)); }
    const uint8_t* take(size_t* n) {
        if (*n > size_t(end_ - p_)) *n = size_t(end_ - p_);
        const uint8_t* at = p_;
        p_ += *n;
        return at;
    }

  private:
    const uint8_t* p_;
    const uint8_t* end_;
};

void check(bool ok) {
    if (!ok) std::abort();
}

void checkRing(const ByteRing& ring) {
    const uint32_t w = ring.writeIndex.load();
    const uint32_t r = ring.readIndex.load();
    check(w < ring.size && r < ring.size && ring.mask == ring.size - 1);
    check(ringUsed(&ring) + ringFreeSpace(&ring) == ring.size - 1);
}

void put(ByteRing* a, ByteRing* b, const uint8_t* data, uint16_t n) {
    const uint32_t before = a->writeIndex.load();
    const uint32_t freeSpace = ringFreeSpace(a);
    const int32_t ra = ringPutBytes(a, data, n);
    check(ra == ringPutBytes(b, data, n));
    check(ra == ((data != nullptr && n > 0 && n <= freeSpace) ? 0 : -1));
    if (ra != 0) check(a->writeIndex.load() == before);
}

// Takes from both rings with the same limit; outputs are exactly limit bytes long, so a write
// past the limit is an address-sanitizer report.
void take(ByteRing* frames, ByteRing* packets, uint16_t limit) {
    if (limit == 0) limit = 1;
    std::vector<uint8_t> frame(limit), packet(limit);
    const uint32_t usedBefore = ringUsed(frames);
    const int32_t nf = ringTakeFrame(frames, frame.data(), limit);
    const int32_t np = ringTakePacket(packets, packet.data(), limit);
    check(frames->readIndex.load() == packets->readIndex.load());
    check(ringUsed(frames) <= usedBefore);
    if (nf < 0) {
        check(nf == -1 && np == -1);
        return;
    }
    check(nf >= 11 && nf <= 3047 && nf <= limit);
    check(frame[0] == kFrameFlag && frame[1] != kFrameFlag && frame[size_t(nf) - 1] == kFrameFlag);
    check(std::memchr(frame.data() + 1, kFrameFlag, size_t(nf) - 2) == nullptr);
    // The cut frame is zeroed in the ring and readIndex rests on its old end flag.
    const uint32_t e = frames->readIndex.load();
    for (uint32_t i = 0; i < uint32_t(nf); ++i) check(frames->storage[(e - i) & frames->mask] == 0);
    check(np == 0 || (np >= kFrameMinPayload && np <= nf - 6));
    std::vector<uint8_t> decoded(static_cast<size_t>(nf));
    check(frameDecode(frame.data(), decoded.data()) == np);
    check(std::memcmp(decoded.data(), packet.data(), size_t(np)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t config = in.byte();
    const int32_t ringSize = (config & 1) ? 1024 : 16384;
    ByteRing frames, packets;
    ringCreate(&frames, ringSize);
    ringCreate(&packets, ringSize);
    // Start anywhere in storage so that wrap-around is reached with short inputs.
    const uint32_t at = uint32_t(config >> 1) * 97u & frames.mask;
    frames.writeIndex.store(at), frames.readIndex.store(at);
    packets.writeIndex.store(at), packets.readIndex.store(at);
    std::vector<uint8_t> scratch(65536);
    while (!in.empty()) {
        const uint8_t op = in.byte();
        if ((op & 3) == 0) {  // a chunk of the input as it is
            size_t n = size_t(op >> 2) + 1;
            const uint8_t* chunk = in.take(&n);
            put(&frames, &packets, chunk, uint16_t(n));
        } else if ((op & 3) == 1) {  // a long run of one value, to reach the run bounds
            const uint16_t n = in.word() & 0x1FFF;
            std::memset(scratch.data(), in.byte(), n);
            put(&frames, &packets, scratch.data(), n);
        } else if ((op & 3) == 2) {
            take(&frames, &packets, in.word());
        } else {  // a well-formed frame around a piece of the input
            size_t n = size_t(op >> 2) * 8;
            const uint8_t* src = in.take(&n);
            std::vector<uint8_t> packet(src, src + n);
            packet.resize(std::max<size_t>(n, 64));
            const int32_t len = frameEncode(packet.data(), scratch.data(), int32_t(n));
            put(&frames, &packets, scratch.data(), uint16_t(len));
        }
        checkRing(frames);
        checkRing(packets);
    }
    ringDestroy(&frames);
    ringDestroy(&packets);
    return 0;
}
