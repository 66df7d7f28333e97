// Buffers: CircleBuffer's sizes, frames and overflow, MsgBufferPool's header, fit, texts and
// limits. Private namespaces: both log through the debug unit, whose file is /root/dbg.txt.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "CircleBuffer.h"
#include "MsgBufferPool.h"
#include "TestSupport.h"
#include "debug.h"

using s2etest::captureStdout;

namespace {

TEST(CircleBuffer, SizeCodes) {
    const struct {
        int32_t code;
        uint32_t bytes;
    } rows[] = {{-1, 256}, {0, 256}, {1, 1024}, {2, 2048}, {3, 4096}, {4, 16384}, {5, 256}};
    for (const auto& row : rows) {
        CircleBuffer ring(row.code);
        EXPECT_EQ(ring.getFreeSize(), row.bytes) << "size code " << row.code;
    }
}

// The end byte stays stored, so that it opens the next frame when start and end are the same.
TEST(CircleBuffer, FramesShareTheirFlag) {
    CircleBuffer ring(0);
    const Int8 line[] = {9, 0x7E, 1, 2, 0x7E, 3, 0x7E};
    ASSERT_EQ(ring.insertData(line, sizeof line), 0);
    Int8 frame[8] = {};
    ASSERT_EQ(ring.getFrame(frame, 0x7E, 0x7E), 4u) << "first frame";
    EXPECT_EQ(std::vector<Int8>(frame, frame + 4), (std::vector<Int8>{0x7E, 1, 2, 0x7E}));
    ASSERT_EQ(ring.getFrame(frame, 0x7E, 0x7E), 3u) << "second frame, from the first one's end";
    EXPECT_EQ(std::vector<Int8>(frame, frame + 3), (std::vector<Int8>{0x7E, 3, 0x7E}));
    EXPECT_EQ(ring.getDataSize(), 1u) << "the last end byte stays";
}

TEST(CircleBuffer, OverflowTextsAndTheRingIsEmptied) {
    CircleBuffer ring(0);
    const std::vector<Int8> bytes(257, 'a');
    ASSERT_EQ(ring.insertData(bytes.data(), 250), 0);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(ring.insertData(bytes.data(), 7), -1); }),
              "ERR: CircleBuffer::insertData: circle buffer free memory not enough!");
    EXPECT_EQ(ring.getDataSize(), 0u);
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(ring.insertData(bytes.data(), 257), -1); }),
              "ERR: CircleBuffer::insertData: insert data size is larger than buffer size!\n");
}

// Free and total counts as the info dump reports them.
std::string counts() {
    debugLevel = 3;
    const std::string info = captureStdout([] { MsgBufferPool::showPoolInfo(); });
    debugLevel = 0;
    return info.substr(0, info.find('\n'));
}
class Pool : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(MsgBufferPool::destroyPool(), 0); }
};

uint8_t* pointerAt(const uint8_t* p) {
    uint8_t* value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

// A buffer holds twice the size asked for; a free one exactly that large is taken first. The
// header's body pointer (byte 42) leads to the data, or for type 2 to the header's byte 50.
TEST_F(Pool, FitHeaderNotesAndCounts) {
    EXPECT_EQ(MsgBufferPool::initPool(2, 0), 0);
    MsgBuf b = MsgBufferPool::allocMsgBuf(3, 512, 1);
    EXPECT_EQ(b.dataSize, 1024) << "twice the size";
    EXPECT_EQ(counts(), "MsgBufferPool info: free 1, total 2") << "a default buffer fits exactly";
    EXPECT_EQ(pointerAt(b.header + 42), b.data) << "type 3: body pointer";
    EXPECT_EQ(MsgBufferPool::makeProtocolMsg(b), 0);
    EXPECT_EQ(pointerAt(b.header + 42), b.header + 50) << "type 2: body pointer";
    debugLevel = 1;
    EXPECT_EQ(captureStdout([&] { b = MsgBufferPool::allocMsgBuf(2, 513, 0x20); }),
              "NOTE: MsgBufferPool::allocMsgBuf: no proper memory, allocate one. size is 1026, "
              "owner is 0x20\n");
    debugLevel = 0;
    EXPECT_EQ(captureStdout([&] { MsgBufferPool::allocMsgBuf(8, 1, 1); }),
              " Msg type error! Fail to allocate msgbuf! \n");
}

// The sizes refused are those whose doubled block would not fit 16 bits.
TEST_F(Pool, SizeLimitsReleaseAndUsage) {
    EXPECT_EQ(captureStdout([] { EXPECT_EQ(MsgBufferPool::initPool(1, 65384), -1); }),
              "ERR: MsgBufferPool::initPool: data size 65384 too large, refused!\n");
    ASSERT_EQ(MsgBufferPool::initPool(1, 65383), 0);
    MsgBuf refused;
    EXPECT_EQ(captureStdout([&] { refused = MsgBufferPool::allocMsgBuf(3, 32692, 1); }),
              "ERR: MsgBufferPool::allocMsgBuf: size 32692 too large, refused!\n");
    EXPECT_EQ(refused.state, MSGBUF_INVALID);
    MsgBuf largest = MsgBufferPool::allocMsgBuf(3, 32691, 1);
    EXPECT_EQ(largest.blockSize, 65535);
    EXPECT_EQ(captureStdout([&] { MsgBufferPool::copyMsgBuf(largest); }),
              "ERR: MsgBufferPool::copyMsgBuf: size 65383 too large, refused!\n");
    EXPECT_EQ(MsgBufferPool::releasePool(), 0);
    EXPECT_EQ(MsgBufferPool::poolUsagePercent(), 0u);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 0, total 0");
    MsgBufferPool::initPool(300, 16);
    for (int i = 0; i < 300; ++i) MsgBufferPool::allocMsgBuf(3, 8, 1);
    EXPECT_EQ(MsgBufferPool::poolUsagePercent(), 14u);  // 300 & 0xFF = 44; 44 * 100 / 300
}

}  // namespace
