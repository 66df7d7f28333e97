// libFuzzer target: frameDecode and frameSkipHeader on arbitrary frames that end with 0x7E, held in
// buffers of exactly their size; clean frames must decode as ringTakePacket decodes them, and any
// input encoded by frameEncode must decode back to the padded packet.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FrameCodec.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A frame holds its start flag and, after it, its end flag: at least two bytes.
    if (size == 0) return 0;
    std::vector<uint8_t> frame(data, data + size);
    frame.push_back(kFrameFlag);
    const size_t n = frame.size();
    std::vector<uint8_t> packet(n);
    const int32_t got = frameDecode(frame.data(), packet.data());
    check(got == 0 || (got >= kFrameMinPayload && size_t(got) + 6 <= n));

    uint8_t header[kFrameHeaderLength];
    const uint8_t* after = frameSkipHeader(frame.data(), header);
    check(after >= frame.data() && after < frame.data() + n);

    // A clean frame (one start flag, no other 7E before its end flag, d within bounds) must give
    // the same result through the ring.
    const void* inner = n > 2 ? std::memchr(frame.data() + 1, kFrameFlag, n - 2) : nullptr;
    if (frame[0] == kFrameFlag && inner == nullptr && n >= 11 && n <= 3047) {
        ByteRing ring;
        ringCreate(&ring, 8192);
        check(ringPutBytes(&ring, frame.data(), uint16_t(n)) == 0);
        std::vector<uint8_t> viaRing(8192);
        check(ringTakePacket(&ring, viaRing.data(), 8192) == got);
        check(std::memcmp(viaRing.data(), packet.data(), size_t(got)) == 0);
        ringDestroy(&ring);
    }

    // Encoding the input as a packet and decoding the frame gives back the padded packet.
    std::vector<uint8_t> padded(data, data + size);
    padded.resize(std::max<size_t>(size, 64));
    std::vector<uint8_t> encoded(6 + 2 * padded.size());
    const int32_t len = frameEncode(padded.data(), encoded.data(), int32_t(size));
    check(len >= 70 && size_t(len) <= encoded.size());
    encoded.resize(size_t(len));
    std::vector<uint8_t> back(padded.size());
    check(frameDecode(encoded.data(), back.data()) == int32_t(padded.size()));
    check(back == padded);
    return 0;
}
