// CircleBuffer: capacity, filling and overflow, frames, messages, wrap-around, high bytes, and
// producers and consumers on several threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "CircleBuffer.h"
#include "stdout_capture.h"

namespace {
// Opens the fields for checks on positions.
class Ring : public CircleBuffer {
  public:
    using CircleBuffer::CircleBuffer;
    uint32_t size() const { return _size; }
    uint32_t readPos() const { return _readPos; }
    uint32_t writePos() const { return _writePos; }
    uint32_t dataLen() const { return _dataLen; }

    int32_t put(const std::string& bytes) {
        return insertData(reinterpret_cast<const Int8*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()));
    }
    // Moves both positions to `position` with nothing stored, so a test can place data at the end.
    void startAt(uint32_t position) {
        std::vector<Int8> scratch(position);
        ASSERT_EQ(insertData(scratch.data(), position), 0);
        ASSERT_EQ(takeData(scratch.data(), position), position);
    }
    std::string all() {
        std::vector<Int8> out(size());
        const uint32_t n = getData(out.data());
        return std::string(reinterpret_cast<const char*>(out.data()), n);
    }
};

// Output buffers are filled with a guard byte, so bytes written past the result show up.
constexpr char kGuard = '#';
struct Out {
    std::vector<Int8> bytes = std::vector<Int8>(512, kGuard);
    Int8* data() { return bytes.data(); }
    std::string first(uint32_t n) const {
        return std::string(reinterpret_cast<const char*>(bytes.data()), n);
    }
    bool untouchedFrom(uint32_t n) const {
        for (size_t i = n; i < bytes.size(); ++i) {
            if (bytes[i] != kGuard) return false;
        }
        return true;
    }
};

std::string bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values) s.push_back(static_cast<char>(v));
    return s;
}
}  // namespace

TEST(CircleBufferCapacity, SizeCodesAndUnknownCodesNeverGiveAnEmptyRing) {
    const uint32_t expected[] = {256, 1024, 2048, 4096, 16384};
    for (int32_t code = 0; code < 5; ++code) {
        Ring ring(code);
        EXPECT_EQ(ring.getFreeSize(), expected[code]);
        EXPECT_EQ(ring.getDataSize(), 0u);
    }
    for (int32_t code : {-1, 5, 1000}) {
        Ring ring(code);
        EXPECT_EQ(ring.size(), 256u) << "code " << code;
        EXPECT_EQ(ring.put(std::string(256, 'x')), 0);
    }
}

// 250 of 256 bytes stored from position 100 on: 6 more fill the ring across its end, 7 more empty
// it.
TEST(CircleBufferInsert, FillsCompletelyAndAnOverflowEmptiesTheRing) {
    for (const std::string last : {"012345", "0123456"}) {
        Ring ring(0);
        ring.startAt(100);
        ASSERT_EQ(ring.put(std::string(250, 'a')), 0);
        const bool fits = last.size() == 6;
        EXPECT_EQ(
            captureStdout([&] { EXPECT_EQ(ring.put(last), fits ? 0 : -1); }),
            fits ? "" : "ERR: CircleBuffer::insertData: circle buffer free memory not enough!");
        EXPECT_EQ(ring.dataLen(), fits ? 256u : 0u);
        EXPECT_EQ(ring.writePos(), fits ? 100u : 0u);
        EXPECT_EQ(ring.readPos(), fits ? 100u : 0u);
        EXPECT_EQ(
            captureStdout([&] { EXPECT_EQ(ring.all(), fits ? std::string(250, 'a') + last : ""); }),
            "");
    }
    Ring ring(0);
    ASSERT_EQ(ring.put("keep"), 0);
    EXPECT_EQ(ring.put(""), 0);  // empty append changes nothing
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(ring.put(std::string(257, 'b')), -1); }),
              "ERR: CircleBuffer::insertData: insert data size is larger than buffer size!\n");
    EXPECT_EQ(ring.getDataSize(), 0u);
}

TEST(CircleBufferTake, PartialTakesAndClear) {
    Ring ring(0);
    ring.put("hello");
    Out out;
    EXPECT_EQ(ring.takeData(out.data(), 0), 0u);
    EXPECT_EQ(ring.takeData(out.data(), 3), 3u);
    EXPECT_EQ(ring.takeData(out.data() + 3, 9), 2u);
    EXPECT_EQ(out.first(5), "hello");
    EXPECT_TRUE(out.untouchedFrom(5));
    EXPECT_EQ(ring.takeData(out.data(), 9), 0u);
    ring.put("more");
    EXPECT_EQ(ring.clear(), 0);
    EXPECT_EQ(ring.getDataSize(), 0u);
    EXPECT_EQ(ring.writePos(), 0u);
}

