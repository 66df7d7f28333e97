// Debug log sinks: threshold, console text, the debug file under a private /root, and the UDP sink
// as seen by a loopback peer, including switching it off while other threads log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "debug_testutil.h"

using debugtest::FdCapture;
using debugtest::readFile;

namespace {

class DebugLogConsole : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(netLogEnabled.load(), 0);
        unlink(kDebugFilePath);
    }
    void TearDown() override {
        debugLevel = 0;
        unlink(kDebugFilePath);
    }
    FdCapture out_;
};

TEST_F(DebugLogConsole, ThresholdComparesTheLowHalfUnsignedAndOnlyTag0xFFFFWritesTheFile) {
    debugLog(LOG_WARNING, "warning %d\n", 1);
    debugLog(LOG_DEBUG, "debug\n");
    debugLog(0x0000FFFFu, "low half 0xFFFF is level 65535, not -1\n");
    debugLog(0x27120000u, "pool tag %s\n", "is plain level 0");
    debugLevel = 2;
    debugLog(LOG_INFO, "info at 2\n");
    debugLog(LOG_DEBUG, "debug at 2\n");
    EXPECT_EQ(out_.text(), "pool tag is plain level 0\ninfo at 2\n");
    struct stat st {};
    EXPECT_NE(stat(kDebugFilePath, &st), 0);
}

TEST_F(DebugLogConsole, FileHoldsOnlyTheLatestFlaggedMessage) {
    debugLog(LOG_TO_FILE | LOG_ERROR, "first flagged message %d\n", 1);
    EXPECT_EQ(readFile(kDebugFilePath), "first flagged message 1\n");
    debugLog(LOG_TO_FILE, "second\n");
    debugLog(LOG_ERROR, "unflagged\n");
    debugLog(LOG_TO_FILE | LOG_WARNING, "flagged but filtered\n");
    EXPECT_EQ(readFile(kDebugFilePath), "second\n") << "emptied, not appended";
    debugLog(LOG_TO_FILE, "%s", std::string(1600, 'L').c_str());
    EXPECT_EQ(readFile(kDebugFilePath), std::string(1499, 'L'));
    EXPECT_EQ(out_.text(), "first flagged message 1\nsecond\nunflagged\n" + std::string(1499, 'L'));
}

TEST_F(DebugLogConsole, StreamLeftOpenOrUnopenableLosesOneMessageSilently) {
    ASSERT_EQ(openDebugFile(), 0);
    debugLog(LOG_TO_FILE, "lost\n");
    EXPECT_FALSE(debugFile.is_open()) << "the failed open still ends with the close";
    EXPECT_EQ(readFile(kDebugFilePath), "");
    debugLog(LOG_TO_FILE, "kept\n");
    EXPECT_EQ(readFile(kDebugFilePath), "kept\n") << "the next open clears the failed state";

    unlink(kDebugFilePath);
    ASSERT_EQ(mkdir(kDebugFilePath, 0700), 0);
    EXPECT_EQ(openDebugFile(), -1);
    debugLog(LOG_TO_FILE, "no file\n");
    rmdir(kDebugFilePath);
    debugLog(LOG_TO_FILE, "file again\n");
    EXPECT_EQ(readFile(kDebugFilePath), "file again\n");
    EXPECT_EQ(out_.text(), "lost\nkept\nno file\nfile again\n");
}

TEST_F(DebugLogConsole, ConcurrentFlaggedMessagesNeverMixInTheFile) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int m = 0; m < 150; ++m) debugLog(LOG_TO_FILE, "thread %d message %03d\n", t, m);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(out_.text().size(), 4u * 150u * 21u);
    // The last write of all is some thread's last message, whole and alone.
    EXPECT_TRUE(debugtest::matchesShape(readFile(kDebugFilePath), "thread # message 149\n"));
}

