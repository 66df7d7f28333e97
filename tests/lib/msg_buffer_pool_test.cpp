// MsgBufferPool: first fit and growth, header layout per type, reference counts and owner masks,
// the usage figure, deep copies and the size limits; every test destroys the pool at its end.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "MsgBufferPool.h"
#include "debug.h"
#include "stdout_capture.h"

namespace {
// Header fields are unaligned: read them byte-wise.
template <typename T>
T fieldAt(const uint8_t* at) {
    T value;
    memcpy(&value, at, sizeof value);
    return value;
}

class Pool : public ::testing::Test {
  protected:
    void TearDown() override {
        debugLevel = 0;
        EXPECT_EQ(MsgBufferPool::destroyPool(), 0);
    }
    static uint32_t refCount(const MsgBuf& b) { return fieldAt<uint32_t>(b.block); }
    static uint32_t typeWord(const MsgBuf& b) { return fieldAt<uint32_t>(b.header); }
    static uint16_t bodyLen(const MsgBuf& b) { return fieldAt<uint16_t>(b.header + 40); }
    static uint8_t* body(const MsgBuf& b) { return fieldAt<uint8_t*>(b.header + 42); }
    static uint8_t* record(const MsgBuf& b) { return b.header + 50; }
    static uint8_t* pdata(const MsgBuf& b) {
        return fieldAt<uint8_t*>(record(b) + offsetof(S_ProtocolMsg, pdata));
    }
    static uint16_t pdataLen(const MsgBuf& b) {
        return fieldAt<uint16_t>(record(b) + offsetof(S_ProtocolMsg, pdataLen));
    }
    // Free and total counts as the info dump reports them.
    static std::string counts() {
        debugLevel = 3;
        const std::string info = captureStdout([] { MsgBufferPool::showPoolInfo(); });
        debugLevel = 0;
        return info.substr(0, info.find('\n'));
    }
};
}  // namespace

TEST_F(Pool, FirstFitFromTheFreeListAndGrowthWhenNothingFits) {
    EXPECT_EQ(MsgBufferPool::initPool(4, 0), 0);
    EXPECT_EQ(MsgBufferPool::initPool(9, 64), 0);  // second call changes nothing
    EXPECT_EQ(counts(), "MsgBufferPool info: free 4, total 4");

    MsgBuf b;
    EXPECT_EQ(captureStdout([&] { b = MsgBufferPool::allocMsgBuf(3, 512, 1); }), "");
    EXPECT_EQ(b.state, MSGBUF_USED);
    EXPECT_EQ(b.dataSize, 1024);  // twice 512 fits exactly
    EXPECT_EQ(b.blockSize, 1176);
    EXPECT_EQ(b.header, b.block + 4);
    EXPECT_EQ(b.trailer, b.block + 132);
    EXPECT_EQ(b.data, b.block + 152);
    EXPECT_EQ(refCount(b), 1u);
    EXPECT_EQ(*b.owners, 1u);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 3, total 4");

    debugLevel = 1;
    MsgBuf big;
    EXPECT_EQ(captureStdout([&] { big = MsgBufferPool::allocMsgBuf(3, 513, 0x20); }),
              "NOTE: MsgBufferPool::allocMsgBuf: no proper memory, allocate one. size is 1026, "
              "owner is 0x20\n");
    EXPECT_EQ(big.dataSize, 1026);
    EXPECT_EQ(big.blockSize, 1178);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 3, total 5");

    // Free list now: three 1024s, then the 1026 at the back; a 1026 request skips the others,
    // a small one takes the front buffer and keeps its larger size.
    MsgBufferPool::freeMsgBuf(big, 0x20);
    EXPECT_EQ(MsgBufferPool::allocMsgBuf(4, 513, 1).block, big.block);
    MsgBuf small = MsgBufferPool::allocMsgBuf(5, 1, 1);
    EXPECT_NE(small.block, big.block);
    EXPECT_EQ(small.dataSize, 1024);
}

