// Hex dumps and the protocol message dump on the console and at a loopback network-log peer, and
// the sub socket: defaults checked without sending, datagrams to a loopback peer.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ProtocolMsg.h"
#include "debug_testutil.h"

using debugtest::FdCapture;
using debugtest::makePeer;
using debugtest::UdpPeer;

namespace {

std::vector<uint8_t> counting(size_t n) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 0xF0);
    return bytes;
}

std::string lowerHex(const uint8_t* bytes, size_t from, size_t to) {
    std::string text;
    char cell[4];
    for (size_t i = from; i < to; ++i) {
        snprintf(cell, sizeof cell, "%02x ", bytes[i]);
        text += cell;
    }
    return text;
}

// The hex datagram of the first `n` bytes: lines of bytes 0-60, 61-120, 121-180, ...
std::string hexDatagram(const uint8_t* bytes, size_t n) {
    std::string text = "\n\r";
    for (size_t from = 0, to = 61; from < n; from = to, to += 60) {
        text += lowerHex(bytes, from, std::min(to, n));
        if (to <= n) text += "\n\r";  // a full line: the byte with index 60, 120, ... was written
    }
    return text + "\n\r";
}

class DebugDump : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        peer_ = new UdpPeer;
        const DebugPeerAddr record = makePeer(peer_->port() + 2, "127.0.0.1");
        ASSERT_EQ(openNetLog(&record), 0);
    }
    static void TearDownTestSuite() {
        closeNetLog();
        delete peer_;
    }
    void SetUp() override {
        ASSERT_EQ(netLogEnabled.load(), 1);
        peer_->drain();
        debugLevel = 2;
    }
    void TearDown() override { debugLevel = 0; }
    // Sends a marker dump: when it is the next datagram, nothing was sent before it.
    static void expectNothingSentBefore() {
        const uint8_t marker = 0x5C;
        sendHexDump(&marker, 1);
        EXPECT_EQ(peer_->receive(), "\n\r5c \n\r");
    }
    static UdpPeer* peer_;
};
UdpPeer* DebugDump::peer_ = nullptr;

TEST_F(DebugDump, HexDatagramBreaksLinesAndCutsTheLength) {
    EXPECT_EQ(sendHexDump(nullptr, 0), 4);
    EXPECT_EQ(peer_->receive(), "\n\r\n\r");
    const uint8_t two[] = {0xAB, 0x01};
    EXPECT_EQ(sendHexDump(two, 2), 10);
    EXPECT_EQ(peer_->receive(), "\n\rab 01 \n\r");

    const std::vector<uint8_t> bytes = counting(700);
    const uint8_t* b = bytes.data();
    EXPECT_EQ(sendHexDump(b, 200), 610);
    EXPECT_EQ(peer_->receive(), "\n\r" + lowerHex(b, 0, 61) + "\n\r" + lowerHex(b, 61, 121) +
                                    "\n\r" + lowerHex(b, 121, 181) + "\n\r" +
                                    lowerHex(b, 181, 200) + "\n\r");
    // 671 bytes end at position 2037 and all go; the 672nd passes 2039 and is the last one sent.
    EXPECT_EQ(sendHexDump(b, 671), 2039);
    EXPECT_EQ(peer_->receive(), hexDatagram(b, 671));
    EXPECT_EQ(sendHexDump(b, 700), 2042);
    EXPECT_EQ(peer_->receive(), hexDatagram(b, 672));
}

