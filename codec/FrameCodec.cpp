// Serial frame codec: the stuffing encoder into a ByteRing or a flat buffer, the frame search that
// cuts frames out of a ring, and the unstuffing decoder. Pure code: no system calls, no allocation.
#include "FrameCodec.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "RingSpan.h"

namespace {

constexpr uint8_t kEscapedEscape = 0x5D;  // 5E 5D stands for 5E
constexpr uint8_t kEscapedFlag = 0x7D;    // 5E 7D stands for 7E
constexpr int32_t kFrameOverhead = 2 + kFrameHeaderLength;

// 0x5E and 0x7E differ only in bit 5, so one compare after OR-ing it in finds both.
constexpr uint8_t kSpecialBit = 0x20;
inline bool isSpecial(uint8_t b) {
    return (b | kSpecialBit) == kFrameFlag;
}

constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kLow7 = 0x7F7F7F7F7F7F7F7FULL;

// Bit 7 of each byte of the result is set exactly where the byte of v is 0x5E or 0x7E.
inline uint64_t specialBytes(uint64_t v) {
    const uint64_t x = (v | kOnes * kSpecialBit) ^ (kOnes * kFrameFlag);
    return ~(((x & kLow7) + kLow7) | x | kLow7);
}

int32_t countSpecial(const uint8_t* src, int32_t n) {
    int32_t count = 0;
    for (int32_t i = 0; i < n; ++i) count += isSpecial(src[i]) ? 1 : 0;
    return count;
}

// Stuffs n packet bytes into dst and returns the number written (n plus one per special byte).
// Words without special bytes move eight at a time; a word with any is stuffed byte by byte
// without branches. Every store lies inside the stuffed output or on the byte just after it, which
// is the end flag's place: each input byte still to come emits at least one byte.
int32_t stuff(const uint8_t* src, int32_t n, uint8_t* dst) {
    const uint8_t* const end = src + n;
    uint8_t* o = dst;
    while (end - src >= 8) {
        uint64_t word;
        std::memcpy(&word, src, 8);
        if (specialBytes(word) == 0) {
            std::memcpy(o, &word, 8);
            src += 8;
            o += 8;
            continue;
        }
        for (int j = 0; j < 8; ++j) {
            const uint8_t b = src[j];
            const bool special = isSpecial(b);
            o[0] = special ? kFrameEscape : b;
            o[1] = static_cast<uint8_t>(b - 1);  // 5E -> 5D, 7E -> 7D; overwritten otherwise
            o += 1 + (special ? 1 : 0);
        }
        src += 8;
    }
    while (src < end) {
        const uint8_t b = *src++;
        if (isSpecial(b)) {
            *o++ = kFrameEscape;
            *o++ = static_cast<uint8_t>(b - 1);
        } else {
            *o++ = b;
        }
    }
    return static_cast<int32_t>(o - dst);
}

// Pads a short packet in place and returns the length to encode.
int32_t padPacket(uint8_t* packet, int32_t length) {
    if (length >= kFramePaddedLength) return length;
    std::memset(packet + length, 0, static_cast<size_t>(kFramePaddedLength - length));
    return kFramePaddedLength;
}

// Writes the whole frame for an already padded packet; dst must hold 6 + length + specials.
int32_t buildFrame(const uint8_t* packet, int32_t length, uint8_t* dst) {
    dst[0] = kFrameFlag;
    std::memset(dst + 1, kFrameHeaderByte, kFrameHeaderLength);
    const int32_t body = stuff(packet, length, dst + 1 + kFrameHeaderLength);
    dst[1 + kFrameHeaderLength + body] = kFrameFlag;
    return kFrameOverhead + body;
}

// Applies the unstuffing rules from src until four header bytes are emitted. 0x7E bytes met before
// any other byte are skipped and not counted (a doubled start flag); a 0x7E met after another byte
// ends the scan, since without a length it may be the frame's end flag and nothing past it may be
// read. Returns the position after the last byte read (the flag's own position if one stopped it)
// and the number of header bytes emitted.
const uint8_t* unstuffHeader(const uint8_t* src, uint8_t* header, int32_t* emitted) {
    while (*src == kFrameFlag) ++src;
    int32_t n = 0;
    bool escaped = false;
    while (n < kFrameHeaderLength) {
        uint8_t b = *src;
        if (b == kFrameFlag) break;
        ++src;
        if (b == kFrameEscape) {
            escaped = true;
            continue;
        }
        if (escaped) {
            if (b == kEscapedEscape) b = kFrameEscape;
            if (b == kEscapedFlag) b = kFrameFlag;
            escaped = false;
        }
        header[n++] = b;
    }
    *emitted = n;
    return src;
}

// Unstuffs the payload from src up to the end flag into out and returns its length. When flagAt
// is known (a cut frame: no 0x7E before it) runs without escape bytes are copied in bulk;
// otherwise bytes are read one at a time so nothing past the first 0x7E is touched.
int32_t unstuffPayload(const uint8_t* src, const uint8_t* flagAt, uint8_t* out) {
    uint8_t* o = out;
    bool escaped = false;
    for (;;) {
        if (flagAt != nullptr && !escaped && *src != kFrameEscape) {
            const size_t left = static_cast<size_t>(flagAt - src);
            const void* esc = std::memchr(src, kFrameEscape, left);
            const size_t run = esc != nullptr ? static_cast<const uint8_t*>(esc) - src : left;
            std::memcpy(o, src, run);
            o += run;
            src += run;
        }
        uint8_t b = *src++;
        if (b == kFrameFlag) break;  // an escape just before the flag is dropped
        if (b == kFrameEscape) {
            escaped = true;  // of several escapes in a row only the last counts
            continue;
        }
        if (escaped) {
            if (b == kEscapedEscape) b = kFrameEscape;
            if (b == kEscapedFlag) b = kFrameFlag;
            escaped = false;  // any other byte after an escape is kept, the escape dropped
        }
        *o++ = b;
    }
    return static_cast<int32_t>(o - out);
}

// Decodes a frame whose start flag is at frame[0]; flagAt as for unstuffPayload.
int32_t decodeFrame(const uint8_t* frame, const uint8_t* flagAt, uint8_t* packet) {
    uint8_t header[kFrameHeaderLength];
    int32_t headerBytes = 0;
    const uint8_t* body = unstuffHeader(frame + 1, header, &headerBytes);
    // Fewer than four header bytes means a flag stopped the scan: nothing to deliver.
    if (headerBytes < kFrameHeaderLength || *body == kFrameFlag) return 0;
    const int32_t n = unstuffPayload(body, flagAt, packet);
    return n < kFrameMinPayload ? 0 : n;
}

// Records what a take did. The daemon's takes pass nullptr, whose overload is empty, so their
// instance of the search is compiled without any of this.
inline void note(std::nullptr_t, TakeOutcome, uint32_t, uint32_t) {}
inline void note(TakeReport* report, TakeOutcome outcome, uint32_t skipped, uint32_t span) {
    report->outcome = outcome;
    report->skipped = skipped;
    report->span = span;
    report->payload = 0;
}

// The frame search shared by both take operations. On success the frame's d + 1 bytes are
// copied to dst and zeroed in the ring, and readIndex is moved to its end flag. Report is
// TakeReport* or std::nullptr_t.
template <typename Report>
int32_t cutFrame(ByteRing* ring, uint8_t* dst, uint16_t limit, Report report) {
    // Own index, written only by this consumer thread: relaxed.
    const uint32_t r = ring->readIndex.load(std::memory_order_relaxed);
    // Acquire: the producer's stores of the bytes up to w happen before we read them.
    const uint32_t w = ring->writeIndex.load(std::memory_order_acquire);
    const uint32_t mask = ring->mask;
    const uint8_t* const bytes = ring->storage;
    note(report, TakeOutcome::kNone, 0, 0);
    if (((w - r) & mask) < kFrameMinStored) return -1;

    // A start flag is a 7E followed by something else; the last two stored bytes are not searched
    // so that they can still open a frame.
    const uint32_t t = (w - 2) & mask;
    uint32_t p = r;
    int64_t start = -1;
    while (p != t) {
        const int64_t hit = ringSpanFind(ring, p, (t - p) & mask, kFrameFlag);
        if (hit < 0) break;
        const uint32_t next = (static_cast<uint32_t>(hit) + 1) & mask;
        if (bytes[next] != kFrameFlag) {
            start = hit;
            break;
        }
        p = next;
    }
    if (start < 0) {
        // Release: our reads of the skipped bytes are done before the producer may reuse them.
        ring->readIndex.store(t, std::memory_order_release);
        note(report, TakeOutcome::kNoise, (t - r) & mask, 0);
        return -1;
    }

    const uint32_t s = static_cast<uint32_t>(start);
    const uint32_t from = (s + 2) & mask;
    const int64_t endHit = ringSpanFind(ring, from, (w - from) & mask, kFrameFlag);
    if (endHit < 0) {
        if (((w - s) & mask) >= kFrameMaxRun) {
            // Release: as above; the whole unterminated run is dropped.
            ring->readIndex.store(w, std::memory_order_release);
            note(report, TakeOutcome::kUnterminated, (s - r) & mask, (w - s) & mask);
        }
        return -1;
    }

    const uint32_t e = static_cast<uint32_t>(endHit);
    const uint32_t d = (e - s) & mask;
    if (d < kFrameMinDistance || d > kFrameMaxDistance || d + 1 > limit) {
        // Release: as above; the end flag stays and may open the next frame.
        ring->readIndex.store(e, std::memory_order_release);
        note(report,
             d < kFrameMinDistance   ? TakeOutcome::kTooShort
             : d > kFrameMaxDistance ? TakeOutcome::kTooLong
                                     : TakeOutcome::kOverLimit,
             (s - r) & mask, d + 1);
        return -1;
    }
    ringSpanLoad(ring, s, dst, d + 1);
    ringSpanZero(ring, s, d + 1);
    // Release: the frame is copied out and zeroed before the producer may reuse its slots.
    ring->readIndex.store(e, std::memory_order_release);
    note(report, TakeOutcome::kDelivered, (s - r) & mask, d + 1);
    return static_cast<int32_t>(d + 1);
}

}  // namespace