TEST(CircleBufferFrame, EqualDelimitersLeaveTheEndByteToOpenTheNextFrame) {
    Ring ring(0);
    ring.put(bytes({0x78, 0x78, 0x7E, 0x41, 0x42, 0x7E, 0x7E, 0x43, 0x44, 0x7E}));
    Out out;
    EXPECT_EQ(ring.getFrame(out.data(), 0x7E, 0x7E), 4u);
    EXPECT_EQ(out.first(4), bytes({0x7E, 0x41, 0x42, 0x7E}));
    EXPECT_TRUE(out.untouchedFrom(4));
    EXPECT_EQ(ring.getDataSize(), 5u);
    EXPECT_EQ(ring.getFrame(out.data(), 0x7E, 0x7E), 4u);
    EXPECT_EQ(out.first(4), bytes({0x7E, 0x43, 0x44, 0x7E}));
    EXPECT_EQ(ring.getDataSize(), 1u);
    EXPECT_EQ(ring.getFrame(out.data(), 0x7E, 0x7E), 0u);
    EXPECT_EQ(ring.getDataSize(), 1u);
}

TEST(CircleBufferFrame, DifferentDelimitersAndIncompleteFramesConsumeNothing) {
    Ring ring(0);
    Out out;
    ring.put("ab<hel");
    EXPECT_EQ(ring.getFrame(out.data(), '<', '>'), 0u);  // no end yet
    EXPECT_EQ(ring.getDataSize(), 6u);
    ring.put("lo>cd");
    EXPECT_EQ(ring.getFrame(out.data(), '<', '>'), 7u);
    EXPECT_EQ(out.first(7), "<hello>");
    EXPECT_EQ(ring.all(), ">cd");

    ring.put("noise only");
    EXPECT_EQ(ring.getFrame(out.data(), '<', '>'), 0u);
    EXPECT_EQ(ring.getDataSize(), 10u);
    ring.clear();
    ring.put("xx<");  // start on the last stored byte
    EXPECT_EQ(ring.getFrame(out.data(), '<', '>'), 0u);
    EXPECT_EQ(ring.getDataSize(), 3u);
    ring.clear();
    ring.put("<>");  // end right after the start
    EXPECT_EQ(ring.getFrame(out.data(), '<', '>'), 2u);
    EXPECT_EQ(out.first(2), "<>");
}

TEST(CircleBufferFrame, WrapsAroundMatchesHighBytesAndDropsAWholeRingFrame) {
    Ring ring(0);
    ring.startAt(250);
    const std::string frame = bytes({0xAA, 0x01, 0x80, 0xFF, 0x02, 0x90, 0x03, 0xBB});
    ring.put("n" + frame + "t");
    Out out;
    EXPECT_EQ(ring.getFrame(out.data(), static_cast<Int8>(0xAA), static_cast<Int8>(0xBB)), 8u);
    EXPECT_EQ(out.first(8), frame);
    EXPECT_EQ(ring.all(), bytes({0xBB, 't'}));
    // A frame as long as the ring wraps to length 0: consumed, nothing delivered.
    ring.put("<" + std::string(254, 'm') + ">");
    Out none;
    EXPECT_EQ(ring.getFrame(none.data(), '<', '>'), 0u);
    EXPECT_TRUE(none.untouchedFrom(0));
    EXPECT_EQ(ring.all(), ">");
}

TEST(CircleBufferMessage, HeadAndTailWithAndWithoutPeek) {
    Ring ring(0);
    ring.put("zzAT+OK\r\nQQ");
    Out out;
    EXPECT_EQ(ring.getMessage(out.data(), "AT", "\r\n", 1), 9u);
    EXPECT_TRUE(out.untouchedFrom(0));
    EXPECT_EQ(ring.getDataSize(), 11u);
    // The copy is exactly the message, head through tail.
    EXPECT_EQ(ring.getMessage(out.data(), "AT", "\r\n", 0), 7u);
    EXPECT_EQ(out.first(7), "AT+OK\r\n");
    EXPECT_TRUE(out.untouchedFrom(7));
    EXPECT_EQ(ring.all(), "QQ");

    ring.put("AT+OK\r");  // tail incomplete: nothing consumed
    EXPECT_EQ(ring.getMessage(out.data(), "AT", "\r\n", 0), 0u);
    EXPECT_EQ(ring.getDataSize(), 6u);
    ring.put("\n");  // tail is the newest stored data: the copy stops there
    Out exact;
    EXPECT_EQ(ring.getMessage(exact.data(), "AT", "\r\n", 0), 7u);
    EXPECT_TRUE(exact.untouchedFrom(7));
    EXPECT_EQ(ring.getDataSize(), 0u);
}

