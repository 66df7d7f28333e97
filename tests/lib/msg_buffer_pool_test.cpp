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
uint16_t u16At(const uint8_t* at) {
    uint16_t v;
    memcpy(&v, at, sizeof v);
    return v;
}
uint32_t u32At(const uint8_t* at) {
    uint32_t v;
    memcpy(&v, at, sizeof v);
    return v;
}
uint8_t* ptrAt(const uint8_t* at) {
    uint8_t* v;
    memcpy(&v, at, sizeof v);
    return v;
}
uint32_t refCount(const MsgBuf& b) {
    return u32At(b.block);
}
uint16_t bodyLen(const MsgBuf& b) {
    return u16At(b.header + MSGHDR_BODYLEN_OFFSET);
}
uint8_t* body(const MsgBuf& b) {
    return ptrAt(b.header + MSGHDR_BODY_OFFSET);
}
uint8_t* record(const MsgBuf& b) {
    return b.header + MSGHDR_PROTOCOL_OFFSET;
}
uint8_t* pdata(const MsgBuf& b) {
    return ptrAt(record(b) + offsetof(S_ProtocolMsg, pdata));
}
uint16_t pdataLen(const MsgBuf& b) {
    return u16At(record(b) + offsetof(S_ProtocolMsg, pdataLen));
}

