// System V message queue wrapper and key sources, run in a private IPC namespace (fixed keys).
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MsgQueue.h"

namespace {

using namespace std::chrono_literals;

// The tests create fixed keys and change IPC limits: refuse to run outside the namespace runner.
// A macro, so that the skip leaves the test body itself.
bool inTestNamespace() {
    const char* inNs = std::getenv("S2E_IN_NS");
    return inNs != nullptr && std::string(inNs) == "1";
}
#define requireNamespace() \
    if (!inTestNamespace()) GTEST_SKIP() << "needs tools/nsrun"

struct RawMsg {
    long mtype;
    char body[4096];
};

msqid_ds statQueue(int id) {
    msqid_ds ds{};
    EXPECT_EQ(msgctl(id, IPC_STAT, &ds), 0);
    return ds;
}

key_t keyOf(int id) {
    return statQueue(id).msg_perm.__key;
}

void putRaw(int id, long type, size_t bodyLen, char fill) {
    RawMsg m{};
    m.mtype = type;
    std::memset(m.body, fill, bodyLen);
    ASSERT_EQ(msgsnd(id, &m, bodyLen, 0), 0);
}

int freshQueue(key_t key) {
    const int id = msgget(key, IPC_CREAT | 0666);
    EXPECT_GE(id, 0);
    return id;
}

QueueMsg makeMsg(long type, const std::string& payload) {
    QueueMsg m{};
    m.mtype = type;
    m.dataLen = static_cast<uint32_t>(payload.size());
    std::memcpy(m.data, payload.data(), payload.size());
    return m;
}

// Writes an IPC limit of this namespace and puts the old value back when it goes out of scope.
class IpcLimit {
  public:
    IpcLimit(const char* path, const std::string& value) : path_(path) {
        std::ifstream in(path_);
        std::getline(in, old_);
        write(value);
    }
    ~IpcLimit() { write(old_); }

  private:
    void write(const std::string& value) {
        std::ofstream out(path_);
        out << value << '\n';
    }
    std::string path_;
    std::string old_;
};

// --- Key sources -------------------------------------------------------------------------------
// This test must come first: it checks the counter before anything in this program took a key.
TEST(QueueKeys, CounterCountsDownFrom0x200000AndQueuesUseItsKeys) {
    requireNamespace();
    EXPECT_EQ(queueKeyCounter, 0x200000u);
    MsgQueue first(0, 0);
    MsgQueue second(0, 0);
    ASSERT_GE(first.getMsgID(), 0);
    ASSERT_GE(second.getMsgID(), 0);
    EXPECT_EQ(keyOf(first.getMsgID()), 0x200000);
    EXPECT_EQ(keyOf(second.getMsgID()), 0x1FFFFF);
    EXPECT_EQ(statQueue(first.getMsgID()).msg_perm.mode & 0777, 0666u);
    EXPECT_EQ(allocQueueKey(), 0x1FFFFEu);
}

TEST(QueueKeys, ConcurrentAllocationHandsOutEveryKeyOnce) {
    requireNamespace();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    const uint32_t start = queueKeyCounter;
    std::vector<std::vector<uint32_t>> taken(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&taken, t] {
            for (int i = 0; i < kPerThread; ++i) taken[t].push_back(allocQueueKey());
        });
    }
    for (auto& th : threads) th.join();
    std::set<uint32_t> all;
    for (const auto& keys : taken) all.insert(keys.begin(), keys.end());
    ASSERT_EQ(all.size(), static_cast<size_t>(kThreads * kPerThread));
    EXPECT_EQ(*all.rbegin(), start);
    EXPECT_EQ(*all.begin(), start - kThreads * kPerThread + 1);
    EXPECT_EQ(queueKeyCounter, start - kThreads * kPerThread);
}

TEST(QueueKeys, SequenceCountsUpAndSkips0x320000) {
    requireNamespace();
    QueueKeySequence* seq = QueueKeySequence::instance();
    ASSERT_NE(seq, nullptr);
    EXPECT_EQ(QueueKeySequence::instance(), seq);
    seq->reset();
    EXPECT_EQ(seq->nextKey(), 0x310000u);
    EXPECT_EQ(seq->nextKey(), 0x310001u);
    uint32_t key = 0;
    while (key != 0x31FFFEu) key = seq->nextKey();
    EXPECT_EQ(seq->nextKey(), 0x31FFFFu);
    EXPECT_EQ(seq->nextKey(), 0x320001u);
    EXPECT_EQ(seq->nextKey(), 0x320002u);
    seq->reset();
    EXPECT_EQ(seq->nextKey(), 0x310000u);
}

TEST(QueueKeys, SequenceQueueIsCreatedUnderItsKeyAndNotEmptied) {
    requireNamespace();
    QueueKeySequence* seq = QueueKeySequence::instance();
    seq->reset();
    const int old = freshQueue(0x310000);
    putRaw(old, 1, 10, 'a');
    const int id = seq->createQueue();
    EXPECT_EQ(id, old);
    EXPECT_EQ(statQueue(id).msg_qnum, 1u);
    const int next = seq->createQueue();
    ASSERT_GE(next, 0);
    EXPECT_EQ(keyOf(next), 0x310001);
}