TEST(CircleBufferMessage, WithoutTailAndWithBadOrOverlongDelimiters) {
    Ring ring(0);
    ring.put("xxSTARTrest");
    Out out;
    EXPECT_EQ(ring.getMessage(out.data(), "START", nullptr, 0), 5u);
    EXPECT_EQ(out.first(5), "START");
    EXPECT_TRUE(out.untouchedFrom(5));
    EXPECT_EQ(ring.all(), "rest");
    ring.put("abc");
    EXPECT_EQ(ring.getMessage(out.data(), nullptr, nullptr, 0), 0u);
    EXPECT_EQ(ring.getMessage(out.data(), "", "c", 0), 0u);
    EXPECT_EQ(ring.getMessage(out.data(), "abcd", nullptr, 0), 0u);  // longer than the data
    EXPECT_EQ(ring.getDataSize(), 3u);
    // Head and tail may have 40 bytes together, not 41.
    const std::string head(20, 'H'), tail(20, 'T');
    ring.put(head + "body" + tail + "T");
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), (tail + "T").c_str(), 0), 0u);
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), tail.c_str(), 0), 44u);
    EXPECT_EQ(out.first(44), head + "body" + tail);
}

TEST(CircleBufferMessage, HighBytesMatchAndPeekCountsAcrossTheEndAndOnAFullRing) {
    Ring ring(0);
    ring.startAt(250);
    const std::string head = bytes({0xC0, 0xFE});
    const std::string tail = bytes({0x80, 0x81});
    ring.put("jj" + head + "data" + tail + "k");  // head at 252, write position ends at 5
    EXPECT_EQ(ring.readPos(), 250u);
    EXPECT_EQ(ring.writePos(), 5u);
    Out out;
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), tail.c_str(), 1), 9u);
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), tail.c_str(), 0), 8u);
    EXPECT_EQ(out.first(8), head + "data" + tail);
    EXPECT_EQ(ring.all(), "k");
    // Full ring, head on the oldest byte: read and write position coincide, all 256 bytes count.
    ring.put(head + std::string(252, '.') + tail);
    ASSERT_EQ(ring.readPos(), ring.writePos());
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), tail.c_str(), 1), 256u);
    EXPECT_EQ(ring.getMessage(out.data(), head.c_str(), tail.c_str(), 0), 256u);
    EXPECT_EQ(ring.getDataSize(), 0u);
}

// Two producers append framed records while one consumer cuts them with getFrame and another with
// getMessage; every record must arrive, whole, in order per producer.
TEST(CircleBufferThreads, ProducersAndConsumersShareOneBuffer) {
    constexpr int kProducers = 2;
    constexpr uint32_t kRecords = 20000;
    constexpr uint32_t kRecordLen = 6;
    CircleBuffer ring(1);
    std::atomic<uint32_t> received{0};
    std::vector<std::vector<uint32_t>> seen(2, std::vector<uint32_t>(kProducers, 0));
    std::atomic<int> badRecords{0};

    auto produce = [&](int id) {
        for (uint32_t seq = 1; seq <= kRecords; ++seq) {
            // Free space for every producer's record means this append cannot overflow.
            while (ring.getFreeSize() < kProducers * kRecordLen) std::this_thread::yield();
            const Int8 record[kRecordLen] = {0x7E,
                                             static_cast<Int8>(0x80 | id),
                                             static_cast<Int8>(0x80 | ((seq >> 12) & 0x3F)),
                                             static_cast<Int8>(0x80 | ((seq >> 6) & 0x3F)),
                                             static_cast<Int8>(0x80 | (seq & 0x3F)),
                                             0x7F};
            ASSERT_EQ(ring.insertData(record, kRecordLen), 0);
        }
    };
    auto consume = [&](int consumer) {
        Int8 frame[1024];
        while (received.load() < kProducers * kRecords) {
            const uint32_t n = consumer == 0 ? ring.getFrame(frame, 0x7E, 0x7F)
                                             : ring.getMessage(frame, "\x7E", "\x7F", 0);
            if (n == 0) {
                std::this_thread::yield();
                continue;
            }
            const auto* b = reinterpret_cast<const uint8_t*>(frame);
            const int id = b[1] & 0x3F;
            const uint32_t seq = ((b[2] & 0x3Fu) << 12) | ((b[3] & 0x3Fu) << 6) | (b[4] & 0x3Fu);
            if (n != kRecordLen || b[0] != 0x7E || b[5] != 0x7F || id >= kProducers ||
                seq <= seen[consumer][id]) {
                ++badRecords;
                received = kProducers * kRecords;  // stop everyone
                return;
            }
            seen[consumer][id] = seq;
            ++received;
        }
    };
    std::vector<std::thread> threads;
    for (int c = 0; c < 2; ++c) threads.emplace_back(consume, c);
    for (int p = 0; p < kProducers; ++p) threads.emplace_back(produce, p);
    for (auto& t : threads) t.join();
    EXPECT_EQ(badRecords.load(), 0);
    EXPECT_EQ(received.load(), kProducers * kRecords);
    EXPECT_LE(ring.getDataSize(), 1u);  // at most the last end byte a getFrame left behind
}
