// The serial side of the bridge on two threads, also for the thread sanitizer: a producer puts the
// encoded stream into the ring in chunks cut anywhere and hands them over by the wake-up rule; the
// consumer takes packets and sleeps as the dispatcher does, but at most 5 s: a sleep that lasts
// that long while a frame is awaited is a lost wake-up, reported with the frame, not a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "DispatcherWake.h"
#include "FrameCodec.h"

TEST(CodecStress, RawChunksHandedOverByTheWakeUpRule) {
    auto packetFor = [](int i) {  // every seventh made only of special bytes
        std::mt19937 rng(uint32_t(i) * 2654435761u);
        std::vector<uint8_t> p(std::max<size_t>(64, 4 + rng() % 1511));
        for (auto& b : p) b = (i % 7 == 0) ? ((rng() & 1) ? 0x5E : 0x7E) : uint8_t(rng());
        return p;
    };
    ByteRing ring;
    ringCreate(&ring, 16384);
    DispatcherWake wake;
    std::atomic<bool> stop{false};  // a failed check ends the producer too
    std::thread producer([&] {
        std::mt19937 rng(5);
        std::vector<uint8_t> stream(8192);
        for (int i = 0; i < 12000 && !stop; ++i) {
            std::vector<uint8_t> p = packetFor(i);
            const size_t have = size_t(frameEncode(p.data(), stream.data(), int32_t(p.size())));
            for (size_t at = 0, chunk; at < have && !stop; at += chunk) {
                chunk = std::min<size_t>(have - at, 1 + rng() % 512);
                while (ringPutBytes(&ring, stream.data() + at, uint16_t(chunk)) != 0 && !stop)
                    std::this_thread::yield();
                if (DispatcherWake::serialChunkNeedsPass(&ring, stream.data() + at,
                                                         uint32_t(chunk)))
                    wake.wake();
            }
        }
    });
    std::vector<uint8_t> out(8192);
    const timespec bound = {5, 0};
    for (int i = 0; i < 12000; ++i) {  // the dispatcher's passes and idle sleeps, bounded
        int32_t n;
        bool more = false;
        for (uint32_t pass = wake.passStart();
             (n = takeNextPacket(&ring, out.data(), 8192, 8192, &more)) <= 0 && !HasFailure();
             pass = wake.passStart()) {
            if (more) continue;
            const auto asleep = std::chrono::steady_clock::now();
            wake.sleep(pass, &bound);
            EXPECT_LT(std::chrono::steady_clock::now() - asleep, std::chrono::seconds(5))
                << "frame " << i << ": slept out the 5-second bound, no wake-up came";
        }
        if (HasFailure()) break;
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + n), packetFor(i))
            << "frame " << i;
    }
    stop = true;
    producer.join();
    ringDestroy(&ring);
}
