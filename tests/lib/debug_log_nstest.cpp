// Debug log sinks: threshold, console text, the debug file under a private /root, and the UDP sink
// as seen by a loopback peer, including switching it off while other threads log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "debug.h"
#include "debug_testutil.h"

using debugtest::FdCapture;
using debugtest::makePeer;
using debugtest::readFile;
using debugtest::UdpPeer;

namespace {

bool fileExists(const char* path) {
    struct stat st {};
    return stat(path, &st) == 0;
}

class DebugLogConsole : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(netLogEnabled.load(), 0);
        debugLevel = 0;
        unlink(kDebugFilePath);
    }
    void TearDown() override {
        debugLevel = 0;
        unlink(kDebugFilePath);
    }
};

TEST_F(DebugLogConsole, ThresholdComparesTheLowHalfUnsigned) {
    FdCapture out;
    debugLog(LOG_WARNING, "warning %d\n", 1);
    debugLog(LOG_INFO, "info\n");
    debugLog(LOG_DEBUG, "debug\n");
    debugLog(0x0000FFFFu, "low half 0xFFFF is level 65535, not -1\n");
    debugLog(LOG_TO_FILE | 0xFFFFu, "neither with the file tag\n");
    debugLog(0x27120000u, "pool tag %s\n", "is plain level 0");
    debugLog(LOG_ERROR, "error %s\n", "shown");
    debugLevel = 2;
    debugLog(LOG_WARNING, "warning at 2\n");
    debugLog(LOG_INFO, "info at 2\n");
    debugLog(LOG_DEBUG, "debug at 2\n");
    EXPECT_EQ(out.text(), "pool tag is plain level 0\nerror shown\nwarning at 2\ninfo at 2\n");
    EXPECT_FALSE(fileExists(kDebugFilePath)) << "only the 0xFFFF tag writes the file";
}

TEST_F(DebugLogConsole, FileHoldsOnlyTheLatestFlaggedMessage) {
    FdCapture out;
    debugLog(LOG_TO_FILE | LOG_ERROR, "first flagged message %d\n", 1);
    EXPECT_EQ(readFile(kDebugFilePath), "first flagged message 1\n");
    debugLog(LOG_TO_FILE | LOG_ERROR, "second\n");
    EXPECT_EQ(readFile(kDebugFilePath), "second\n") << "the file is emptied, not appended";
    debugLog(LOG_ERROR, "unflagged\n");
    debugLog(LOG_TO_FILE | LOG_WARNING, "flagged but filtered\n");
    EXPECT_EQ(readFile(kDebugFilePath), "second\n");

    // Longer than the message buffer: cut to 1499 characters on the console and in the file.
    const std::string longText(1600, 'L');
    debugLog(LOG_TO_FILE, "%s", longText.c_str());
    EXPECT_EQ(readFile(kDebugFilePath), std::string(1499, 'L'));
    EXPECT_EQ(out.text(), "first flagged message 1\nsecond\nunflagged\n" + std::string(1499, 'L'));
}

TEST_F(DebugLogConsole, StreamLeftOpenOrUnopenableLosesOneMessageSilently) {
    FdCapture out;
    ASSERT_EQ(openDebugFile(), 0);
    EXPECT_TRUE(debugFile.is_open());
    EXPECT_EQ(readFile(kDebugFilePath), "");
    debugLog(LOG_TO_FILE, "lost\n");
    EXPECT_FALSE(debugFile.is_open()) << "the failed open still ends with the close";
    EXPECT_EQ(readFile(kDebugFilePath), "");
    debugLog(LOG_TO_FILE, "kept\n");
    EXPECT_EQ(readFile(kDebugFilePath), "kept\n") << "the next open clears the failed state";

    // A directory in the file's place: the open fails, nothing is reported, the console still gets
    // it.
    unlink(kDebugFilePath);
    ASSERT_EQ(mkdir(kDebugFilePath, 0700), 0);
    EXPECT_EQ(openDebugFile(), -1);
    debugLog(LOG_TO_FILE, "no file\n");
    EXPECT_TRUE(debugFile.fail());
    rmdir(kDebugFilePath);
    debugLog(LOG_TO_FILE, "file again\n");
    EXPECT_EQ(readFile(kDebugFilePath), "file again\n");
    EXPECT_EQ(out.text(), "lost\nkept\nno file\nfile again\n");
}