class Pool : public ::testing::Test {
  protected:
    void TearDown() override {
        debugLevel = 0;
        EXPECT_EQ(MsgBufferPool::destroyPool(), 0);
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

TEST_F(Pool, InitCreatesFreeBuffersOnceAndAllocationTakesTheFirstThatFits) {
    EXPECT_EQ(MsgBufferPool::initPool(4, 0), 0);
    EXPECT_EQ(MsgBufferPool::initPool(9, 64), 0);  // second call changes nothing
    EXPECT_EQ(counts(), "MsgBufferPool info: free 4, total 4");

    const std::string log = captureStdout([] {
        MsgBuf b = MsgBufferPool::allocMsgBuf(3, 512, 1);  // wants 1024: fits
        EXPECT_EQ(b.state, MSGBUF_USED);
        EXPECT_EQ(b.dataSize, 1024);
        EXPECT_EQ(b.blockSize, 1176);
        EXPECT_EQ(b.header, b.block + 4);
        EXPECT_EQ(b.trailer, b.block + 132);
        EXPECT_EQ(b.data, b.block + 152);
        EXPECT_EQ(refCount(b), 1u);
        EXPECT_EQ(*b.owners, 1u);
        EXPECT_EQ(u32At(b.header), 3u);
        EXPECT_EQ(bodyLen(b), 76);
        EXPECT_EQ(body(b), b.data);
    });
    EXPECT_EQ(log, "");
    EXPECT_EQ(counts(), "MsgBufferPool info: free 3, total 4");
}

TEST_F(Pool, GrowsWhenNothingFitsAndReusesFreedBuffersFirstFit) {
    MsgBufferPool::initPool(4, 0);
    debugLevel = 1;
    MsgBuf big;
    const std::string log = captureStdout([&] { big = MsgBufferPool::allocMsgBuf(3, 513, 0x20); });
    EXPECT_EQ(log,
              "NOTE: MsgBufferPool::allocMsgBuf: no proper memory, allocate one. size is 1026, "
              "owner is 0x20\n");
    EXPECT_EQ(big.dataSize, 1026);
    EXPECT_EQ(big.blockSize, 1178);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 4, total 5");

    // Free list now: four 1024s, then the 1026 at the back. A 1026 request skips the 1024s.
    MsgBufferPool::freeMsgBuf(big, 0x20);
    MsgBuf again = MsgBufferPool::allocMsgBuf(4, 513, 1);
    EXPECT_EQ(again.block, big.block);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 4, total 5");
    // A small request takes the front buffer, larger than needed, and keeps its own size.
    MsgBuf small = MsgBufferPool::allocMsgBuf(5, 1, 1);
    EXPECT_NE(small.block, big.block);
    EXPECT_EQ(small.dataSize, 1024);
}

TEST_F(Pool, HeaderFollowsTheMessageType) {
    MsgBufferPool::initPool(0, 0);
    MsgBuf p = MsgBufferPool::allocMsgBuf(2, 100, 1);
    EXPECT_EQ(u32At(p.header), 2u);
    EXPECT_EQ(bodyLen(p), 81);
    EXPECT_EQ(body(p), p.header + 50);
    EXPECT_EQ(pdataLen(p), 0);
    EXPECT_EQ(pdata(p), p.data);
    MsgBuf q = MsgBufferPool::allocMsgBuf(4, 200, 1);
    EXPECT_EQ(bodyLen(q), 262);
    EXPECT_EQ(body(q), q.data);
    for (uint16_t type : {5, 6, 7}) {
        MsgBuf r = MsgBufferPool::allocMsgBuf(type, 40, 1);
        EXPECT_EQ(bodyLen(r), 76);
        EXPECT_EQ(body(r), r.data);
    }
}

TEST_F(Pool, UnknownTypesAreReportedButStillHandedOut) {
    MsgBufferPool::initPool(1, 64);
    MsgBuf first = MsgBufferPool::allocMsgBuf(3, 10, 1);
    memset(first.header + MSGHDR_BODYLEN_OFFSET, 0x55, 10);  // bodyLen and body
    MsgBufferPool::freeMsgBuf(first, 1);
    for (uint16_t type : {0, 1, 8, 9}) {
        MsgBuf b;
        const std::string log = captureStdout([&] { b = MsgBufferPool::allocMsgBuf(type, 10, 1); });
        EXPECT_EQ(log, " Msg type error! Fail to allocate msgbuf! \n") << "type " << type;
        EXPECT_EQ(b.state, MSGBUF_USED);
        EXPECT_EQ(b.msgType, type);
        EXPECT_EQ(u32At(b.header), type);
        EXPECT_EQ(bodyLen(b), 0x5555);  // left untouched
        MsgBufferPool::freeMsgBuf(b, 1);
    }
}

TEST_F(Pool, AnonymousOwnersAreNotedButAccepted) {
    MsgBufferPool::initPool(1, 0);
    MsgBuf a, d;
    EXPECT_EQ(captureStdout([&] { a = MsgBufferPool::allocMsgBuf(3, 1, 0); }),
              "NOTE: MsgBufferPool::allocMsgBuf: anonymous owner......\n");
    EXPECT_EQ(captureStdout([&] { d = MsgBufferPool::duplicate(a, 0); }),
              "NOTE: MsgBufferPool::duplicate: anonymous owner......\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(MsgBufferPool::freeMsgBuf(a, 0), 0); }),
              "NOTE: MsgBufferPool::freeMsgBuf: anonymous owner......\n");
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(d, 4), 0);
}

TEST_F(Pool, ReferencesAndOwnerMasksAcrossDuplicatesAndFrees) {
    MsgBufferPool::initPool(2, 0);
    MsgBuf a = MsgBufferPool::allocMsgBuf(3, 10, 0x1);
    MsgBuf b = MsgBufferPool::duplicate(a, 0x6);
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
    EXPECT_EQ(counts(), "MsgBufferPool info: free 1, total 2");
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(a, 0x1), -1);  // a holds no reference any more
    EXPECT_EQ(refCount(b), 1u);

    // Handles of a freed reference are refused everywhere.
    EXPECT_EQ(MsgBufferPool::duplicate(a, 0x8).state, MSGBUF_INVALID);
    EXPECT_EQ(MsgBufferPool::copyMsgBuf(a).state, MSGBUF_INVALID);
    EXPECT_EQ(MsgBufferPool::makeProtocolMsg(a), -1);
    EXPECT_EQ(refCount(b), 1u);

