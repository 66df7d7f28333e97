// Two threads on one ring, as in the bridge, meant for the thread sanitizer: a producer puts whole
// frames (the TAP side) or the encoded stream in chunks cut anywhere (the serial side) while the
// consumer takes them, in order and intact. Chunks are handed over by the wake-up rule and the
// consumer sleeps as the dispatcher does, so a lost wake-up hangs the run.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "DispatcherWake.h"
#include "FrameCodec.h"

TEST(CodecStress, FramesAndRawChunksInOrder) {
    auto packetFor = [](int i) {  // every seventh made only of special bytes
        std::mt19937 rng(uint32_t(i) * 2654435761u);
        std::vector<uint8_t> p(std::max<size_t>(64, 4 + rng() % 1511));
        for (auto& b : p) b = (i % 7 == 0) ? ((rng() & 1) ? 0x5E : 0x7E) : uint8_t(rng());
        return p;
    };
    for (bool raw : {false, true}) {
        ByteRing ring;
        ringCreate(&ring, raw ? 16384 : 32768);
        DispatcherWake wake;
        std::thread producer([&] {
            std::mt19937 rng(5);
            std::vector<uint8_t> stream(8192);
            for (int i = 0; i < 12000; ++i) {
                std::vector<uint8_t> p = packetFor(i);
                while (!raw && ringPutFrame(&ring, p.data(), uint16_t(p.size())) != 0)
                    std::this_thread::yield();
                size_t have =
                    raw ? size_t(frameEncode(p.data(), stream.data(), int32_t(p.size()))) : 0;
                for (size_t at = 0, chunk; at < have; at += chunk) {
                    chunk = std::min<size_t>(have - at, 1 + rng() % 512);
                    while (ringPutBytes(&ring, stream.data() + at, uint16_t(chunk)) != 0)
                        std::this_thread::yield();
                    if (wake.serialChunkNeedsPass(&ring, stream.data() + at, uint32_t(chunk)))
                        wake.wake();
                }
            }
        });
        std::vector<uint8_t> out(8192), expect(8192);
        for (int i = 0; i < 12000; ++i) {
            int32_t n;
            bool more = false;
            while (!raw && (n = ringTakeFrame(&ring, out.data(), 8172)) < 0)
                std::this_thread::yield();
            for (DispatcherWake::Pass pass; raw;) {  // the dispatcher's pass and idle sleep
                pass = wake.passStart();
                if ((n = takeNextPacket(&ring, out.data(), 8192, 8192, &more)) > 0) break;
                if (!more && wake.armIdle(&ring, pass)) wake.sleep(pass, nullptr);
            }
            std::vector<uint8_t> p = packetFor(i);
            const int32_t want =
                raw ? int32_t(p.size()) : frameEncode(p.data(), expect.data(), int32_t(p.size()));
            ASSERT_EQ(n, want) << i;
            ASSERT_EQ(0, memcmp(out.data(), raw ? p.data() : expect.data(), size_t(n))) << i;
        }
        producer.join();
        ringDestroy(&ring);
    }
}