// --- Draining on open ----------------------------------------------------------------------------
TEST(QueueDrain, OldMessagesAreDroppedOnOpen) {
    requireNamespace();
    const int id = freshQueue(0x5000);
    for (int i = 0; i < 3; ++i) putRaw(id, 1 + i, 10, 'x');
    EXPECT_EQ(openQueue(0x5000), id);
    EXPECT_EQ(statQueue(id).msg_qnum, 0u);

    // The key-taking constructor drains as well.
    const uint32_t key = queueKeyCounter;
    const int counted = freshQueue(static_cast<key_t>(key));
    putRaw(counted, 7, 2048, 'y');  // exactly the scratch room still drains
    putRaw(counted, 7, 1, 'z');
    MsgQueue q(0, 0);
    EXPECT_EQ(q.getMsgID(), counted);
    EXPECT_EQ(statQueue(counted).msg_qnum, 0u);
}

TEST(QueueDrain, LongMessageStopsDrainingAndStays) {
    requireNamespace();
    const int id = freshQueue(0x5001);
    putRaw(id, 1, 3000, 'L');
    putRaw(id, 1, 10, 's');
    EXPECT_EQ(openQueue(0x5001), id);
    EXPECT_EQ(statQueue(id).msg_qnum, 2u);

    RawMsg m{};
    EXPECT_EQ(msgrcv(id, &m, sizeof m.body, 0, IPC_NOWAIT), 3000);
}

TEST(QueueDrain, EmptyBodyMessageStopsDraining) {
    requireNamespace();
    const int id = freshQueue(0x5002);
    putRaw(id, 1, 10, 'a');
    putRaw(id, 2, 0, 0);
    putRaw(id, 3, 10, 'c');
    EXPECT_EQ(openQueue(0x5002), id);
    // The kernel hands the empty message over (count 0), which ends the draining: it is gone,
    // and what queued behind it is still there.
    msqid_ds ds = statQueue(id);
    EXPECT_EQ(ds.msg_qnum, 1u);
    RawMsg m{};
    EXPECT_EQ(msgrcv(id, &m, sizeof m.body, 0, IPC_NOWAIT), 10);
    EXPECT_EQ(m.mtype, 3);
}

// --- Send and receive
// ------------------------------------------------------------------------------
TEST(QueueTransfer, EmptyPayloadIsFourBytesAndRoundTrips) {
    requireNamespace();
    MsgQueue q(freshQueue(0x6000), 0, IPC_NOWAIT);
    QueueMsg out = makeMsg(1, "");
    ASSERT_EQ(q.send(out), 0);
    msqid_ds ds = statQueue(q.getMsgID());
    EXPECT_EQ(ds.msg_qnum, 1u);
    EXPECT_EQ(ds.msg_cbytes, 4u);

    QueueMsg in{};
    in.dataLen = 0;
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(in.mtype, 1);
    EXPECT_EQ(in.dataLen, 0u);
}

TEST(QueueTransfer, PayloadRoundTripsAndRoomLimitsWhatIsTaken) {
    requireNamespace();
    MsgQueue q(freshQueue(0x6001), 0, IPC_NOWAIT);
    const std::string payload(100, 'p');
    ASSERT_EQ(q.send(makeMsg(9, payload)), 0);
    EXPECT_EQ(statQueue(q.getMsgID()).msg_cbytes, 104u);

    // Room for 50 payload bytes asks for 58: the 104-byte message does not fit and stays.
    QueueMsg in{};
    in.dataLen = 50;
    EXPECT_EQ(q.receive(in), -1);
    EXPECT_EQ(statQueue(q.getMsgID()).msg_qnum, 1u);

    // The request is the stated room plus 8: room for 96 still takes the 100-byte payload.
    in.dataLen = 96;
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(in.mtype, 9);
    EXPECT_EQ(in.dataLen, 100u);
    EXPECT_EQ(std::string(in.data, in.dataLen), payload);
}

TEST(QueueTransfer, FullRecordFitsOnlyAFullSizeReceive) {
    requireNamespace();
    MsgQueue q(freshQueue(0x6002), 0, IPC_NOWAIT);
    const std::string payload(kQueueMsgDataSize, 'f');
    ASSERT_EQ(q.send(makeMsg(2, payload)), 0);
    QueueMsg in{};
    in.dataLen = 2047;  // asks for 2055 bytes, one short
    EXPECT_EQ(q.receive(in), -1);
    in.dataLen = 0;  // asks for the full 2056
    ASSERT_EQ(q.receive(in), 0);
    EXPECT_EQ(in.dataLen, kQueueMsgDataSize);
    EXPECT_EQ(std::string(in.data, in.dataLen), payload);

    QueueMsg tooLong = makeMsg(2, "");
    tooLong.dataLen = kQueueMsgDataSize + 1;
    EXPECT_EQ(q.send(tooLong), -1);
    EXPECT_EQ(statQueue(q.getMsgID()).msg_qnum, 0u);
}

