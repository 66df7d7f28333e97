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

// Decodes one flat frame: its start flag and, after it, its end flag (two bytes at least). Returns
// the payload length (12 or more), or 0 for a missing start flag, a header cut short by a flag, an
// empty payload or one of 11 bytes or fewer. Never reads past the first 0x7E after frame[0].
int32_t frameDecode(const uint8_t* frame, uint8_t* packet);

// Unstuffs four header bytes into header, skipping one leading start flag; returns the position
// just after the last byte read. A later 0x7E ends the scan: the position of that flag is
// returned and the header bytes not reached are set to 0. Like frameDecode, the input must hold a
// 0x7E after its first byte.
const uint8_t* frameSkipHeader(const uint8_t* input, uint8_t* header);