TEST_F(Pool, HeaderFollowsTheMessageTypeAndUnknownTypesAreStillHandedOut) {
    MsgBufferPool::initPool(1, 64);
    MsgBuf p = MsgBufferPool::allocMsgBuf(2, 30, 1);
    EXPECT_EQ(typeWord(p), 2u);
    EXPECT_EQ(bodyLen(p), 81);
    EXPECT_EQ(body(p), p.header + 50);
    EXPECT_EQ(pdataLen(p), 0);
    EXPECT_EQ(pdata(p), p.data);
    for (uint16_t type : {3, 4, 5, 6, 7}) {
        MsgBuf r = MsgBufferPool::allocMsgBuf(type, 40, 1);
        EXPECT_EQ(typeWord(r), type);
        EXPECT_EQ(bodyLen(r), type == 4 ? 262 : 76);
        EXPECT_EQ(body(r), r.data);
    }
    memset(p.header + MSGHDR_BODYLEN_OFFSET, 0x55, 10);  // bodyLen and body
    MsgBufferPool::freeMsgBuf(p, 1);
    for (uint16_t type : {0, 1, 8, 9}) {
        MsgBuf b;
        EXPECT_EQ(captureStdout([&] { b = MsgBufferPool::allocMsgBuf(type, 10, 1); }),
                  " Msg type error! Fail to allocate msgbuf! \n");
        EXPECT_EQ(b.block, p.block);
        EXPECT_EQ(b.state, MSGBUF_USED);
        EXPECT_EQ(typeWord(b), type);
        EXPECT_EQ(bodyLen(b), 0x5555);  // left untouched
        MsgBufferPool::freeMsgBuf(b, 1);
    }
}

TEST_F(Pool, ReferencesAndOwnerMasksAcrossDuplicatesAndFrees) {
    MsgBufferPool::initPool(2, 0);
    MsgBuf a = MsgBufferPool::allocMsgBuf(3, 10, 0x1);
    MsgBuf b;
    EXPECT_EQ(captureStdout([&] { b = MsgBufferPool::duplicate(a, 0); }),
              "NOTE: MsgBufferPool::duplicate: anonymous owner......\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(MsgBufferPool::freeMsgBuf(b, 0), 0); }),
              "NOTE: MsgBufferPool::freeMsgBuf: anonymous owner......\n");
    b = MsgBufferPool::duplicate(a, 0x6);
    EXPECT_EQ(b.state, MSGBUF_USED);
    EXPECT_EQ(b.block, a.block);
    EXPECT_EQ(refCount(a), 2u);
    EXPECT_EQ(*a.owners, 0x7u);

    a.userLen = 9;
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(a, 0x1), 0);
    EXPECT_EQ(a.state, MSGBUF_FREE);
    EXPECT_EQ(a.msgType, 0);
    EXPECT_EQ(a.userLen, 0);
    EXPECT_EQ(refCount(b), 1u);
    EXPECT_EQ(*b.owners, 0x6u);
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(a, 0x1), -1);  // a holds no reference any more
    EXPECT_EQ(MsgBufferPool::duplicate(a, 0x8).state, MSGBUF_INVALID);
    EXPECT_EQ(MsgBufferPool::copyMsgBuf(a).state, MSGBUF_INVALID);
    EXPECT_EQ(MsgBufferPool::makeProtocolMsg(a), -1);
    EXPECT_EQ(refCount(b), 1u);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 1, total 2");
}

TEST_F(Pool, LastFreeReturnsTheBufferToTheBackOfTheFreeList) {
    MsgBufferPool::initPool(2, 0);
    MsgBuf a = MsgBufferPool::allocMsgBuf(3, 10, 0x3);
    MsgBuf b = MsgBufferPool::duplicate(a, 0x4);
    a.data += 20;  // a user moved its data pointer; the pool resets it on the last free
    MsgBufferPool::freeMsgBuf(b, 0x4);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 1, total 2");
    MsgBufferPool::freeMsgBuf(a, 0x1);
    EXPECT_EQ(refCount(a), 0u);
    EXPECT_EQ(*a.owners, 0x2u);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 2, total 2");
    EXPECT_NE(MsgBufferPool::allocMsgBuf(3, 10, 1).block, a.block);
    MsgBuf last = MsgBufferPool::allocMsgBuf(3, 10, 1);
    EXPECT_EQ(last.block, a.block);
    EXPECT_EQ(last.data, last.block + 152);
}

