// Byte-level diagnostics on top of the debug log: hex dumps to the console and the network log
// peer, the field dump of S_ProtocolMsg, and the second debug UDP channel (the sub socket).
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "ProtocolMsg.h"
#include "debug.h"

std::atomic<uint8_t> subSocketEnabled{0};
std::atomic<int> subSocket{-1};
sockaddr_in subSocketDest{};
std::atomic<int> subSocketInFlight{0};

namespace {
// Site default of the sub socket peer: the service LAN's diagnostics host.
constexpr const char* kSubSocketDefaultAddress = "192.168.10.251";

constexpr size_t kHexDatagramSize = 2048;
// No byte is started once the writing position has passed this; the text then ends in 2046 bytes
// at most (a byte, a line break and the closing line break), inside the 2048-byte buffer.
constexpr size_t kHexDatagramLimit = 2039;
constexpr size_t kSubMessageSize = 1500;

constexpr char kHexDigits[] = "0123456789abcdef";

bool consoleDumpsOn() {
    return debugLevel.load(std::memory_order_relaxed) >= 2;
}

// "%02X " for each byte, a line feed after every 20th.
void printBytesByTwenty(const uint8_t* bytes, int32_t len) {
    for (int32_t i = 0; i < len; ++i) {
        printf("%02X ", static_cast<unsigned>(bytes[i]));
        if ((i + 1) % 20 == 0) printf("\n");
    }
}

void printAddressLines(const S_NetAddr& addr, uint8_t protocol, bool source) {
    switch (protocol & 0x0Fu) {
        case 1: {
            const S_NPA npa = addr.npa;  // copied out: the record is packed and unaligned
            if (source) {
                printf("  srcNPA.npID            %02x \n", static_cast<unsigned>(npa.npID));
                printf("  srcNPA.stationNum      %08x \n", static_cast<unsigned>(npa.stationNum));
                printf("  srcNPA.deviceNum       %02x \n", static_cast<unsigned>(npa.deviceNum));
                printf("  srcNPA.pkgNum          %04x \n", static_cast<unsigned>(npa.pkgNum));
                printf("  srcNPA.control         %02x \n", static_cast<unsigned>(npa.control));
                printf("  srcNPA.mcpID           %02x \n", static_cast<unsigned>(npa.mcpID));
            } else {
                printf("  destNPA.npID            %02x \n", static_cast<unsigned>(npa.npID));
                printf("  destNPA.stationNum      %08x \n", static_cast<unsigned>(npa.stationNum));
                printf("  destNPA.deviceNum       %02x \n", static_cast<unsigned>(npa.deviceNum));
                printf("  destNPA.pkgNum          %04x \n", static_cast<unsigned>(npa.pkgNum));
                printf("  destNPA.control         %02x \n", static_cast<unsigned>(npa.control));
                printf("  destNPA.mcpID           %02x \n", static_cast<unsigned>(npa.mcpID));
            }
            break;
        }
        case 2: {
            const S_NPB npb = addr.npb;
            if (source) {
                printf("  srcNPB.npID            %02x \n", static_cast<unsigned>(npb.npID));
                printf("  srcNPB.srcStationNum   %08x \n",
                       static_cast<unsigned>(npb.srcStationNum));
                printf("  srcNPB.srcDeviceNum    %02x \n", static_cast<unsigned>(npb.srcDeviceNum));
                printf("  srcNPB.destStationNum  %08x \n",
                       static_cast<unsigned>(npb.destStationNum));
                printf("  srcNPB.destDeviceNum   %02x \n",
                       static_cast<unsigned>(npb.destDeviceNum));
                printf("  srcNPB.pkgNum          %04x \n", static_cast<unsigned>(npb.pkgNum));
                printf("  srcNPB.control         %02x \n", static_cast<unsigned>(npb.control));
                printf("  srcNPB.mcpID           %02x \n", static_cast<unsigned>(npb.mcpID));
            } else {
                printf("  destNPB.npID            %02x \n", static_cast<unsigned>(npb.npID));
                printf("  destNPB.srcStationNum   %08x \n",
                       static_cast<unsigned>(npb.srcStationNum));
                printf("  destNPB.srcDeviceNum    %02x \n",
                       static_cast<unsigned>(npb.srcDeviceNum));
                printf("  destNPB.destStationNum  %08x \n",
                       static_cast<unsigned>(npb.destStationNum));
                printf("  destNPB.destDeviceNum   %02x \n",
                       static_cast<unsigned>(npb.destDeviceNum));
                printf("  destNPB.pkgNum          %04x \n", static_cast<unsigned>(npb.pkgNum));
                printf("  destNPB.control         %02x \n", static_cast<unsigned>(npb.control));
                printf("  destNPB.mcpID           %02x \n", static_cast<unsigned>(npb.mcpID));
            }
            break;
        }
        case 3: {
            const S_NPC npc = addr.npc;
            if (source) {
                // The source NPC lines are one blank narrower than the other address lines.
                printf("  srcNPC.npID           %02x \n", static_cast<unsigned>(npc.npID));
                printf("  srcNPC.moduleNum      %02x \n", static_cast<unsigned>(npc.moduleNum));
                printf("  srcNPC.moduleType     %02x \n", static_cast<unsigned>(npc.moduleType));
                printf("  srcNPC.mcpID          %02x \n", static_cast<unsigned>(npc.mcpID));
            } else {
                printf("  destNPC.npID            %02x \n", static_cast<unsigned>(npc.npID));
                printf("  destNPC.moduleNum       %02x \n", static_cast<unsigned>(npc.moduleNum));
                printf("  destNPC.moduleType      %02x \n", static_cast<unsigned>(npc.moduleType));
                printf("  destNPC.mcpID           %02x \n", static_cast<unsigned>(npc.mcpID));
            }
            break;
        }
        default:
            break;  // no address variant: no lines
    }
}

// Sends the hex dump while the network sink is on; the socket stays open while it is in flight.
void sendHexDumpIfNetLogOn(const uint8_t* bytes, uint32_t len) {
    // Acquire: pairs with openNetLog's release so the peer is complete.
    if (!netLogEnabled.load(std::memory_order_acquire)) return;
    const DebugSocketSender sender(netLogEnabled, netLogInFlight);
    if (sender.on()) sendHexDump(bytes, len);
}

void shutSubSocket() {
    // seq_cst: a sender either sees the switch off or is counted in flight (DebugSocketSender).
    subSocketEnabled.store(0, std::memory_order_seq_cst);
    // A subSocketPrintf that passed the switch test finishes before the descriptor goes.
    debugSocketDrain(subSocketInFlight);
    const int sock = subSocket.load(std::memory_order_relaxed);
    if (sock > 0) close(sock);
    subSocket.store(-1, std::memory_order_relaxed);
}
}  // namespace

