// libFuzzer target: frameDecode and frameSkipHeader on arbitrary frames that end with 0x7E, held in
// buffers of exactly their size, and frameEncode on the input as a packet; all three are checked
// against a model of the frame format (leading flags, unstuffing, header, bounds, padding) that
// keeps its own numbers: flag 0x7E, escape 0x5E, 64-byte padding, 4-byte header, 12-byte payload.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FrameCodec.h"
#include "FuzzInput.h"

namespace {

// Unstuffs from `at` to the first 0x7E; `stops[k]` is the input position after the byte that
// emitted output byte k.
std::vector<uint8_t> unstuff(const std::vector<uint8_t>& in, size_t at,
                             std::vector<size_t>& stops) {
    std::vector<uint8_t> out;
    bool escaped = false;
    for (; in[at] != 0x7E; ++at) {
        if (in[at] == 0x5E) {
            escaped = true;
            continue;
        }
        out.push_back(escaped && in[at] == 0x5D ? 0x5E : escaped && in[at] == 0x7D ? 0x7E : in[at]);
        stops.push_back(at + 1);
        escaped = false;
    }
    stops.push_back(at);  // the end flag
    return out;
}

std::vector<uint8_t> modelEncode(std::vector<uint8_t> packet) {
    packet.resize(std::max<size_t>(packet.size(), 64), 0);
    std::vector<uint8_t> frame{0x7E, 0xFF, 0xFF, 0xFF, 0xFF};
    for (uint8_t b : packet) {
        if (b == 0x5E || b == 0x7E) frame.push_back(0x5E);
        frame.push_back(b == 0x5E ? 0x5D : b == 0x7E ? 0x7D : b);
    }
    frame.push_back(0x7E);
    return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A flat frame holds, after its leading flags, a byte other than 0x7E, then its end flag.
    const size_t lead =
        size_t(std::find_if(data, data + size, [](uint8_t b) { return b != 0x7E; }) - data);
    if (lead == size) return 0;
    std::vector<uint8_t> frame(data, data + size);
    frame.push_back(0x7E);
    std::vector<size_t> stops;
    const std::vector<uint8_t> body = unstuff(frame, lead, stops);

    std::vector<uint8_t> packet(frame.size());
    const int32_t got = frameDecode(frame.data(), packet.data());
    const bool ok = lead > 0 && body.size() >= 4 + 12;
    CHECK(got == (ok ? int32_t(body.size() - 4) : 0));
    CHECK(!ok || std::equal(body.begin() + 4, body.end(), packet.begin()));

    uint8_t header[kFrameHeaderLength];
    const uint8_t* after = frameSkipHeader(frame.data(), header);
    const size_t n = std::min<size_t>(body.size(), 4);
    CHECK(after == frame.data() + stops[n == 4 ? 3 : n]);
    for (size_t i = 0; i < 4; ++i) CHECK(header[i] == (i < n ? body[i] : 0));

    // Encoding the input as a packet: the model's bytes, and they decode back to the padded packet.
    std::vector<uint8_t> padded(data, data + size);
    padded.resize(std::max<size_t>(size, 64));
    std::vector<uint8_t> encoded(6 + 2 * padded.size());
    const int32_t len = frameEncode(padded.data(), encoded.data(), int32_t(size));
    encoded.resize(size_t(std::max(len, 0)));
    CHECK(encoded == modelEncode(std::vector<uint8_t>(data, data + size)));
    std::vector<uint8_t> back(padded.size());
    CHECK(frameDecode(encoded.data(), back.data()) == int32_t(padded.size()) && back == padded);
    return 0;
}
