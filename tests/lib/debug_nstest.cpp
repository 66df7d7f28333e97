// The debug unit: decorated printer, the log's console, file and network sinks, hex dumps, the
// protocol record's dump (its layout is pinned in ProtocolMsg.h), sub socket. Private namespaces:
// the debug file is /root/dbg.txt. Peers are UDP sockets on 127.0.0.1.
#include <gtest/gtest.h>
#include <sys/stat.h>

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
    const char* names[] = {"ERROR   ", "WARNING ", "INFO    ", "DEBUG   "};
    for (const time_t start = time(nullptr); time(nullptr) == start;) usleep(1000);  // one second
    char date[32];
    const time_t now = time(nullptr);
    strftime(date, sizeof date, "[%Y-%m-%d %H:%M:%S]", localtime(&now));
    const std::string head = std::string("[SLAVE]") + date;
    std::string want;
    for (int level : {0, 1, 2, 3, 4, -1}) {
        debugPrint(level, "x.cpp", level * 7, "m 100%%");
        if (level < 0 || level > 3) continue;
        want += head + names[level] + ":[x.cpp,L" + std::to_string(level * 7) + "]m 100%\n";
    }
    printMaxLevel = 1;
    debugPrint(2, "x.cpp", 1, "above the maximum");
    printFilterOn = 0;
    debugPrint(3, "x.cpp", 1, "filter off");
    want += head + "DEBUG   :[x.cpp,L1]filter off\n";
    printFilterOn = 1;
    printMaxLevel = 3;
    EXPECT_EQ(out.text(), want);
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
    for (const auto& bad : {peerAt(0, "127.0.0.1"), peerAt(5000, "0.0.0.0"),
                            peerAt(5000, "255.255.255.255"), peerAt(5000, "127.0.0.300")})
        EXPECT_EQ(openNetLog(&bad), -1) << bad.address << " port " << int(bad.basePort);
    EXPECT_EQ(openNetLog(&loopback), 0);
    std::ofstream(kDebugFilePath) << "before\n";
    FdCapture out;
    std::string console;
    const std::string c(1200, 'c'), d(999, 'd'), e(1000, 'e');
    const struct {
        std::string message, datagram;
    } rows[] = {
        {"a~b\n", "a b\r\n"},      // a tilde becomes a blank, a line end CR LF
        {"line\r\n", "line\r\n"},  // CR LF stays
        {"~~x\r~\n", "  x\r \r\n"},
        {"", ""},
        {c, c.substr(0, 1000)},  // cut at 1000 characters
        {d + "\n", d + "\r\n"},  // 999 and the line end fit
        {e + "\n", e},           // 1000: the line end is cut off
    };
    for (const auto& row : rows) {
        debugLog(LOG_ERROR, "%s", row.message.c_str());
        console += row.message;
        EXPECT_EQ(peer.receive(), row.datagram) << testing::PrintToString(row.message.substr(0, 8));
    }
    debugLog(LOG_WARNING, "filtered\n");
    debugLog(LOG_TO_FILE | LOG_ERROR, "flagged\n");
    EXPECT_EQ(peer.receive(), "flagged\r\n") << "the filtered message was not sent";
    EXPECT_EQ(readFile(kDebugFilePath), "before\n") << "network mode never writes the file";
    EXPECT_EQ(out.text(), console + "flagged\n");
    debugLevel = 3;
    EXPECT_EQ(closeNetLog(), 0);
    debugLog(LOG_ERROR, "after close\n");
    EXPECT_EQ(debugLevel, 0) << "threshold reset";
    bool got = true;
    while (got && peer.receive(&got, 200) != "after close\r\n") {
    }
    EXPECT_FALSE(got);
}

// A hex datagram: "\n\r", a line of bytes 0 to 60, then lines of 60 bytes, each line ending with
// "\n\r"; no byte is added once the text is longer than 2039 characters; "\n\r".
std::string hexDatagram(const uint8_t* bytes, size_t n) {
    std::string text = "\n\r";
    char cell[4];
    for (size_t i = 0; i < n && text.size() <= 2039; ++i) {
        snprintf(cell, sizeof cell, "%02x ", bytes[i]);
        text += cell;
        if (i >= 60 && i % 60 == 0) text += "\n\r";
    }
    return text + "\n\r";
}

TEST_F(Debug, HexAndProtocolDumps) {
    ASSERT_EQ(openNetLog(&loopback), 0);
    uint8_t b[700];
    for (size_t i = 0; i < 700; ++i) b[i] = uint8_t(i * 7 + 0xF0);
    for (size_t n : {0, 2, 200, 671, 700}) {
        const std::string want = hexDatagram(b, n);
        EXPECT_EQ(sendHexDump(b, uint32_t(n)), ssize_t(want.size())) << n << " bytes: length";
        EXPECT_EQ(peer.receive(), want) << n << " bytes";
    }
    FdCapture out;
    debugLevel = 1;     // the record's dump is silent at 0
    S_ProtocolMsg m{};  // its address lines follow the low four bits of the protocol number
    m.srcProtocol = 0x13;
    m.srcNPC.npID = 0x31;
    dumpProtocolMsg(&m);
    EXPECT_NE(out.text().find("\n  srcNPC.npID           31 \n"), std::string::npos);
}

// The sub socket, opened on its private default first (never sent to).
TEST_F(Debug, SubSocket) {
    EXPECT_EQ(subSocketPrintf("off %d\n", 1), -1) << "no sub socket yet";
    const DebugPeerAddr sub = peerAt(peer.port() + 1, "127.0.0.1");
    ASSERT_EQ(openSubSocket(nullptr), 0) << "default peer";
    ASSERT_EQ(openSubSocket(&sub), 0) << "opened again, for the given peer";
    FdCapture out;
    EXPECT_EQ(subSocketPrintf("a=%d~\n", 5), 0);
    EXPECT_EQ(peer.receive(), "a=5~\n") << "sent as formatted, untranslated";
    debugLevel = 1;
    EXPECT_EQ(subSocketPrintf("%s", std::string(1600, 's').c_str()), 0);
    EXPECT_EQ(peer.receive(), std::string(1499, 's'));
    EXPECT_EQ(closeSubSocket(), 0);
    EXPECT_EQ(debugLevel, 1) << "threshold kept";
    EXPECT_EQ(subSocketPrintf("closed\n"), -1);
    EXPECT_EQ(out.text(), std::string(1499, 's'));
}

}  // namespace