TEST_F(DebugDump, DumpBytesPrintsTwentyPerLineAndSendsWhileTheSinkIsOn) {
    const std::vector<uint8_t> bytes = counting(45);
    FdCapture out;
    debugLevel = 1;
    dumpBytes(bytes.data(), 45);
    expectNothingSentBefore();
    debugLevel = 2;
    dumpBytes(bytes.data(), 45);
    EXPECT_EQ(peer_->receive(), "\n\r" + lowerHex(bytes.data(), 0, 45) + "\n\r");
    dumpBytes(bytes.data(), 20);
    EXPECT_EQ(peer_->receive(), "\n\r" + lowerHex(bytes.data(), 0, 20) + "\n\r");
    dumpBytes(bytes.data(), 0);
    EXPECT_EQ(peer_->receive(), "\n\r\n\r");
    dumpBytes(bytes.data(), -3);
    EXPECT_EQ(peer_->receive(), "\n\r\n\r") << "a negative count sends an empty dump";
    netLogEnabled = 0;
    dumpBytes(bytes.data(), 2);
    netLogEnabled = 1;
    expectNothingSentBefore();
    EXPECT_EQ(out.text(),
              "len 45: \n"
              "F0 F7 FE 05 0C 13 1A 21 28 2F 36 3D 44 4B 52 59 60 67 6E 75 \n"
              "7C 83 8A 91 98 9F A6 AD B4 BB C2 C9 D0 D7 DE E5 EC F3 FA 01 \n"
              "08 0F 16 1D 24 \n"
              "len 20: \n"
              "F0 F7 FE 05 0C 13 1A 21 28 2F 36 3D 44 4B 52 59 60 67 6E 75 \n"
              "\n"
              "len 0: \n"
              "\n"
              "len -3: \n"
              "\n"
              "len 2: \n"
              "F0 F7 \n");
}

TEST_F(DebugDump, DumpBytesAtLeadsEachLineOfEightWithItsAddress) {
    const std::vector<uint8_t> bytes = counting(16);
    const uint8_t* b = bytes.data();
    FdCapture out;
    debugLevel = 1;
    dumpBytesAt(b, 10);
    debugLevel = 3;
    dumpBytesAt(b, 10);
    dumpBytesAt(b + 8, 8);
    dumpBytesAt(b, 0);
    dumpBytesAt(b, -1);
    char first[32];
    char second[32];
    snprintf(first, sizeof first, "%p", static_cast<const void*>(b));
    snprintf(second, sizeof second, "%p", static_cast<const void*>(b + 8));
    EXPECT_EQ(out.text(), std::string("\n") + first + " : F0 F7 FE 05 0C 13 1A 21 \n" + second +
                              " : 28 2F \n\n" + second + " : 28 2F 36 3D 44 4B 52 59 \n\n\n");
    expectNothingSentBefore();
}

S_ProtocolMsg sampleMsg(uint8_t srcProtocol, uint8_t destProtocol, const uint8_t* data,
                        uint16_t len) {
    S_ProtocolMsg msg;
    std::memset(&msg, 0xEE, sizeof msg);
    msg.pkgType = 0x5A;
    msg.srcDeviceID = 0x1234;
    msg.srcProtocol = srcProtocol;
    msg.destDeviceID = 0xABCD;
    msg.destProtocol = destProtocol;
    for (auto [addr, protocol] :
         {std::pair{&msg.srcAddr, srcProtocol}, {&msg.destAddr, destProtocol}}) {
        if ((protocol & 0x0F) == 1) addr->npa = S_NPA{0x11, 0x01020304, 0x05, 0x0607, 0x08, 0x09};
        if ((protocol & 0x0F) == 2)
            addr->npb = S_NPB{0x21, 0xA1B2C3D4, 0x22, 0x10, 0x23, 0xBEEF, 0x24, 0x25};
        if ((protocol & 0x0F) == 3) addr->npc = S_NPC{0x31, 0x32, 0x33, 0x34};
    }
    msg.pdataLen = len;
    msg.pdata = const_cast<uint8_t*>(data);
    return msg;
}

const char* const kSrcNPA =
    "  srcNPA.npID            11 \n"
    "  srcNPA.stationNum      01020304 \n"
    "  srcNPA.deviceNum       05 \n"
    "  srcNPA.pkgNum          0607 \n"
    "  srcNPA.control         08 \n"
    "  srcNPA.mcpID           09 \n";
const char* const kSrcNPB =
    "  srcNPB.npID            21 \n"
    "  srcNPB.srcStationNum   a1b2c3d4 \n"
    "  srcNPB.srcDeviceNum    22 \n"
    "  srcNPB.destStationNum  00000010 \n"
    "  srcNPB.destDeviceNum   23 \n"
    "  srcNPB.pkgNum          beef \n"
    "  srcNPB.control         24 \n"
    "  srcNPB.mcpID           25 \n";