TEST(QueueTransfer, ReceiveAsksForItsMessageType) {
    requireNamespace();
    const int id = freshQueue(0x6003);
    MsgQueue sender(id, 0, IPC_NOWAIT);
    MsgQueue typeFive(id, 5, IPC_NOWAIT);
    MsgQueue anyType(id, 0, IPC_NOWAIT);
    ASSERT_EQ(sender.send(makeMsg(3, "three")), 0);
    ASSERT_EQ(sender.send(makeMsg(5, "five")), 0);
    QueueMsg in{};
    ASSERT_EQ(typeFive.receive(in), 0);
    EXPECT_EQ(std::string(in.data, in.dataLen), "five");
    in = QueueMsg{};
    EXPECT_EQ(typeFive.receive(in), -1);
    ASSERT_EQ(anyType.receive(in), 0);
    EXPECT_EQ(in.mtype, 3);
}

TEST(QueueTransfer, NoWaitReturnsAtOnceWaitingBlocksUntilSent) {
    requireNamespace();
    const int id = freshQueue(0x6004);
    MsgQueue noWait(id, 0, IPC_NOWAIT);
    QueueMsg in{};
    EXPECT_EQ(noWait.receive(in), -1);

    MsgQueue waiting(id, 0, 0);
    auto result = std::async(std::launch::async, [&waiting] {
        QueueMsg msg{};
        return waiting.receive(msg) == 0 ? msg.mtype : -1L;
    });
    EXPECT_EQ(result.wait_for(200ms), std::future_status::timeout);
    ASSERT_EQ(noWait.send(makeMsg(4, "go")), 0);
    ASSERT_EQ(result.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(result.get(), 4);
}

TEST(QueueTransfer, RawRecordsCarryTheirOwnSizes) {
    requireNamespace();
    MsgQueue q(freshQueue(0x6005), 0, IPC_NOWAIT);
    RawMsg out{};
    out.mtype = 0x30000;
    ASSERT_EQ(q.sendRaw(&out, 0), 0);  // the supervision messages: empty body
    out.mtype = 2;
    std::memcpy(out.body, "abcdefghij", 10);
    ASSERT_EQ(q.sendRaw(&out, 10), 0);

    // An empty body is taken from the queue but counts as a failure: the count is not positive.
    RawMsg in{};
    int32_t size = 0;
    EXPECT_EQ(q.receiveRaw(&in, size), -1);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(in.mtype, 0x30000);

    size = 64;
    ASSERT_EQ(q.receiveRaw(&in, size), 0);
    EXPECT_EQ(size, 10);
    EXPECT_EQ(std::string(in.body, 10), "abcdefghij");

    size = 64;
    EXPECT_EQ(q.receiveRaw(&in, size), -1);  // empty queue, IPC_NOWAIT
    EXPECT_EQ(size, -1);
}

// --- Unusable objects --------------------------------------------------------------------------
TEST(QueueUnusable, MinusOneIdentifierIsReportedAndRefused) {
    requireNamespace();
    testing::internal::CaptureStdout();
    MsgQueue q(-1, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "create msg queue failed! _msgID=-1 \n");
    EXPECT_EQ(q.getMsgID(), -1);
    QueueMsg msg = makeMsg(1, "x");
    EXPECT_EQ(q.send(msg), -1);
    EXPECT_EQ(q.receive(msg), -1);
}

TEST(QueueUnusable, MinusOneFlagsSendAndReceiveNothing) {
    requireNamespace();
    const int id = freshQueue(0x7000);
    MsgQueue q(id, 0, -1);
    EXPECT_EQ(q.send(makeMsg(1, "x")), -1);
    EXPECT_EQ(statQueue(id).msg_qnum, 0u);
    putRaw(id, 1, 10, 'k');
    QueueMsg in{};
    EXPECT_EQ(q.receive(in), -1);
    EXPECT_EQ(statQueue(id).msg_qnum, 1u);
}

TEST(QueueUnusable, CreationFailuresAreReported) {
    requireNamespace();
    IpcLimit noMoreQueues("/proc/sys/kernel/msgmni", "0");
    const uint32_t key = queueKeyCounter;
    testing::internal::CaptureStdout();
    MsgQueue q(0, 0);
    const std::string ctorOut = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ctorOut, "create msg queue failed! key=" + std::to_string(key) + " \n");
    EXPECT_EQ(q.getMsgID(), -1);
    EXPECT_EQ(q.send(makeMsg(1, "x")), -1);

    testing::internal::CaptureStdout();
    EXPECT_EQ(openQueue(0x7001), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "create msg queue failed! key=28673 \n");

    QueueKeySequence::instance()->reset();
    QueueKeySequence::instance()->nextKey();
    QueueKeySequence::instance()->nextKey();  // 0x310002 has no queue yet
    testing::internal::CaptureStdout();
    EXPECT_EQ(QueueKeySequence::instance()->createQueue(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "create msg error\n");
}

}  // namespace