int32_t ringPutFrame(ByteRing* ring, uint8_t* packet, uint16_t length) {
    if (packet == nullptr || length == 0) return -1;
    // Own index, written only by this producer thread: relaxed.
    const uint32_t w = ring->writeIndex.load(std::memory_order_relaxed);
    // Acquire: the consumer's copying and zeroing of the slots it released happen before we reuse
    // them.
    const uint32_t r = ring->readIndex.load(std::memory_order_acquire);
    const uint32_t freeSpace = ring->size - 1 - ((w - r) & ring->mask);

    const int32_t padded = padPacket(packet, length);
    // Up to 2045 bytes even a packet of only special bytes fits the working area; beyond that
    // the stuffed length decides, and a frame that would not fit is refused like a full ring.
    if (kFrameOverhead + 2 * padded > kFrameEncodeArea &&
        kFrameOverhead + padded + countSpecial(packet, padded) > kFrameEncodeArea) {
        return -1;
    }
    uint8_t area[kFrameEncodeArea];
    const int32_t frameLength = buildFrame(packet, padded, area);
    if (static_cast<uint32_t>(frameLength) > freeSpace) return -1;
    ringSpanStore(ring, w, area, static_cast<uint32_t>(frameLength));
    // Release, once per frame: all its bytes are in place before the consumer can see any of
    // them, so the published index is never ahead of its data and no torn frame is visible.
    ring->writeIndex.store((w + static_cast<uint32_t>(frameLength)) & ring->mask,
                           std::memory_order_release);
    return 0;
}