const char* const kSrcNPC =
    "  srcNPC.npID           31 \n"
    "  srcNPC.moduleNum      32 \n"
    "  srcNPC.moduleType     33 \n"
    "  srcNPC.mcpID          34 \n";
const char* const kDestNPA =
    "  destNPA.npID            11 \n"
    "  destNPA.stationNum      01020304 \n"
    "  destNPA.deviceNum       05 \n"
    "  destNPA.pkgNum          0607 \n"
    "  destNPA.control         08 \n"
    "  destNPA.mcpID           09 \n";
const char* const kDestNPB =
    "  destNPB.npID            21 \n"
    "  destNPB.srcStationNum   a1b2c3d4 \n"
    "  destNPB.srcDeviceNum    22 \n"
    "  destNPB.destStationNum  00000010 \n"
    "  destNPB.destDeviceNum   23 \n"
    "  destNPB.pkgNum          beef \n"
    "  destNPB.control         24 \n"
    "  destNPB.mcpID           25 \n";
const char* const kDestNPC =
    "  destNPC.npID            31 \n"
    "  destNPC.moduleNum       32 \n"
    "  destNPC.moduleType      33 \n"
    "  destNPC.mcpID           34 \n";

std::string header(const char* srcProtocol, const char* src, const char* destProtocol,
                   const char* dest) {
    return std::string("\nS_ProtocolMsg content:  pkgType  5a  ---------\n--srcProtocol  ") +
           srcProtocol + " \n  srcDeviceID  1234 \n" + src + "--destProtocol  " + destProtocol +
           " \n  destDeviceID  abcd \n" + dest;
}

TEST_F(DebugDump, ProtocolMsgShowsTheSelectedAddressVariantsAndDataByLevel) {
    const std::vector<uint8_t> data = counting(21);
    const S_ProtocolMsg npaToNpb = sampleMsg(0x01, 0x42, data.data(), 3);
    const S_ProtocolMsg npcToNpa = sampleMsg(0x13, 0x31, nullptr, 0);
    const S_ProtocolMsg noneToNpc = sampleMsg(0x04, 0x03, data.data(), 21);
    const S_ProtocolMsg npbToNone = sampleMsg(0x12, 0xF0, data.data(), 21);

    FdCapture out;
    debugLevel = 0;
    dumpProtocolMsg(&npaToNpb);
    debugLevel = 1;  // addresses, but not the data
    dumpProtocolMsg(&npbToNone);
    expectNothingSentBefore();
    debugLevel = 2;
    dumpProtocolMsg(&npaToNpb);
    EXPECT_EQ(peer_->receive(), "\n\rf0 f7 fe \n\r");
    dumpProtocolMsg(&npcToNpa);
    EXPECT_EQ(peer_->receive(), "\n\r\n\r");
    netLogEnabled = 0;
    dumpProtocolMsg(&noneToNpc);
    netLogEnabled = 1;
    expectNothingSentBefore();
    EXPECT_EQ(out.text(), header("12", kSrcNPB, "f0", "") + "--pdata: \n" +
                              header("01", kSrcNPA, "42", kDestNPB) +
                              "--pdata: len 3: \nF0 F7 FE \n\n" +
                              header("13", kSrcNPC, "31", kDestNPA) + "--pdata: len 0: \n\n\n" +
                              header("04", "", "03", kDestNPC) +
                              "--pdata: len 21: \n"
                              "F0 F7 FE 05 0C 13 1A 21 28 2F 36 3D 44 4B 52 59 60 67 6E 75 \n"
                              "7C \n\n");
}

