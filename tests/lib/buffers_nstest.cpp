// Buffers: CircleBuffer's texts, MsgBufferPool's texts and limits. The data rules of
// the ring and the pool and the checksums are checked against models in fuzz/. Private namespaces:
// the pool logs through the debug unit, whose file is /root/dbg.txt.
#include <gtest/gtest.h>

#include <vector>

#include "CircleBuffer.h"
#include "MsgBufferPool.h"
#include "TestSupport.h"
#include "debug.h"

using s2etest::captureStdout;

namespace {

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

// The pool's rules are checked against a model in fuzz/msg_pool_fuzz; here its texts and counts.
TEST_F(Pool, NotesAndCounts) {
    EXPECT_EQ(MsgBufferPool::initPool(2, 0), 0);
    MsgBuf b = MsgBufferPool::allocMsgBuf(3, 512, 1);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 1, total 2");
    debugLevel = 1;
    EXPECT_EQ(captureStdout([&] { b = MsgBufferPool::allocMsgBuf(2, 513, 0x20); }),
              "NOTE: MsgBufferPool::allocMsgBuf: no proper memory, allocate one. size is 1026, "
              "owner is 0x20\n");
    debugLevel = 0;
    EXPECT_EQ(captureStdout([&] { MsgBufferPool::allocMsgBuf(8, 1, 1); }),
              " Msg type error! Fail to allocate msgbuf! \n");
}

// The sizes refused are those whose doubled block would not fit 16 bits (the top bit of an
// allocation size is masked off: in fuzz/msg_pool_fuzz).
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