TEST_F(DebugLogConsole, ConcurrentFlaggedMessagesNeverMixInTheFile) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 150;
    FdCapture out;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int m = 0; m < kMessages; ++m) {
                debugLog(LOG_TO_FILE, "thread %d message %03d %s\n", t, m,
                         "with a tail long enough to span several stream writes");
            }
        });
    }
    for (auto& th : threads) th.join();
    const std::string console = out.text();
    EXPECT_EQ(console.size(), static_cast<size_t>(kThreads * kMessages) * 75);
    // The last write of all is some thread's last message, whole and alone.
    const std::string file = readFile(kDebugFilePath);
    EXPECT_EQ(file.size(), 75u) << file;
    EXPECT_TRUE(debugtest::startsWithShape(
        file, "thread # message 149 with a tail long enough to span several stream writes\n"))
        << file;
}

TEST(DebugNetLogOpen, RefusesUnusablePeersSilently) {
    ASSERT_EQ(netLogEnabled.load(), 0);
    FdCapture out;
    EXPECT_EQ(openNetLog(nullptr), -1);
    const DebugPeerAddr refused[] = {
        makePeer(0, "127.0.0.1"),          makePeer(5000, "0.0.0.0"),
        makePeer(5000, "255.255.255.255"), makePeer(5000, "127.0.0.300"),
        makePeer(5000, "localhost"),       makePeer(5000, ""),
    };
    for (const DebugPeerAddr& peer : refused) {
        EXPECT_EQ(openNetLog(&peer), -1) << peer.address << ":" << peer.basePort;
        EXPECT_EQ(netLogEnabled.load(), 0);
        EXPECT_EQ(netLogSocket.load(), -1);
    }
    EXPECT_EQ(out.text(), "");
}

TEST(DebugNetLogOpen, SocketFailureIsReportedAndLeavesTheSinkOff) {
    ASSERT_EQ(netLogEnabled.load(), 0);
    const DebugPeerAddr peer = makePeer(5000, "127.0.0.1");
    FdCapture out(STDOUT_FILENO);
    FdCapture err(STDERR_FILENO);
    int result;
    {
        debugtest::NoMoreDescriptors limit;
        result = openNetLog(&peer);
    }
    const std::string errText = err.text();
    const std::string outText = out.text();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(netLogSocket.load(), -1);
    EXPECT_EQ(netLogEnabled.load(), 0);
    EXPECT_TRUE(debugtest::isSocketFailurePrefix(outText, "debug.cpp")) << outText;
    EXPECT_EQ(errText, "Creat Morlan socket : Too many open files\n");
}