TEST(DebugSockets, CreationFailuresNameTheirPlaceAndLeaveTheSocketsOff) {
    ASSERT_EQ(netLogEnabled.load(), 0);
    ASSERT_EQ(subSocketEnabled.load(), 0);
    const DebugPeerAddr peer = makePeer(5000, "127.0.0.1");
    FdCapture out(STDOUT_FILENO);
    FdCapture err(STDERR_FILENO);
    std::string outNet;
    {
        debugtest::NoMoreDescriptors limit;
        EXPECT_EQ(openNetLog(&peer), -1);
        fflush(stdout);
        EXPECT_EQ(openSubSocket(&peer), -1);
    }
    const std::string errText = err.text();
    const std::string outText = out.text();
    EXPECT_TRUE(debugtest::matchesShape(outText, "Msg: debug.cpp,(#): Msg: debugDump.cpp,(#): "))
        << outText;
    EXPECT_EQ(errText,
              "Creat Morlan socket : Too many open files\n"
              "Creat sub socket : Too many open files\n");
    EXPECT_EQ(netLogSocket.load(), -1);
    EXPECT_EQ(subSocket.load(), -1);
    EXPECT_EQ(netLogEnabled.load() + subSocketEnabled.load(), 0);
}

// The sub socket is opened towards its private default only to check the destination; nothing is
// sent until it points at the loopback peer.
TEST(SubSocket, DefaultsFallbackLoopbackDatagramsAndClose) {
    ASSERT_EQ(subSocketEnabled.load(), 0);
    ASSERT_EQ(netLogSocket.load(), -1);
    const uint8_t byte = 1;
    EXPECT_EQ(sendHexDump(&byte, 1), -1) << "no network log socket";
    FdCapture out;
    debugLevel = 3;
    EXPECT_EQ(subSocketPrintf("off %d\n", 1), -1) << "and prints nothing, whatever the level";

    ASSERT_EQ(openSubSocket(nullptr), 0);
    EXPECT_GE(subSocket.load(), 0);
    EXPECT_EQ(subSocketDest.sin_family, AF_INET);
    EXPECT_EQ(ntohs(subSocketDest.sin_port), 9998);
    EXPECT_EQ(ntohl(subSocketDest.sin_addr.s_addr) >> 16, 0xC0A8u) << "a 192.168/16 default";
    const in_addr_t defaultAddress = subSocketDest.sin_addr.s_addr;
    // An unusable record falls back to the defaults (a reopen, with its grace period).
    const DebugPeerAddr broadcast = makePeer(5000, "255.255.255.255");
    ASSERT_EQ(openSubSocket(&broadcast), 0);
    EXPECT_EQ(ntohs(subSocketDest.sin_port), 9998);
    EXPECT_EQ(subSocketDest.sin_addr.s_addr, defaultAddress);

    UdpPeer peer;
    ASSERT_LE(peer.port(), 65534);
    const DebugPeerAddr loopback = makePeer(peer.port() + 1, "127.0.0.1");
    ASSERT_EQ(openSubSocket(&loopback), 0);
    ASSERT_EQ(ntohs(subSocketDest.sin_port), peer.port()) << "one below the base port";
    ASSERT_EQ(subSocketDest.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    debugLevel = 0;
    EXPECT_EQ(subSocketPrintf("a=%d~\n", 5), 0);
    EXPECT_EQ(peer.receive(), "a=5~\n") << "sent as formatted, untranslated";
    debugLevel = 1;
    EXPECT_EQ(subSocketPrintf("echoed %s", "too"), 0);
    EXPECT_EQ(peer.receive(), "echoed too");
    EXPECT_EQ(subSocketPrintf("%s", std::string(1600, 's').c_str()), 0);
    EXPECT_EQ(peer.receive(), std::string(1499, 's'));
    bool got = false;
    EXPECT_EQ(subSocketPrintf("%s", ""), 0);
    EXPECT_EQ(peer.receive(&got), "");
    EXPECT_TRUE(got) << "an empty message is an empty datagram";
    EXPECT_EQ(out.text(), "echoed too" + std::string(1499, 's'));

    EXPECT_EQ(closeSubSocket(), 0);
    EXPECT_EQ(subSocketEnabled.load(), 0);
    EXPECT_EQ(subSocket.load(), -1);
    EXPECT_EQ(debugLevel.load(), 1);
    FdCapture closed;
    EXPECT_EQ(subSocketPrintf("closed\n"), -1);
    EXPECT_EQ(closed.text(), "");
    debugLevel = 0;
}

}  // namespace
