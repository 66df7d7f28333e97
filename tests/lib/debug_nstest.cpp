// The debug unit: decorated printer, the log's console, file and network sinks, hex dumps, the
// protocol record's dump (its layout is pinned in ProtocolMsg.h), sub socket. Private namespaces:
// the debug file is /root/dbg.txt. Peers are UDP sockets on 127.0.0.1.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>

#include "ProtocolMsg.h"
#include "TestSupport.h"
#include "debug.h"

namespace {

using s2etest::FdCapture;
using s2etest::readFile;

DebugPeerAddr peerAt(uint16_t basePort, const char* address) {
    DebugPeerAddr peer{0xA5, basePort, {}};
    snprintf(peer.address, sizeof peer.address, "%s", address);
    return peer;
}

class Debug : public ::testing::Test {
  protected:
    void TearDown() override {
        if (netLogEnabled) closeNetLog();
        if (subSocketEnabled) closeSubSocket();
        debugLevel = 0;
        unlink(kDebugFilePath);
    }
    s2etest::UdpPeer peer;
    const DebugPeerAddr loopback = peerAt(peer.port() + 2, "127.0.0.1");
};

TEST_F(Debug, DecoratedLinesByLevelAndFilter) {
    FdCapture out;
    std::string want;
    const char* names[] = {"ERROR   ", "WARNING ", "INFO    ", "DEBUG   "};
    for (const time_t start = time(nullptr); time(nullptr) == start;) usleep(1000);  // one second
    char date[32];
    const time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", localtime(&now));
    for (int level : {0, 1, 2, 3, 4, -1}) {
        debugPrint(level, "x.cpp", level * 7, "m 100%%");
        if (level >= 0 && level < 4)
            want += std::string("[SLAVE][") + date + "]" + names[level] + ":[x.cpp,L" +
                    std::to_string(level * 7) + "]m 100%\n";
    }
    printMaxLevel = 1;
    debugPrint(2, "x.cpp", 1, "above the maximum");
    printFilterOn = 0;
    debugPrint(3, "x.cpp", 1, "filter off");
    printFilterOn = 1, printMaxLevel = 3;
    EXPECT_EQ(out.text(),
              want + "[SLAVE]" + want.substr(7, 21) + "DEBUG   :[x.cpp,L1]filter off\n");
}

TEST_F(Debug, ConsoleAndTheFileOfTheLatestFlaggedMessage) {
    FdCapture out;
    debugLog(LOG_WARNING, "warning\n");
    debugLog(0x0000FFFFu, "low half 0xFFFF is level 65535, not -1\n");
    debugLog(0x27120000u, "pool tag is level 0\n");
    EXPECT_NE(access(kDebugFilePath, F_OK), 0) << "only the tag 0xFFFF writes the file";
    debugLog(LOG_TO_FILE | LOG_ERROR, "flagged %d\n", 1);
    EXPECT_EQ(readFile(kDebugFilePath), "flagged 1\n");
    debugLog(LOG_TO_FILE | LOG_WARNING, "flagged but filtered\n");
    debugLevel = 2;
    debugLog(LOG_INFO, "info at 2\n");
    debugLog(LOG_DEBUG, "debug at 2\n");
    debugLog(LOG_TO_FILE, "%s", std::string(1600, 'L').c_str());
    EXPECT_EQ(readFile(kDebugFilePath), std::string(1499, 'L')) << "emptied, not appended";
    EXPECT_EQ(out.text(), "pool tag is level 0\nflagged 1\ninfo at 2\n" + std::string(1499, 'L'));
}

// One network sink session: refusals, translation and cut of the datagrams, the close.
TEST_F(Debug, NetworkSink) {
    const DebugPeerAddr other = peerAt(5000, "127.0.0.2");
    for (const auto& bad : {peerAt(0, "127.0.0.1"), peerAt(5000, "0.0.0.0"),
                            peerAt(5000, "255.255.255.255"), peerAt(5000, "127.0.0.300")})
        EXPECT_EQ(openNetLog(&bad), -1);
    EXPECT_EQ(openNetLog(&loopback), 0);
    EXPECT_EQ(openNetLog(&other), 0) << "already on: the first peer stays";
    std::ofstream(kDebugFilePath) << "before\n";
    FdCapture out;
    std::string console;
    const std::string c(1200, 'c'), d(999, 'd'), e(1000, 'e');
    // clang-format off
    const std::pair<std::string, std::string> rows[] = {{"a~b\n", "a b\r\n"}, {"line\r\n", "line\r\n"},
        {"~~x\r~\n", "  x\r \r\n"}, {"", ""}, {c, c.substr(0, 1000)}, {d + "\n", d + "\r\n"}, {e + "\n", e}};
    // clang-format on
    for (const auto& [message, datagram] : rows) {
        debugLog(LOG_ERROR, "%s", message.c_str());
        console += message;
        EXPECT_EQ(peer.receive(), datagram) << testing::PrintToString(message.substr(0, 8));
    }
    debugLog(LOG_WARNING, "filtered\n");
    debugLog(LOG_TO_FILE | LOG_ERROR, "flagged\n");
    EXPECT_EQ(peer.receive(), "flagged\r\n") << "the filtered message was not sent";
    EXPECT_EQ(readFile(kDebugFilePath), "before\n") << "network mode never writes the file";
    EXPECT_EQ(out.text(), console + "flagged\n");
    debugLevel = 3;
    EXPECT_EQ(closeNetLog(), 0);
    debugLog(LOG_ERROR, "after close\n");
    EXPECT_EQ(netLogEnabled, 0) << "off";
    EXPECT_EQ(netLogSocket, -1) << "released";
    EXPECT_EQ(debugLevel, 0) << "threshold reset";
    bool got = true;
    while (got && peer.receive(&got, 200) != "after close\r\n") {
    }
    EXPECT_FALSE(got);
}

std::string lowerHex(const uint8_t* bytes, size_t from, size_t to) {
    std::string text;
    char cell[4];
    for (size_t i = from; i < to; ++i) snprintf(cell, sizeof cell, "%02x ", bytes[i]), text += cell;
    return text;
}

TEST_F(Debug, HexAndProtocolDumps) {
    ASSERT_EQ(openNetLog(&loopback), 0);
    uint8_t b[700];
    for (size_t i = 0; i < 700; ++i) b[i] = uint8_t(i * 7 + 0xF0);
    // Datagram lines hold bytes 0-60, 61-120, ...; the text is cut after position 2039.
    for (size_t n : {0, 2, 200, 671, 700}) {
        std::string want = "\n\r";
        for (size_t from = 0, to = 61; from < std::min<size_t>(n, 672); from = to, to += 60) {
            want += lowerHex(b, from, std::min<size_t>({to, n, 672})) + (to <= n ? "\n\r" : "");
        }
        EXPECT_EQ(sendHexDump(b, uint32_t(n)), ssize_t(want.size() + 2)) << n;
        EXPECT_EQ(peer.receive(), want + "\n\r") << n;
    }
    FdCapture out;  // the console copy is not checked here
    debugLevel = 1;
    dumpBytes(b, 45);
    debugLevel = 2;
    dumpBytes(b, 25);
    EXPECT_EQ(peer.receive(), "\n\r" + lowerHex(b, 0, 25) + "\n\r")
        << "the level-1 dump sent nothing";
    dumpBytes(b, -3);
    EXPECT_EQ(peer.receive(), "\n\r\n\r") << "a negative count sends an empty dump";
    S_ProtocolMsg m{};  // its address lines follow the low four bits of the protocol number
    m.srcProtocol = 0x13, m.srcNPC.npID = 0x31;
    dumpProtocolMsg(&m);
    EXPECT_NE(out.text().find("\n  srcNPC.npID           31 \n"), std::string::npos);
}

// The sub socket, opened on its private default first (never sent to); then creation failures.
TEST_F(Debug, SubSocketAndSocketCreationFailures) {
    const uint8_t byte = 1;
    EXPECT_EQ(sendHexDump(&byte, 1), -1) << "no network log yet";
    EXPECT_EQ(subSocketPrintf("off %d\n", 1), -1) << "no sub socket yet";
    const DebugPeerAddr broadcast = peerAt(5000, "255.255.255.255"),
                        sub = peerAt(peer.port() + 1, "127.0.0.1");
    ASSERT_EQ(openSubSocket(nullptr), 0) << "default peer";
    ASSERT_EQ(openSubSocket(&broadcast), 0) << "already open: keeps the first";
    ASSERT_EQ(openSubSocket(&sub), 0);
    FdCapture out;
    EXPECT_EQ(subSocketPrintf("a=%d~\n", 5), 0);
    EXPECT_EQ(peer.receive(), "a=5~\n") << "sent as formatted, untranslated";
    debugLevel = 1;
    EXPECT_EQ(subSocketPrintf("%s", std::string(1600, 's').c_str()), 0);
    EXPECT_EQ(peer.receive(), std::string(1499, 's'));
    EXPECT_EQ(closeSubSocket(), 0);
    EXPECT_EQ(subSocketEnabled, 0) << "off";
    EXPECT_EQ(subSocket, -1) << "released";
    EXPECT_EQ(debugLevel, 1) << "threshold kept";
    EXPECT_EQ(subSocketPrintf("closed\n"), -1);
    EXPECT_EQ(out.text(), std::string(1499, 's'));
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    const int lowestFree = dup(0);
    close(lowestFree);
    const rlimit tight{rlim_t(lowestFree), saved.rlim_max};
    FdCapture err(STDERR_FILENO), msg;
    setrlimit(RLIMIT_NOFILE, &tight);
    EXPECT_EQ(openNetLog(&loopback), -1) << "network log without a descriptor";
    EXPECT_EQ(openSubSocket(&sub), -1) << "sub socket without a descriptor";
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(
        err.text(),
        "Creat Morlan socket : Too many open files\nCreat sub socket : Too many open files\n");
    std::string where = msg.text();
    where.erase(std::remove_if(where.begin(), where.end(), ::isdigit), where.end());
    EXPECT_EQ(where, "Msg: debug.cpp,(): Msg: debug.cpp,(): ");
    EXPECT_EQ(netLogEnabled, 0) << "network log off";
    EXPECT_EQ(subSocketEnabled, 0) << "sub socket off";
}

}  // namespace
