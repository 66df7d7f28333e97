// The serial frame as its format defines it, written apart from the codec with numbers of its own
// (flag 0x7E, escape 0x5E, four header bytes 0xFF, padding to 64, payloads of 12 or more): the
// fuzz targets check the encoder, the decoder and the extractor's packets against it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace model {

using Bytes = std::vector<uint8_t>;

// 7E, FF FF FF FF, the packet padded with zeros to 64 bytes and stuffed, 7E.
inline Bytes encode(Bytes packet) {
    if (packet.size() < 64) packet.resize(64, 0);
    Bytes frame{0x7E, 0xFF, 0xFF, 0xFF, 0xFF};
    for (const uint8_t b : packet) {
        if (b == 0x5E || b == 0x7E) frame.push_back(0x5E);
        frame.push_back(b == 0x5E ? 0x5D : b == 0x7E ? 0x7D : b);
    }
    frame.push_back(0x7E);
    return frame;
}

// The bytes from `at` up to the next 0x7E, unstuffed: 5E 5D is 5E, 5E 7D is 7E, and an escape
// before any other byte is dropped. ends[k], if asked for, is the input position just after the
// byte that gave output byte k; the position of the 0x7E comes last.
inline Bytes unstuff(const uint8_t* at, std::vector<const uint8_t*>* ends = nullptr) {
    Bytes out;
    bool escaped = false;
    for (; *at != 0x7E; ++at) {
        if (*at == 0x5E) {
            escaped = true;
            continue;
        }
        out.push_back(escaped && *at == 0x5D ? 0x5E : escaped && *at == 0x7D ? 0x7E : *at);
        if (ends != nullptr) ends->push_back(at + 1);
        escaped = false;
    }
    if (ends != nullptr) ends->push_back(at);
    return out;
}

// The packet of a frame that starts with one 0x7E: its unstuffed body less the four header bytes,
// or nothing when fewer than 12 bytes remain.
inline Bytes payload(const uint8_t* frame) {
    const Bytes body = unstuff(frame + 1);
    if (body.size() < 4 + 12) return {};
    return Bytes(body.begin() + 4, body.end());
}

// A line stream from fuzz input: the input's bytes, each byte 0xF0..0xF3 standing for a 0x7E and
// 3045 to 3048 copies of itself, which reach the bounds of frame length and unterminated runs;
// about 16 kB at most, which keeps an input fast.
inline Bytes lineStream(const uint8_t* data, size_t size) {
    Bytes stream;
    for (const uint8_t* b = data; b < data + size && stream.size() < 16384; ++b) {
        const bool run = *b >= 0xF0 && *b <= 0xF3;
        if (run) stream.push_back(0x7E);
        stream.insert(stream.end(), run ? 3045 + (*b & 3) : 1, *b);
    }
    return stream;
}

}  // namespace model
