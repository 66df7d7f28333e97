// Serial frame codec: 7E, four header bytes FF, the packet padded to 64 bytes and byte-stuffed
// (5E -> 5E 5D, 7E -> 5E 7D), 7E. Encodes into a ByteRing and cuts frames and packets out of one.
#pragma once

#include <cstdint>

#include "ByteRing.h"

constexpr uint8_t kFrameFlag = 0x7E;
constexpr uint8_t kFrameEscape = 0x5E;
constexpr uint8_t kFrameHeaderByte = 0xFF;
constexpr int32_t kFrameHeaderLength = 4;
constexpr int32_t kFramePaddedLength = 64;  // shorter packets are padded with zeros to this
constexpr int32_t kFrameEncodeArea = 4096;  // longest frame the ring encoder builds
constexpr uint32_t kFrameMinStored = 10;    // fewer stored bytes: no search
constexpr uint32_t kFrameMinDistance = 10;  // start flag to end flag, end flag excluded
constexpr uint32_t kFrameMaxDistance = 3046;
constexpr uint32_t kFrameMaxRun = 3048;   // an unterminated run this long is dropped
constexpr int32_t kFrameMinPayload = 12;  // shorter payloads are consumed and dropped
constexpr int32_t kFrameTakeArea = 8192;  // working area of ringTakePacket

// Producer of a frame ring. packet must be writable for at least 64 bytes: a shorter packet is
// padded with zeros in place. Appends the whole frame or nothing: 0, or -1 for a null packet,
// length 0, a frame longer than the free space or longer than the 4096-byte working area.
int32_t ringPutFrame(ByteRing* ring, uint8_t* packet, uint16_t length);

// Encodes into frame, which must hold 6 + 2 * max(length, 64) bytes; pads packet like
// ringPutFrame. Returns the frame length, or -1 for a null pointer or a negative length.
int32_t frameEncode(uint8_t* packet, uint8_t* frame, int32_t length);

// Consumer of a frame ring: cuts the next whole frame, flags included, into frame (at least
// limit bytes). Returns its length (11 to 3047) or -1 when no frame was taken.
int32_t ringTakeFrame(ByteRing* ring, uint8_t* frame, uint16_t limit);

// Consumer of a ring of raw serial bytes: cuts the next frame (d + 1 <= limit), unstuffs it and
// writes its payload to packet (at least limit bytes). Returns the payload length (12 or more),
// 0 when a frame was consumed but its payload was too short, -1 when no frame was taken.
int32_t ringTakePacket(ByteRing* ring, uint8_t* packet, uint16_t limit);

// What one take from a ring of serial bytes did, so that a tool can show why bytes were dropped:
// filled by ringTakePacketReport, which shares the frame search and decoder with ringTakePacket.
enum class TakeOutcome : uint8_t {
    kNone,          // nothing consumed: under 10 bytes stored, or a frame waits for its end flag
    kNoise,         // no start flag: all but the last two stored bytes dropped
    kUnterminated,  // the run from the start flag reached 3048 bytes: everything stored dropped
    kTooShort,      // d below 10: dropped up to its end flag, which stays
    kTooLong,       // d above 3046: likewise
    kOverLimit,     // d + 1 above the caller's limit: likewise
    kShortPayload,  // frame consumed, payload of 11 bytes or fewer: result 0
    kDelivered,     // frame consumed and decoded: result is the payload length
};

struct TakeReport {
    TakeOutcome outcome;
    uint32_t skipped;  // bytes dropped before the start flag (for kNoise, all the bytes dropped)
    uint32_t span;     // from the start flag: d + 1 (end flag included) or the unterminated run
    int32_t payload;   // kShortPayload, kDelivered: unstuffed payload length, -1 for a header cut
                       // short by escape bytes
};

// ringTakePacket that also says what it did; report must not be null. Not for the daemon's path.
int32_t ringTakePacketReport(ByteRing* ring, uint8_t* packet, uint16_t limit, TakeReport* report);

// Flat frames have no length: the header scan skips the 0x7E bytes that lead the frame (its start
// flag, doubled or not), and the first 0x7E after any other byte ends the frame. So the input must
// hold, after its leading flags, a byte other than 0x7E and, after that, a 0x7E; nothing past that
// 0x7E is read.

// Decodes one flat frame. Returns the payload length (12 or more), or 0 for a missing start flag,
// a header cut short by the end flag, an empty payload or one of 11 bytes or fewer.
int32_t frameDecode(const uint8_t* frame, uint8_t* packet);

// Unstuffs four header bytes into header and returns the position just after the last byte read.
// When the end flag comes first, its position is returned and the header bytes not reached are
// set to 0.
const uint8_t* frameSkipHeader(const uint8_t* input, uint8_t* header);
