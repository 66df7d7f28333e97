// The hand-over from the bridge's reader threads to its dispatcher: when a reader must wake the
// dispatcher, and how the dispatcher sleeps, so that it costs nothing while no ring holds work.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

#include "ByteRing.h"

// The dispatcher passes, at most one frame each way per pass, while a pass finds something; then
// it sleeps until a reader brings what could let it deliver or drop a frame:
// - the TAP reader wakes it for every frame it stores;
// - the serial reader wakes it when its chunk holds the 0x7E that an idle pass found missing (one
//   to close a frame a stored 0x7E may have opened, else two), and whenever the ring's fill has
//   grown to an unterminated run's limit, which only a pass can drop.
// Chunks that do neither cannot change what the extractor delivers: at most they add noise that it
// would skip, or complete a too-short frame it would drop, and the next pass does that instead.
class DispatcherWake {
  public:
    struct Pass {
        uint32_t wakes;  // wake() calls seen when the pass started
        uint32_t flags;  // 0x7E bytes the serial reader had stored when the pass started
    };

    // Any reader thread: ends the dispatcher's sleep, or keeps it from starting the next one.
    void wake();

    // Serial reader thread only, after it stored chunk[0..length) in ring: whether the dispatcher
    // must run for it.
    bool serialChunkNeedsPass(const ByteRing* ring, const uint8_t* chunk, uint32_t length);

    // Dispatcher thread only. A pass starts with passStart; after a pass that found nothing more,
    // armIdle sets the serial rule for the stored bytes and tells whether the dispatcher may sleep
    // without a time limit (false: a chunk it has not looked at may already have ended a frame).
    Pass passStart() const;
    bool armIdle(const ByteRing* serialRing, const Pass& pass);
    // Sleeps until wake() is called after pass started, or at most timeout (null: no limit).
    void sleep(const Pass& pass, const timespec* timeout);

  private:
    std::atomic<uint32_t> wakes{0};        // bumped by wake(); the dispatcher sleeps on it
    std::atomic<uint32_t> sleeping{0};     // the dispatcher may be asleep: wake() makes the call
    std::atomic<uint32_t> flagsStored{0};  // 0x7E bytes stored in the serial ring; serial reader
    std::atomic<uint32_t> wakeAtFlags{0};  // flagsStored at which the idle dispatcher must run
    uint32_t readerFlags = 0;              // serial reader's own copy of flagsStored
};

// One dispatcher take from a ring (ringTakeFrame or ringTakePacket), after clearing `clear` bytes
// of out. Returns the take's result; more tells whether a further take could find something
// without new bytes (it moved readIndex and enough bytes remain for a search).
int32_t takeNextFrame(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more);
int32_t takeNextPacket(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more);
