// The reader-to-dispatcher hand-over: a futex event counter, and the serial reader's rule for when
// a chunk of line bytes is worth a dispatcher pass.
#include "DispatcherWake.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "FrameCodec.h"

namespace {

long futexWait(std::atomic<uint32_t>* word, uint32_t expected, const timespec* timeout) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected,
                   timeout, nullptr, 0);
}

long futexWake(std::atomic<uint32_t>* word) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr,
                   nullptr, 0);
}

using TakeFn = int32_t (*)(ByteRing*, uint8_t*, uint16_t);

int32_t takeNext(TakeFn take, ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit,
                 bool* more) {
    *more = false;
    // Fewer bytes than a search needs: the take would return at once and change nothing.
    if (ringUsed(ring) < kFrameMinStored) return -1;
    std::memset(out, 0, clear);
    // Own index, written only by this consumer thread: relaxed.
    const uint32_t before = ring->readIndex.load(std::memory_order_relaxed);
    const int32_t result = take(ring, out, limit);
    // A take that moved readIndex delivered, dropped or skipped something: the next may find more.
    *more = ring->readIndex.load(std::memory_order_relaxed) != before &&
            ringUsed(ring) >= kFrameMinStored;
    return result;
}

}  // namespace

void DispatcherWake::wake() {
    // seq_cst, with sleep(): of "bump, then read sleeping" here and "set sleeping, then read the
    // counter" there at least one side sees the other, so no wake-up is lost; the bump's release
    // also publishes the ring bytes stored before it to the pass that reads the counter.
    wakes.fetch_add(1, std::memory_order_seq_cst);
    if (sleeping.load(std::memory_order_seq_cst) != 0) futexWake(&wakes);
}

bool DispatcherWake::serialChunkNeedsPass(const ByteRing* ring, const uint8_t* chunk,
                                          uint32_t length) {
    // The fill bounds every unterminated run from above; only a pass drops a run at its limit.
    return ringUsed(ring) >= kFrameMaxRun || std::memchr(chunk, kFrameFlag, length) != nullptr;
}

uint32_t DispatcherWake::passStart() const {
    // Acquire: what a reader stored before its wake() is visible to this pass's takes.
    return wakes.load(std::memory_order_acquire);
}

void DispatcherWake::sleep(uint32_t pass, const timespec* timeout) {
    // seq_cst: see wake(). The futex compares the counter again in the kernel.
    sleeping.store(1, std::memory_order_seq_cst);
    if (wakes.load(std::memory_order_seq_cst) == pass) futexWait(&wakes, pass, timeout);
    // Relaxed: the flag only spares wake() its system call, it orders nothing.
    sleeping.store(0, std::memory_order_relaxed);
}

int32_t takeNextFrame(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more) {
    return takeNext(ringTakeFrame, ring, out, clear, limit, more);
}

int32_t takeNextPacket(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more) {
    return takeNext(ringTakePacket, ring, out, clear, limit, more);
}
