// libFuzzer target: frameDecode and frameSkipHeader on arbitrary frames that end with 0x7E, held in
// buffers of exactly their size, and frameEncode on the input as a packet, all three against the
// frame model (leading flags, unstuffing, header, bounds, padding).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "FrameCodec.h"
#include "FrameModel.h"
#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A flat frame holds, after its leading flags, a byte other than 0x7E, then its end flag.
    const size_t lead =
        size_t(std::find_if(data, data + size, [](uint8_t b) { return b != 0x7E; }) - data);
    if (lead == size) return 0;
    model::Bytes frame(data, data + size);
    frame.push_back(0x7E);
    std::vector<const uint8_t*> ends;
    const model::Bytes body = model::unstuff(frame.data() + lead, &ends);

    model::Bytes packet(frame.size());
    const int32_t got = frameDecode(frame.data(), packet.data());
    const bool delivered = lead > 0 && body.size() >= 4 + 12;
    CHECK(got == (delivered ? int32_t(body.size() - 4) : 0));
    if (delivered) CHECK(std::equal(body.begin() + 4, body.end(), packet.begin()));

    // The header: the first four unstuffed bytes, zeros for those the end flag cut off.
    uint8_t header[kFrameHeaderLength];
    const uint8_t* after = frameSkipHeader(frame.data(), header);
    const size_t n = std::min<size_t>(body.size(), 4);
    CHECK(after == ends[n == 4 ? 3 : n]);
    for (size_t i = 0; i < 4; ++i) CHECK(header[i] == (i < n ? body[i] : 0));

    // The input as a packet: the model's frame, which decodes back to the padded packet.
    model::Bytes padded(data, data + size);
    padded.resize(std::max<size_t>(size, 64));
    model::Bytes encoded(6 + 2 * padded.size());
    const int32_t length = frameEncode(padded.data(), encoded.data(), int32_t(size));
    encoded.resize(size_t(std::max(length, 0)));
    CHECK(encoded == model::encode(model::Bytes(data, data + size)));
    model::Bytes back(padded.size());
    CHECK(frameDecode(encoded.data(), back.data()) == int32_t(padded.size()));
    CHECK(back == padded);
    return 0;
}