ssize_t sendHexDump(const uint8_t* bytes, uint32_t len) {
    char text[kHexDatagramSize];
    size_t pos = 0;
    text[pos++] = '\n';
    text[pos++] = '\r';
    for (uint32_t i = 0; i < len; ++i) {
        text[pos++] = kHexDigits[bytes[i] >> 4];
        text[pos++] = kHexDigits[bytes[i] & 0x0Fu];
        text[pos++] = ' ';
        // The first line holds bytes 0..60, every later one 60 bytes.
        if (i > 0 && i % 60 == 0) {
            text[pos++] = '\n';
            text[pos++] = '\r';
        }
        if (pos > kHexDatagramLimit) break;
    }
    text[pos++] = '\n';
    text[pos++] = '\r';
    return sendto(netLogSocket.load(std::memory_order_relaxed), text, pos, 0,
                  reinterpret_cast<const sockaddr*>(&netLogDest), sizeof netLogDest);
}

void dumpBytesAt(const uint8_t* bytes, int32_t len) {
    if (!consoleDumpsOn()) return;
    if (len < 1) {
        printf("\n");
        return;
    }
    for (int32_t i = 0; i < len; ++i) {
        if (i % 8 == 0) printf("\n%p : ", static_cast<const void*>(bytes + i));
        printf("%02X ", static_cast<unsigned>(bytes[i]));
    }
    printf("\n");
}

void dumpBytes(const uint8_t* bytes, int32_t len) {
    if (!consoleDumpsOn()) return;
    printf("len %d: \n", len);
    printBytesByTwenty(bytes, len);
    printf("\n");
    // A negative count sends an empty dump rather than reading far past the caller's buffer.
    sendHexDumpIfNetLogOn(bytes, len > 0 ? static_cast<uint32_t>(len) : 0u);
}

