// Throughput of the bridge's data path: encoding packets into a frame ring and taking packets out
// of a ring of serial bytes, for short and full-size packets, random and all-0x7E, against memcpy.
// Bytes per second count packet bytes, so the three benchmarks compare directly.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "FrameCodec.h"

namespace {

constexpr int32_t kRingBytes = 131072;
constexpr size_t kDistinct = 64;  // packets cycled through, so no single one sits in cache lines

std::vector<std::vector<uint8_t>> makePackets(size_t length, bool allFlags) {
    std::mt19937 rng(42);
    std::vector<std::vector<uint8_t>> packets(kDistinct, std::vector<uint8_t>(length));
    for (auto& p : packets) {
        for (auto& b : p) b = allFlags ? 0x7E : uint8_t(rng());
    }
    return packets;
}

void label(benchmark::State& state) {
    state.SetLabel(state.range(1) ? "all-7E" : "random");
}

void BM_EncodeIntoRing(benchmark::State& state) {
    const size_t length = size_t(state.range(0));
    auto packets = makePackets(length, state.range(1) != 0);
    ByteRing ring;
    ringCreate(&ring, kRingBytes);
    size_t i = 0;
    for (auto _ : state) {
        std::vector<uint8_t>& p = packets[i++ % kDistinct];
        if (ringPutFrame(&ring, p.data(), uint16_t(length)) != 0) {
            // Full: stand in for the consumer and release everything, then put again.
            ring.readIndex.store(ring.writeIndex.load(std::memory_order_relaxed),
                                 std::memory_order_release);
            ringPutFrame(&ring, p.data(), uint16_t(length));
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(length));
    label(state);
    ringDestroy(&ring);
}

void BM_TakePacket(benchmark::State& state) {
    const size_t length = size_t(state.range(0));
    auto packets = makePackets(length, state.range(1) != 0);
    // As many encoded frames as the ring holds, as the serial port would deliver them.
    std::vector<uint8_t> stream, frame(6 + 2 * length);
    for (size_t i = 0;; ++i) {
        const int32_t n = frameEncode(packets[i % kDistinct].data(), frame.data(), int32_t(length));
        if (stream.size() + size_t(n) > size_t(kRingBytes - 1)) break;
        stream.insert(stream.end(), frame.begin(), frame.begin() + n);
    }
    ByteRing ring;
    ringCreate(&ring, kRingBytes);
    std::vector<uint8_t> packet(8192);
    auto refill = [&] {
        ring.writeIndex.store(0), ring.readIndex.store(0);
        for (size_t at = 0; at < stream.size(); at += 32768) {
            const size_t n = std::min<size_t>(32768, stream.size() - at);
            ringPutBytes(&ring, stream.data() + at, uint16_t(n));
        }
    };
    refill();
    for (auto _ : state) {
        int32_t n = ringTakePacket(&ring, packet.data(), 8192);
        if (n < 0) {
            state.PauseTiming();
            refill();
            state.ResumeTiming();
            n = ringTakePacket(&ring, packet.data(), 8192);
        }
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(length));
    label(state);
    ringDestroy(&ring);
}

void BM_Memcpy(benchmark::State& state) {
    const size_t length = size_t(state.range(0));
    auto packets = makePackets(length, state.range(1) != 0);
    std::vector<uint8_t> target(kRingBytes + 8192);
    size_t i = 0, at = 0;
    for (auto _ : state) {
        std::memcpy(target.data() + at, packets[i++ % kDistinct].data(), length);
        at = (at + length) & size_t(kRingBytes - 1);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(length));
    label(state);
}

void packetArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"bytes", "all7E"});
    for (int64_t flags : {0, 1}) {
        for (int64_t length : {64, 1514}) b->Args({length, flags});
    }
}

BENCHMARK(BM_EncodeIntoRing)->Apply(packetArgs);
BENCHMARK(BM_TakePacket)->Apply(packetArgs);
BENCHMARK(BM_Memcpy)->Apply(packetArgs);

}  // namespace

BENCHMARK_MAIN();