TEST(DebugNetLogOpen, RefusesUnusablePeersSilently) {
    FdCapture out;
    EXPECT_EQ(openNetLog(nullptr), -1);
    for (const auto& [port, address] :
         std::vector<std::pair<uint16_t, const char*>>{{0, "127.0.0.1"},
                                                       {5000, "0.0.0.0"},
                                                       {5000, "255.255.255.255"},
                                                       {5000, "127.0.0.300"},
                                                       {5000, ""}}) {
        const DebugPeerAddr peer = debugtest::makePeer(port, address);
        EXPECT_EQ(openNetLog(&peer), -1) << address << ":" << port;
    }
    EXPECT_EQ(netLogEnabled.load(), 0);
    EXPECT_EQ(netLogSocket.load(), -1);
    EXPECT_EQ(out.text(), "");
}

// One sink session: opened once, every network-mode rule checked, then closed while threads log.
TEST(DebugNetLog, LoopbackPeerReceivesTranslatedDatagramsUntilClosed) {
    debugtest::UdpPeer peer;
    ASSERT_LE(peer.port(), 65533);
    const DebugPeerAddr record = debugtest::makePeer(peer.port() + 2, "127.0.0.1");
    ASSERT_EQ(openNetLog(&record), 0);
    const DebugPeerAddr other = debugtest::makePeer(5000, "127.0.0.2");
    EXPECT_EQ(openNetLog(&other), 0) << "already on: the first peer stays";
    EXPECT_EQ(ntohs(netLogDest.sin_port), peer.port()) << "two below the base port";
    EXPECT_EQ(netLogDest.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    std::ofstream(kDebugFilePath) << "before\n";
    FdCapture out;
    const std::pair<std::string, std::string> cases[] = {
        {"a~b\n", "a b\r\n"},
        {"line\r\n", "line\r\n"},
        {"\n\n", "\r\n\r\n"},
        {"~~x\r~\n", "  x\r \r\n"},
        {"", ""},
        {std::string(1200, 'c'), std::string(1000, 'c')},
        {std::string(999, 'd') + "\n", std::string(999, 'd') + "\r\n"},
        {std::string(1000, 'e') + "\n", std::string(1000, 'e')},
    };
    std::string console;
    for (const auto& [message, datagram] : cases) {
        debugLog(LOG_ERROR, "%s", message.c_str());
        console += message;
        bool got = false;
        EXPECT_EQ(peer.receive(&got), datagram) << "message of " << message.size() << " chars";
        EXPECT_TRUE(got);
    }
    debugLog(LOG_WARNING, "filtered\n");
    debugLog(0x27120000u, "pool tag\n");
    EXPECT_EQ(peer.receive(), "pool tag\r\n") << "the filtered message was not sent";
    debugLevel = 3;
    debugLog(LOG_TO_FILE | LOG_DEBUG, "flagged\n");
    EXPECT_EQ(peer.receive(), "flagged\r\n");
    EXPECT_EQ(readFile(kDebugFilePath), "before\n") << "network mode never writes the file";
    EXPECT_EQ(out.text(), console + "pool tag\nflagged\n");

    // Several threads share the socket, and keep logging while it is closed.
    FdCapture quiet;
    std::atomic<bool> closing{false};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t, &closing, &stop] {
            for (int m = 0; m < 30; ++m) debugLog(LOG_ERROR, "t%d m%02d\n", t, m);
            while (!closing) std::this_thread::yield();
            while (!stop) {
                debugLog(LOG_ERROR, "~during close\n");
                usleep(50);
            }
        });
    }
    std::set<std::string> received;
    for (int i = 0; i < 90; ++i) received.insert(peer.receive());
    EXPECT_EQ(received.size(), 90u);
    EXPECT_EQ(received.count("t2 m29\r\n"), 1u);
    closing = true;
    EXPECT_EQ(closeNetLog(), 0);
    stop = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(netLogEnabled.load(), 0);
    EXPECT_EQ(netLogSocket.load(), -1);
    EXPECT_EQ(debugLevel.load(), 0) << "closing resets a raised threshold";
    peer.drain();
    debugLog(LOG_ERROR, "after close\n");
    bool got = true;
    peer.receive(&got, 200);
    EXPECT_FALSE(got);
    unlink(kDebugFilePath);
}

}  // namespace