void dumpProtocolMsg(const S_ProtocolMsg* msg) {
    const int32_t level = debugLevel.load(std::memory_order_relaxed);
    if (level <= 0) return;
    printf("\n");
    printf("S_ProtocolMsg content:  pkgType  %02x  ---------\n",
           static_cast<unsigned>(msg->pkgType));
    const uint8_t srcProtocol = msg->srcProtocol;
    printf("--srcProtocol  %02x \n", static_cast<unsigned>(srcProtocol));
    printf("  srcDeviceID  %04x \n", static_cast<unsigned>(msg->srcDeviceID));
    printAddressLines(msg->srcAddr, srcProtocol, true);
    const uint8_t destProtocol = msg->destProtocol;
    printf("--destProtocol  %02x \n", static_cast<unsigned>(destProtocol));
    printf("  destDeviceID  %04x \n", static_cast<unsigned>(msg->destDeviceID));
    printAddressLines(msg->destAddr, destProtocol, false);

    printf("--pdata: ");
    if (level < 2) {
        printf("\n");
        return;
    }
    const uint16_t dataLen = msg->pdataLen;
    const uint8_t* data = msg->pdata;
    printf("len %d: \n", static_cast<int>(dataLen));
    printBytesByTwenty(data, dataLen);
    printf("\n");
    sendHexDumpIfNetLogOn(data, dataLen);
    printf("\n");
}

int openSubSocket(const DebugPeerAddr* peer) {
    if (subSocketEnabled.load(std::memory_order_acquire)) shutSubSocket();

    in_addr_t address = inet_addr(kSubSocketDefaultAddress);
    uint16_t port = kSubSocketDefaultPort;
    if (peer != nullptr) {
        // Read byte-wise: the record is packed and the address text may be longer than the struct.
        const auto* raw = reinterpret_cast<const unsigned char*>(peer);
        uint16_t basePort = 0;
        std::memcpy(&basePort, raw + offsetof(DebugPeerAddr, basePort), sizeof basePort);
        const in_addr_t given =
            inet_addr(reinterpret_cast<const char*>(raw + offsetof(DebugPeerAddr, address)));
        if (basePort != 0 && given != 0 && given != INADDR_NONE) {
            address = given;
            port = static_cast<uint16_t>(basePort - 1);
        }
    }

    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    subSocket.store(sock, std::memory_order_relaxed);
    if (sock < 0) {
        printf("Msg: %s,(%d): ", sourceBaseName(__FILE__), __LINE__);
        fflush(stdout);  // the prefix belongs in front of perror's text on a shared terminal
        perror("Creat sub socket ");
        return -1;
    }
    subSocketDest = sockaddr_in{};
    subSocketDest.sin_family = AF_INET;
    subSocketDest.sin_port = htons(port);
    subSocketDest.sin_addr.s_addr = address;
    // Release: publishes subSocket and subSocketDest to senders that see the switch on.
    subSocketEnabled.store(1, std::memory_order_release);
    return 0;
}

int closeSubSocket() {
    shutSubSocket();
    subSocketEnabled.store(0, std::memory_order_relaxed);
    return 0;
}

int subSocketPrintf(const char* format, ...) {
    // Acquire: pairs with openSubSocket's release so subSocket/subSocketDest are complete.
    if (!subSocketEnabled.load(std::memory_order_acquire)) return -1;
    const DebugSocketSender sender(subSocketEnabled, subSocketInFlight);
    if (!sender.on()) return -1;

    char message[kSubMessageSize];
    va_list args;
    va_start(args, format);
    const int formatted = vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (formatted < 0) return -1;
    if (debugLevel.load(std::memory_order_relaxed) > 0) printf("%s", message);

    const size_t length = std::min(static_cast<size_t>(formatted), sizeof message - 1);
    const ssize_t sent =
        sendto(subSocket.load(std::memory_order_relaxed), message, length, 0,
               reinterpret_cast<const sockaddr*>(&subSocketDest), sizeof subSocketDest);
    return sent < 0 ? -1 : 0;
}