// One sink session: opened once, every network-mode rule checked, then closed while threads log.
TEST(DebugNetLog, LoopbackPeerReceivesTranslatedDatagramsUntilClosed) {
    ASSERT_EQ(netLogEnabled.load(), 0);
    UdpPeer peer;
    ASSERT_TRUE(peer.ok());
    ASSERT_LE(peer.port(), 65533);
    const DebugPeerAddr record = makePeer(static_cast<uint16_t>(peer.port() + 2), "127.0.0.1");
    ASSERT_EQ(openNetLog(&record), 0);
    EXPECT_EQ(netLogDest.sin_family, AF_INET);
    EXPECT_EQ(ntohs(netLogDest.sin_port), peer.port()) << "log goes two below the base port";
    EXPECT_EQ(netLogDest.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    // Already on: the first peer stays.
    const DebugPeerAddr other = makePeer(5000, "127.0.0.2");
    EXPECT_EQ(openNetLog(&other), 0);
    EXPECT_EQ(ntohs(netLogDest.sin_port), peer.port());
    EXPECT_EQ(netLogDest.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    debugLevel = 0;
    std::ofstream(kDebugFilePath) << "before\n";
    {
        FdCapture out;
        struct Case {
            std::string message;
            std::string datagram;
        };
        const std::vector<Case> cases = {
            {"a~b\n", "a b\r\n"},
            {"line\r\n", "line\r\n"},
            {"\n", "\r\n"},
            {"\n\n", "\r\n\r\n"},
            {"~~x\r~\n", "  x\r \r\n"},
            {"", ""},
            {std::string(1200, 'c'), std::string(1000, 'c')},
            {std::string(999, 'd') + "\n", std::string(999, 'd') + "\r\n"},
            {std::string(1000, 'e') + "\n", std::string(1000, 'e')},
            {std::string(998, 'f') + "\r\n", std::string(998, 'f') + "\r\n"},
        };
        std::string console;
        for (const Case& c : cases) {
            debugLog(LOG_ERROR, "%s", c.message.c_str());
            console += c.message;
            bool got = false;
            const std::string datagram = peer.receive(&got);
            EXPECT_TRUE(got);
            EXPECT_EQ(datagram, c.datagram) << "message of " << c.message.size() << " chars";
        }

        // The filter applies before anything is sent; tags other than 0xFFFF are carried.
        debugLog(LOG_WARNING, "filtered\n");
        debugLog(0x27120000u, "pool tag\n");
        EXPECT_EQ(peer.receive(), "pool tag\r\n");
        debugLevel = 3;
        debugLog(LOG_DEBUG, "debug %d\n", 3);
        EXPECT_EQ(peer.receive(), "debug 3\r\n");

        // In network mode the file tag sends and prints but never writes the file.
        debugLog(LOG_TO_FILE | LOG_ERROR, "flagged\n");
        EXPECT_EQ(peer.receive(), "flagged\r\n");
        EXPECT_EQ(readFile(kDebugFilePath), "before\n");
        EXPECT_EQ(out.text(), console + "pool tag\ndebug 3\nflagged\n");
    }

    // Several threads share the socket: every datagram arrives whole.
    {
        FdCapture out;
        constexpr int kThreads = 4;
        constexpr int kMessages = 25;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int m = 0; m < kMessages; ++m) debugLog(LOG_ERROR, "t%d m%02d\n", t, m);
            });
        }
        std::set<std::string> received;
        for (int i = 0; i < kThreads * kMessages; ++i) received.insert(peer.receive());
        for (auto& th : threads) th.join();
        EXPECT_EQ(received.size(), static_cast<size_t>(kThreads * kMessages));
        EXPECT_EQ(received.count("t3 m24\r\n"), 1u);
    }

    // Closing while others log: they keep going, the switch, socket and threshold are reset.
    {
        FdCapture out;
        std::atomic<bool> stop{false};
        std::vector<std::thread> loggers;
        for (int t = 0; t < 2; ++t) {
            loggers.emplace_back([&stop] {
                while (!stop.load()) debugLog(LOG_ERROR, "~during close\n");
            });
        }
        EXPECT_EQ(closeNetLog(), 0);
        stop = true;
        for (auto& th : loggers) th.join();
        out.text();
    }
    EXPECT_EQ(netLogEnabled.load(), 0);
    EXPECT_EQ(netLogSocket.load(), -1);
    EXPECT_EQ(debugLevel.load(), 0) << "closing resets a raised threshold";

    peer.drain();
    FdCapture out;
    debugLog(LOG_ERROR, "after close\n");
    EXPECT_EQ(out.text(), "after close\n");
    bool got = true;
    peer.receive(&got, 200);
    EXPECT_FALSE(got) << "the sink is off";
    EXPECT_EQ(readFile(kDebugFilePath), "before\n");
    unlink(kDebugFilePath);
}

}  // namespace