    b.data += 20;  // a user moved its data pointer; the pool resets it on the last free
    EXPECT_EQ(MsgBufferPool::freeMsgBuf(b, 0x2), 0);
    EXPECT_EQ(refCount(b), 0u);
    EXPECT_EQ(*b.owners, 0x4u);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 2, total 2");
    // The last free put it at the back: the other buffer comes out first, then this one.
    MsgBuf next = MsgBufferPool::allocMsgBuf(3, 10, 1);
    EXPECT_NE(next.block, b.block);
    MsgBuf last = MsgBufferPool::allocMsgBuf(3, 10, 1);
    EXPECT_EQ(last.block, b.block);
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

TEST_F(Pool, DeepCopyOfAProtocolMessagePointsIntoTheNewBlock) {
    MsgBufferPool::initPool(0, 0);
    MsgBuf src = MsgBufferPool::allocMsgBuf(2, 100, 1);
    for (int i = 0; i < 200; ++i) src.data[i] = static_cast<uint8_t>(i);
    const uint16_t len = 33;
    memcpy(record(src) + offsetof(S_ProtocolMsg, pdataLen), &len, sizeof len);
    uint8_t* inside = src.data + 10;
    memcpy(record(src) + offsetof(S_ProtocolMsg, pdata), &inside, sizeof inside);
    src.userLen = 77;

    MsgBuf copy = MsgBufferPool::copyMsgBuf(src);
    ASSERT_EQ(copy.state, MSGBUF_USED);
    EXPECT_NE(copy.block, src.block);
    EXPECT_EQ(copy.msgType, 2);
    EXPECT_EQ(refCount(copy), 1u);
    EXPECT_EQ(*copy.owners, 0u);
    EXPECT_EQ(copy.dataSize, src.dataSize);
    EXPECT_EQ(copy.userLen, 77);
    EXPECT_EQ(body(copy), copy.header + 50);
    EXPECT_EQ(pdata(copy), copy.data + 10);
    EXPECT_EQ(pdataLen(copy), 33);
    EXPECT_EQ(refCount(src), 1u);

    MsgBufferPool::freeMsgBuf(src, 1);  // the copy stands on its own
    for (int i = 0; i < 200; ++i) ASSERT_EQ(copy.data[i], static_cast<uint8_t>(i));
}

TEST_F(Pool, DeepCopyKeepsOffsetsAndTurnsIntoProtocolMessage) {
    MsgBufferPool::initPool(0, 0);
    MsgBuf src = MsgBufferPool::allocMsgBuf(4, 50, 1);
    src.data += 8;  // the user's own data offset is carried over
    src.data[0] = 0x5A;
    MsgBuf copy = MsgBufferPool::copyMsgBuf(src);
    ASSERT_EQ(copy.state, MSGBUF_USED);
    EXPECT_EQ(body(copy), copy.block + 152);
    EXPECT_EQ(copy.data, copy.block + 160);
    EXPECT_EQ(copy.trailer, copy.block + 132);
    EXPECT_EQ(copy.data[0], 0x5A);
    EXPECT_GE(copy.blockSize, 200 + 152);  // twice the source's data size

    EXPECT_EQ(MsgBufferPool::makeProtocolMsg(copy), 0);
    EXPECT_EQ(copy.msgType, 2);
    EXPECT_EQ(body(copy), copy.header + 50);
    EXPECT_EQ(pdata(copy), copy.data);
    EXPECT_EQ(u32At(copy.header), 4u);  // the type word stays as it was
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
    EXPECT_EQ(copy.dataSize, 20);
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
    EXPECT_EQ(MsgBufferPool::allocMsgBuf(3, 40000, 1).state, MSGBUF_INVALID);

    MsgBuf largest = MsgBufferPool::allocMsgBuf(3, 32691, 1);  // takes the 65383-byte buffer
    ASSERT_EQ(largest.state, MSGBUF_USED);
    EXPECT_EQ(largest.blockSize, 65535);
    largest.data[largest.dataSize - 1] = 1;  // the last data byte is inside the block
    MsgBuf copy;
    EXPECT_EQ(captureStdout([&] { copy = MsgBufferPool::copyMsgBuf(largest); }),
              "ERR: MsgBufferPool::copyMsgBuf: size 65383 too large, refused!\n");
    EXPECT_EQ(copy.state, MSGBUF_INVALID);
    EXPECT_EQ(refCount(largest), 1u);
}

TEST_F(Pool, DestroyReleasesEverythingAndTheSecondEntryPointDoesTheSame) {
    MsgBufferPool::initPool(3, 128);
    MsgBufferPool::allocMsgBuf(3, 2000, 1);
    EXPECT_EQ(MsgBufferPool::releasePool(), 0);
    EXPECT_EQ(counts(), "MsgBufferPool info: free 0, total 0");
    EXPECT_EQ(MsgBufferPool::releasePool(), 0);   // not initialised any more: nothing to do
    EXPECT_EQ(MsgBufferPool::initPool(2, 0), 0);  // and it can be set up again
    EXPECT_EQ(counts(), "MsgBufferPool info: free 2, total 2");
}