TEST_F(Pool, InfoListsAllBuffersThenTheFreeOnes) {
    MsgBufferPool::initPool(2, 0);
    MsgBuf a = MsgBufferPool::allocMsgBuf(3, 10, 0x10);
    debugLevel = 3;
    const std::string info = captureStdout([] { MsgBufferPool::showPoolInfo(); });
    debugLevel = 0;
    MsgBuf b = MsgBufferPool::allocMsgBuf(3, 10, 1);  // the other, still free, buffer
    auto line = [](int n, const MsgBuf& m, uint32_t refs, uint32_t owners) {
        char text[80];
        snprintf(text, sizeof text, "%3d  %8x  %4d %8d       0x%x\n", n,
                 static_cast<uint32_t>(reinterpret_cast<uintptr_t>(m.block)), 1024, refs, owners);
        return std::string(text);
    };
    EXPECT_EQ(info, "MsgBufferPool info: free 1, total 2\n" + line(0, a, 1, 0x10) +
                        line(1, b, 0, 0) + line(2, b, 0, 0));
    debugLevel = 2;  // below the dump's level: nothing printed
    EXPECT_EQ(captureStdout([] { EXPECT_EQ(MsgBufferPool::showPoolInfo(), 0); }), "");
}

TEST_F(Pool, UsagePercentCountsBuffersInUseModulo256) {
    EXPECT_EQ(MsgBufferPool::poolUsagePercent(), 0u);
    MsgBufferPool::initPool(4, 0);
    for (int i = 0; i < 3; ++i) MsgBufferPool::allocMsgBuf(3, 1, 1);
    EXPECT_EQ(MsgBufferPool::poolUsagePercent(), 75u);
    MsgBufferPool::destroyPool();

    MsgBufferPool::initPool(300, 16);
    for (int i = 0; i < 300; ++i) MsgBufferPool::allocMsgBuf(3, 8, 1);
    EXPECT_EQ(MsgBufferPool::poolUsagePercent(), 14u);  // 300 & 0xFF = 44; 44 * 100 / 300
}

TEST_F(Pool, DeepCopyPointsIntoTheNewBlock) {
    MsgBufferPool::initPool(0, 0);
    MsgBuf src = MsgBufferPool::allocMsgBuf(2, 100, 1);
    for (int i = 0; i < 200; ++i) src.data[i] = static_cast<uint8_t>(i);
    const uint16_t len = 33;
    memcpy(record(src) + offsetof(S_ProtocolMsg, pdataLen), &len, sizeof len);
    uint8_t* inside = src.data + 10;
    memcpy(record(src) + offsetof(S_ProtocolMsg, pdata), &inside, sizeof inside);
    src.userLen = 77;

    MsgBuf copy;
    EXPECT_EQ(captureStdout([&] { copy = MsgBufferPool::copyMsgBuf(src); }),
              "NOTE: MsgBufferPool::allocMsgBuf: anonymous owner......\n");
    ASSERT_EQ(copy.state, MSGBUF_USED);
    EXPECT_NE(copy.block, src.block);
    EXPECT_GE(copy.blockSize, 400 + 152);  // twice the source's data size
    EXPECT_EQ(copy.msgType, 2);
    EXPECT_EQ(refCount(copy), 1u);
    EXPECT_EQ(*copy.owners, 0u);
    EXPECT_EQ(copy.dataSize, src.dataSize);
    EXPECT_EQ(copy.userLen, 77);
    EXPECT_EQ(body(copy), copy.header + 50);
    EXPECT_EQ(pdata(copy), copy.data + 10);
    EXPECT_EQ(pdataLen(copy), 33);
    MsgBufferPool::freeMsgBuf(src, 1);  // the copy stands on its own
    for (int i = 0; i < 200; ++i) ASSERT_EQ(copy.data[i], static_cast<uint8_t>(i));

    MsgBuf plain = MsgBufferPool::allocMsgBuf(4, 50, 1);
    plain.data += 8;  // the user's own data offset is carried over
    MsgBuf plainCopy = MsgBufferPool::copyMsgBuf(plain);
    EXPECT_EQ(body(plainCopy), plainCopy.block + 152);
    EXPECT_EQ(plainCopy.data, plainCopy.block + 160);
    EXPECT_EQ(MsgBufferPool::makeProtocolMsg(plainCopy), 0);
    EXPECT_EQ(plainCopy.msgType, 2);
    EXPECT_EQ(body(plainCopy), plainCopy.header + 50);
    EXPECT_EQ(pdata(plainCopy), plainCopy.data);
    EXPECT_EQ(typeWord(plainCopy), 4u);  // the type word stays as it was
}

