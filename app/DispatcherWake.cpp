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

uint32_t countFlags(const uint8_t* p, const uint8_t* end) {
    uint32_t n = 0;
    while (p < end) {
        const void* hit = std::memchr(p, kFrameFlag, static_cast<size_t>(end - p));
        if (hit == nullptr) break;
        ++n;
        p = static_cast<const uint8_t*>(hit) + 1;
    }
    return n;
}

bool reached(uint32_t count, uint32_t mark) {
    return static_cast<int32_t>(count - mark) >= 0;  // the counters wrap
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
    bool need = ringUsed(ring) >= kFrameMaxRun;
    const uint32_t flags = countFlags(chunk, chunk + length);
    if (flags == 0) return need;
    readerFlags += flags;
    // seq_cst, with armIdle: of "store the count, then read the mark" here and "store the mark,
    // then read the count" there at least one side sees the other, so a mark set while this
    // chunk was stored is either honoured here or makes the dispatcher pass again.
    flagsStored.store(readerFlags, std::memory_order_seq_cst);
    return need || reached(readerFlags, wakeAtFlags.load(std::memory_order_seq_cst));
}

DispatcherWake::Pass DispatcherWake::passStart() const {
    Pass pass;
    // Acquire on both: what a reader stored before its wake() or before counting its flags is
    // visible to this pass's takes, so the flags in pass.flags lie in bytes the pass looks at.
    pass.wakes = wakes.load(std::memory_order_acquire);
    pass.flags = flagsStored.load(std::memory_order_acquire);
    return pass;
}

bool DispatcherWake::armIdle(const ByteRing* serialRing, const Pass& pass) {
    // The pass found nothing to deliver or drop. A stored 0x7E may have opened a frame that one
    // more flag closes; without one, a frame needs two. Flags counted after pass.flags but
    // already scanned here only make the mark early: an extra pass, never a missed one.
    const uint32_t mark = pass.flags + (ringHolds(serialRing, kFrameFlag) ? 1u : 2u);
    // seq_cst: see serialChunkNeedsPass.
    wakeAtFlags.store(mark, std::memory_order_seq_cst);
    return !reached(flagsStored.load(std::memory_order_seq_cst), mark);
}

void DispatcherWake::sleep(const Pass& pass, const timespec* timeout) {
    // seq_cst: see wake(). The futex compares the counter again in the kernel.
    sleeping.store(1, std::memory_order_seq_cst);
    if (wakes.load(std::memory_order_seq_cst) == pass.wakes) futexWait(&wakes, pass.wakes, timeout);
    // Relaxed: the flag only spares wake() its system call, it orders nothing.
    sleeping.store(0, std::memory_order_relaxed);
}

int32_t takeNextFrame(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more) {
    return takeNext(ringTakeFrame, ring, out, clear, limit, more);
}

int32_t takeNextPacket(ByteRing* ring, uint8_t* out, uint32_t clear, uint16_t limit, bool* more) {
    return takeNext(ringTakePacket, ring, out, clear, limit, more);
}