int32_t frameEncode(uint8_t* packet, uint8_t* frame, int32_t length) {
    if (packet == nullptr || frame == nullptr || length < 0) return -1;
    const int32_t padded = padPacket(packet, length);
    return buildFrame(packet, padded, frame);
}

int32_t ringTakeFrame(ByteRing* ring, uint8_t* frame, uint16_t limit) {
    if (frame == nullptr || limit == 0) return -1;
    return cutFrame(ring, frame, limit, nullptr);
}

int32_t ringTakePacket(ByteRing* ring, uint8_t* packet, uint16_t limit) {
    if (packet == nullptr || limit == 0) return -1;
    uint8_t area[kFrameTakeArea];
    const int32_t length = cutFrame(ring, area, limit, nullptr);
    if (length < 0) return -1;
    // The cut frame holds 0x7E only at its two ends, so the decoder may scan up to the end flag.
    return decodeFrame(area, area + length - 1, packet);
}

int32_t ringTakePacketReport(ByteRing* ring, uint8_t* packet, uint16_t limit, TakeReport* report) {
    note(report, TakeOutcome::kNone, 0, 0);
    if (packet == nullptr || limit == 0) return -1;
    uint8_t area[kFrameTakeArea];
    const int32_t length = cutFrame(ring, area, limit, report);
    if (length < 0) return -1;
    const int32_t n = decodeFrame(area, area + length - 1, packet);
    if (n > 0) {
        report->payload = n;
        return n;
    }
    // Dropped: tell how short the payload was. Every payload byte but an escape byte emits one
    // byte, so counting them gives the unstuffed length without a second unstuffing pass (whose
    // code here would cost the daemon's decoder its inlining).
    report->outcome = TakeOutcome::kShortPayload;
    uint8_t header[kFrameHeaderLength];
    int32_t headerBytes = 0;
    const uint8_t* body = unstuffHeader(area + 1, header, &headerBytes);
    const uint8_t* const end = area + length - 1;
    report->payload = headerBytes < kFrameHeaderLength
                          ? -1
                          : static_cast<int32_t>(std::count_if(
                                body, end, [](uint8_t b) { return b != kFrameEscape; }));
    return 0;
}

int32_t frameDecode(const uint8_t* frame, uint8_t* packet) {
    if (frame == nullptr || packet == nullptr || frame[0] != kFrameFlag) return 0;
    return decodeFrame(frame, nullptr, packet);
}

const uint8_t* frameSkipHeader(const uint8_t* input, uint8_t* header) {
    int32_t emitted = 0;
    const uint8_t* after = unstuffHeader(input, header, &emitted);
    for (int32_t i = emitted; i < kFrameHeaderLength; ++i) header[i] = 0;
    return after;
}
