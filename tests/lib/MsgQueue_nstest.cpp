// System V message queue wrapper and key sources, run in a private IPC namespace (fixed keys).
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "MsgQueue.h"

namespace {

using namespace std::chrono_literals;

// The tests create fixed keys and change IPC limits: they run only under tools/nsrun.
#define requireNamespace() \
    if (!std::getenv("S2E_IN_NS")) GTEST_SKIP() << "needs tools/nsrun"

struct RawMsg {
    long mtype;
    char body[3000];
};

msqid_ds queueStat(int id) {
    msqid_ds ds{};
    EXPECT_EQ(msgctl(id, IPC_STAT, &ds), 0);
    return ds;
}

// A queue holding messages of the given body sizes, as an earlier run might have left it.
int queueWith(key_t key, std::initializer_list<size_t> sizes) {
    const int id = msgget(key, IPC_CREAT | 0666);
    RawMsg m{};
    for (size_t size : sizes) {
        ++m.mtype;
        EXPECT_EQ(msgsnd(id, &m, size, 0), 0);
    }
    return id;
}

QueueMsg makeMsg(long type, const std::string& payload) {
    QueueMsg m{};
    m.mtype = type;
    m.dataLen = static_cast<uint32_t>(payload.size());
    std::memcpy(m.data, payload.data(), payload.size());
    return m;
}

// Must run first: nothing in this program has taken a key before.
TEST(QueueKeys, CounterCountsDownFrom0x200000) {
    requireNamespace();
    MsgQueue first(0, 0), second(0, 0);
    EXPECT_EQ(queueStat(first.getMsgID()).msg_perm.__key, 0x200000);
    EXPECT_EQ(queueStat(second.getMsgID()).msg_perm.__key, 0x1FFFFF);
    EXPECT_EQ(queueStat(first.getMsgID()).msg_perm.mode & 0777, 0666u);
    EXPECT_EQ(allocQueueKey(), 0x1FFFFEu);
}

TEST(QueueKeys, SequenceCountsUpSkipping0x320000AndKeepsMessages) {
    requireNamespace();
    QueueKeySequence* seq = QueueKeySequence::instance();
    EXPECT_EQ(QueueKeySequence::instance(), seq);
    const int old = queueWith(0x310000, {10});
    EXPECT_EQ(seq->createQueue(), old);
    EXPECT_EQ(queueStat(old).msg_qnum, 1u);  // not emptied
    EXPECT_EQ(seq->nextKey(), 0x310001u);
    while (seq->nextKey() != 0x31FFFEu) {
    }
    EXPECT_EQ(seq->nextKey(), 0x31FFFFu);
    EXPECT_EQ(seq->nextKey(), 0x320001u);
    EXPECT_EQ(seq->nextKey(), 0x320002u);
    seq->reset();
    EXPECT_EQ(seq->nextKey(), 0x310000u);
    seq->reset();
}

TEST(QueueDrain, OpeningEmptiesUntilALongOrEmptyMessage) {
    requireNamespace();
    const int drained = queueWith(0x5000, {10, 10, 2048, 10});
    EXPECT_EQ(openQueue(0x5000), drained);
    EXPECT_EQ(queueStat(drained).msg_qnum, 0u);

    const int longStops = queueWith(0x5001, {10, 3000, 10});
    EXPECT_EQ(openQueue(0x5001), longStops);
    EXPECT_EQ(queueStat(longStops).msg_qnum, 2u);  // the 3000-byte message and what is behind it

    // The kernel hands the empty message over with a count of 0, which ends the draining.
    const int emptyStops = queueWith(0x5002, {10, 0, 10});
    EXPECT_EQ(openQueue(0x5002), emptyStops);
    EXPECT_EQ(queueStat(emptyStops).msg_qnum, 1u);

    // The key-taking constructor drains too.
    const int counted = queueWith(static_cast<key_t>(queueKeyCounter), {10, 10});
    MsgQueue q(0, 0);
    EXPECT_EQ(q.getMsgID(), counted);
    EXPECT_EQ(queueStat(counted).msg_qnum, 0u);
}

TEST(QueueTransfer, RecordSizesAndReceiveRoom) {
    requireNamespace();
    MsgQueue q(queueWith(0x6000, {}), 0, IPC_NOWAIT);
    ASSERT_EQ(q.send(makeMsg(1, "")), 0);
    EXPECT_EQ(queueStat(q.getMsgID()).msg_cbytes, 4u);  // dataLen alone
    QueueMsg in{};
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(in.mtype, 1);
    EXPECT_EQ(in.dataLen, 0u);

    // A full record fits a receive of room 0 (2056 bytes) but not one of 2047 (2055 bytes).
    const std::string full(kQueueMsgDataSize, 'f');
    ASSERT_EQ(q.send(makeMsg(2, full)), 0);
    in.dataLen = 2047;
    EXPECT_EQ(q.receive(in), -1);
    in.dataLen = 0;
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(std::string(in.data, in.dataLen), full);
}

TEST(QueueTransfer, TypeSelectionNoWaitAndWaiting) {
    requireNamespace();
    const int id = queueWith(0x6001, {});
    MsgQueue typeFive(id, 5, IPC_NOWAIT), anyType(id, 0, IPC_NOWAIT), waiting(id, 0, 0);
    QueueMsg in{};
    EXPECT_EQ(anyType.receive(in), -1);  // empty: at once
    ASSERT_EQ(anyType.send(makeMsg(3, "three")), 0);
    EXPECT_EQ(typeFive.receive(in), -1);  // only type 3 there
    ASSERT_EQ(anyType.receive(in), 0);
    auto result = std::async(std::launch::async, [&waiting] {
        QueueMsg msg{};
        return waiting.receive(msg) == 0 ? msg.mtype : -1L;
    });
    EXPECT_EQ(result.wait_for(200ms), std::future_status::timeout);
    ASSERT_EQ(anyType.send(makeMsg(4, "go")), 0);
    ASSERT_EQ(result.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(result.get(), 4);
}

TEST(QueueUnusable, BadIdentifierOrFlagsRefuseWithoutTouchingTheQueue) {
    requireNamespace();
    testing::internal::CaptureStdout();
    MsgQueue noQueue(-1, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "create msg queue failed! _msgID=-1 \n");
    QueueMsg msg = makeMsg(1, "x");
    EXPECT_EQ(noQueue.send(msg), -1);
    EXPECT_EQ(noQueue.receive(msg), -1);

    const int id = queueWith(0x7000, {});
    MsgQueue noFlags(id, 0, -1);
    EXPECT_EQ(noFlags.send(msg), -1);
    EXPECT_EQ(queueStat(id).msg_qnum, 0u);
    queueWith(0x7000, {10});
    EXPECT_EQ(noFlags.receive(msg), -1);
    EXPECT_EQ(queueStat(id).msg_qnum, 1u);
}

TEST(QueueUnusable, CreationFailuresAreReported) {
    requireNamespace();
    // This namespace may make no more queues for the rest of the program.
    std::ofstream("/proc/sys/kernel/msgmni") << "0\n";
    const uint32_t key = queueKeyCounter;
    testing::internal::CaptureStdout();
    MsgQueue q(0, 0);
    EXPECT_EQ(openQueue(0x7001), -1);
    QueueKeySequence::instance()->nextKey();  // 0x310001 has no queue
    EXPECT_EQ(QueueKeySequence::instance()->createQueue(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "create msg queue failed! key=" + std::to_string(key) +
                  " \ncreate msg queue failed! key=28673 \ncreate msg error\n");
    EXPECT_EQ(q.getMsgID(), -1);
    EXPECT_EQ(q.send(makeMsg(1, "x")), -1);
}

}  // namespace