// A copy served from a larger free buffer carries its source's data size but its own block size;
// copying that copy again must not write past the smaller block found for it.
TEST_F(Pool, CopyOfACopyNeverWritesPastItsBlock) {
    MsgBufferPool::initPool(0, 0);
    MsgBuf src = MsgBufferPool::allocMsgBuf(3, 10, 1);  // 20 bytes
    MsgBuf large = MsgBufferPool::allocMsgBuf(3, 500, 1);
    MsgBufferPool::freeMsgBuf(large, 1);
    memset(src.data, 0xC3, 20);
    MsgBuf copy = MsgBufferPool::copyMsgBuf(src);  // lands in the 1000-byte buffer
    ASSERT_EQ(copy.block, large.block);
    EXPECT_EQ(copy.blockSize, 1152);
    MsgBuf fit = MsgBufferPool::allocMsgBuf(3, 20, 1);  // a 40-byte buffer, then free again
    MsgBufferPool::freeMsgBuf(fit, 1);

    MsgBuf second = MsgBufferPool::copyMsgBuf(copy);
    ASSERT_EQ(second.block, fit.block);
    EXPECT_EQ(second.blockSize, 192);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(second.data[i], 0xC3);
}

TEST_F(Pool, SizesThatWouldWrapTheBlockAreRefused) {
    EXPECT_EQ(captureStdout([] { EXPECT_EQ(MsgBufferPool::initPool(1, 65384), -1); }),
              "ERR: MsgBufferPool::initPool: data size 65384 too large, refused!\n");
    EXPECT_EQ(counts(), "MsgBufferPool info: free 0, total 0");
    ASSERT_EQ(MsgBufferPool::initPool(1, 65383), 0);

    MsgBuf refused;
    EXPECT_EQ(captureStdout([&] { refused = MsgBufferPool::allocMsgBuf(3, 32692, 1); }),
              "ERR: MsgBufferPool::allocMsgBuf: size 32692 too large, refused!\n");
    EXPECT_EQ(refused.state, MSGBUF_INVALID);
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(refused, 1), -1);

    MsgBuf largest = MsgBufferPool::allocMsgBuf(3, 32691, 1);  // takes the 65383-byte buffer
    ASSERT_EQ(largest.state, MSGBUF_USED);
    EXPECT_EQ(largest.blockSize, 65535);
    largest.data[largest.dataSize - 1] = 1;  // the last data byte is inside the block
    MsgBuf copy;
    EXPECT_EQ(captureStdout([&] { copy = MsgBufferPool::copyMsgBuf(largest); }),
              "ERR: MsgBufferPool::copyMsgBuf: size 65383 too large, refused!\n");
    EXPECT_EQ(copy.state, MSGBUF_INVALID);

    EXPECT_EQ(MsgBufferPool::releasePool(), 0);  // the second entry point destroys as well
    EXPECT_EQ(counts(), "MsgBufferPool info: free 0, total 0");
    EXPECT_EQ(MsgBufferPool::initPool(2, 0), 0);  // and the pool can be set up again
    EXPECT_EQ(counts(), "MsgBufferPool info: free 2, total 2");
}
