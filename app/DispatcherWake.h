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
// - the serial reader wakes it for every chunk that holds a 0x7E, and whenever the ring's fill has
//   grown to an unterminated run's limit, which only a pass can drop.
// A chunk without a 0x7E cannot change what the extractor delivers: at most it adds noise that it
// would skip, or lengthens a frame that only a later flag (or the fill bound) can end.
class DispatcherWake {
  public:
    // Any reader thread: ends the dispatcher's sleep, or keeps it from starting the next one.
    void wake();

    // Serial reader thread only, after it stored chunk[0..length) in ring: whether the dispatcher
    // must run for it.
    static bool serialChunkNeedsPass(const ByteRing* ring, const uint8_t* chunk, uint32_t length);

    // Dispatcher thread only. A pass starts with passStart; sleep then waits until wake() is called
    // after that, or at most timeout (null: no limit), so a wake-up during the pass is never lost.
    uint32_t passStart() const;
    void sleep(uint32_t pass, const timespec* timeout);

  private:
    std::atomic<uint32_t> wakes{0};     // bumped by wake(); the dispatcher sleeps on it
    std::atomic<uint32_t> sleeping{0};  // the dispatcher may be asleep: wake() makes the call
};

// One dispatcher take from a ring (ringTakeFrame or ringTakePacket), after clearing `clear` bytes
// of out. Returns the take's result; more tells whether a further take could find something
// without new bytes (it moved readIndex and enough bytes remain for a search).
int32_t takeNextFrame(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more);
int32_t takeNextPacket(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more);
