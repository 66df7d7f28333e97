// The debug unit. Log sinks: console always, the debug file for file-flagged messages, one UDP
// datagram per message while the network sink is on; the decorated printer, the telnet terminal
// writer and the configured log-server address. Byte-level diagnostics on top: hex dumps to the
// console and the network log peer, the field dump of S_ProtocolMsg, and the second debug UDP
// channel (the sub socket).
#include "debug.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>

#include "ProtocolMsg.h"

std::atomic<int32_t> debugLevel{0};
std::atomic<uint8_t> netLogEnabled{0};
std::atomic<int> netLogSocket{-1};
sockaddr_in netLogDest{};
std::ofstream debugFile;
std::atomic<int> netLogInFlight{0};

const char* const levelNames[4] = {"ERROR   ", "WARNING ", "INFO    ", "DEBUG   "};
std::atomic<int> printFilterOn{1};
std::atomic<int> printMaxLevel{3};

const char* telnetLogPath = "/dev/pts/0";
std::atomic<int> telnetLogOpen{0};
FILE* telnetLogFile = nullptr;

// Site default of the log server: the service LAN's log host, telnet port.
std::atomic<uint32_t> logServerIp{0xC0A80AFAu};  // 192.168.10.250
std::atomic<uint32_t> logServerPort{23};
uint32_t logServerAppliedIp = 0;
uint32_t logServerAppliedPort = 0;
sockaddr_in logServerAddr{};

namespace {
// The file sink shares one stream; the open-write-close sequence must not interleave.
std::mutex debugFileMutex;
// One terminal stream for all threads: opening, writing and closing it must not interleave.
std::mutex telnetLogMutex;
// Keeps the applied pair and the address consistent when several threads apply the configuration.
std::mutex logServerMutex;

constexpr size_t kMessageBufferSize = 1500;
constexpr size_t kDatagramBufferSize = 1028;
// The datagram stops once its byte count has passed this, so it takes at most 1000 characters.
constexpr size_t kDatagramCharLimit = 999;

// Opens the debug file emptied. A failed open (also one on a stream left open) marks the stream
// failed, which turns the following write into a no-op until the next successful open.
void openDebugStream() {
    if (debugFile.rdbuf()->open(kDebugFilePath, std::ios::out | std::ios::trunc) == nullptr) {
        debugFile.setstate(std::ios::failbit);
    } else {
        debugFile.clear();
    }
}

void writeDebugFile(const char* message) {
    std::lock_guard<std::mutex> guard(debugFileMutex);
    openDebugStream();
    debugFile.write(message, static_cast<std::streamsize>(std::strlen(message)));
    debugFile.close();
}

// Tilde becomes a blank, a bare line feed gains a carriage return; at most 1000 characters taken.
size_t buildDatagram(const char* message, size_t length, char* out) {
    size_t used = 0;
    for (size_t i = 0; i < length; ++i) {
        const char c = message[i];
        if (c == '~') {
            out[used++] = ' ';
        } else if (c == '\n' && (i == 0 || message[i - 1] != '\r')) {
            out[used++] = '\r';
            out[used++] = '\n';
        } else {
            out[used++] = c;
        }
        if (used > kDatagramCharLimit) break;
    }
    return used;
}
}  // namespace

void debugLog(uint32_t level, const char* format, ...) {
    // The threshold test comes before any formatting: filtered messages cost only this.
    if (static_cast<int32_t>(level & 0xFFFFu) > debugLevel.load(std::memory_order_relaxed)) return;

    char message[kMessageBufferSize];
    va_list args;
    va_start(args, format);
    const int formatted = vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (formatted < 0) return;  // an encoding error leaves nothing worth printing
    printf("%s", message);

    // Acquire: pairs with openNetLog's release so netLogSocket/netLogDest are complete.
    if (!netLogEnabled.load(std::memory_order_acquire)) {
        if ((level >> 16) == 0xFFFFu) writeDebugFile(message);
        return;
    }
    // Second look just before sending: closeNetLog may have switched the sink off meanwhile. While
    // counted in flight, the socket stays open.
    const DebugSocketSender sender(netLogEnabled, netLogInFlight);
    if (!sender.on()) return;

    const size_t length = std::min(static_cast<size_t>(formatted), sizeof message - 1);
    char datagram[kDatagramBufferSize];
    const size_t used = buildDatagram(message, length, datagram);
    sendto(netLogSocket.load(std::memory_order_relaxed), datagram, used, 0,
           reinterpret_cast<const sockaddr*>(&netLogDest), sizeof netLogDest);
}

int openNetLog(const DebugPeerAddr* peer) {
    if (netLogEnabled.load(std::memory_order_acquire)) return 0;
    if (peer == nullptr) return -1;
    // Read byte-wise: the record is packed and the address text may be longer than the struct.
    const auto* raw = reinterpret_cast<const unsigned char*>(peer);
    uint16_t basePort = 0;
    std::memcpy(&basePort, raw + offsetof(DebugPeerAddr, basePort), sizeof basePort);
    if (basePort == 0) return -1;
    const in_addr_t address =
        inet_addr(reinterpret_cast<const char*>(raw + offsetof(DebugPeerAddr, address)));
    if (address == 0 || address == INADDR_NONE) return -1;

    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    netLogSocket.store(sock, std::memory_order_relaxed);
    if (sock < 0) {
        printf("Msg: %s,(%d): ", sourceBaseName(__FILE__), __LINE__);
        fflush(stdout);  // the prefix belongs in front of perror's text on a shared terminal
        perror("Creat Morlan socket ");
        return -1;
    }
    netLogDest = sockaddr_in{};
    netLogDest.sin_family = AF_INET;
    netLogDest.sin_port = htons(static_cast<uint16_t>(basePort - 2));
    netLogDest.sin_addr.s_addr = address;
    // Release: publishes netLogSocket and netLogDest to senders that see the switch on.
    netLogEnabled.store(1, std::memory_order_release);
    return 0;
}

void debugSocketDrain(const std::atomic<int>& inFlight) {
    // A signal may cut sleep short: sleep out the whole grace period.
    unsigned left = 2;
    while (left > 0) left = sleep(left);
    // seq_cst: pairs with the sender's increment and switch test (see DebugSocketSender).
    while (inFlight.load(std::memory_order_seq_cst) != 0) usleep(1000);
}

int closeNetLog() {
    // seq_cst: a sender either sees the switch off or is counted in flight (DebugSocketSender).
    netLogEnabled.store(0, std::memory_order_seq_cst);
    // Senders that passed the switch test before it went off finish with a valid descriptor.
    debugSocketDrain(netLogInFlight);
    const int sock = netLogSocket.load(std::memory_order_relaxed);
    if (sock > 0) close(sock);
    netLogSocket.store(-1, std::memory_order_relaxed);
    debugLevel.store(0, std::memory_order_relaxed);
    netLogEnabled.store(0, std::memory_order_relaxed);
    return 0;
}

int openDebugFile() {
    std::lock_guard<std::mutex> guard(debugFileMutex);
    openDebugStream();
    return (debugFile.bad() || debugFile.fail()) ? -1 : 0;
}

void debugPrint(int level, const char* sourceName, int line, const char* format, ...) {
    // Negative levels have no name; they are refused like levels above 3.
    if (level < 0 || level > 3) return;
    if (printFilterOn.load(std::memory_order_relaxed) != 0 &&
        level > printMaxLevel.load(std::memory_order_relaxed)) {
        return;
    }

    char date[128] = {};
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);  // the reentrant form: debugPrint runs on any thread
    snprintf(date, sizeof date, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);

    char message[1024] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);

    // A line longer than the buffer is cut (its line feed with it); only an encoding error drops
    // it.
    char text[1024] = {};
    if (snprintf(text, sizeof text, "[SLAVE][%s]%s:[%s,L%d]%s\n", date, levelNames[level],
                 sourceName, line, message) < 0) {
        return;
    }
    printf("%s", text);
}

void telnetLogWrite(const char* text) {
    std::lock_guard<std::mutex> guard(telnetLogMutex);
    if (telnetLogOpen.load(std::memory_order_relaxed) == 0) {
        FILE* stream = fopen(telnetLogPath, "w");
        if (stream == nullptr) {
            printf("Open %s failed\n", telnetLogPath);
            return;
        }
        telnetLogFile = stream;
        telnetLogOpen.store(1, std::memory_order_relaxed);
    }
    if (fprintf(telnetLogFile, "%s", text) > 0) {
        fflush(telnetLogFile);
        return;
    }
    // Nothing written (or an error): the terminal is gone; the next write opens it again.
    fclose(telnetLogFile);
    telnetLogOpen.store(0, std::memory_order_relaxed);
    telnetLogFile = nullptr;
    puts("Close  telnet log terminal.");
}

int setTelnetLogServer() {
    std::lock_guard<std::mutex> guard(logServerMutex);
    const uint32_t ip = logServerIp.load(std::memory_order_relaxed);
    const uint32_t port = logServerPort.load(std::memory_order_relaxed);
    if (ip == 0 || ip == 0xFFFFFFFFu || port == 0 || port == 0xFFFFFFFFu) {
        printf("invalid addr = 0x%x or port = 0x%x\n", ip, port);
        return -1;
    }
    if (ip == logServerAppliedIp && port == logServerAppliedPort) return 0;

    char dotted[32] = {};
    snprintf(dotted, sizeof dotted, "%d.%d.%d.%d", static_cast<int>((ip >> 24) & 0xFFu),
             static_cast<int>((ip >> 16) & 0xFFu), static_cast<int>((ip >> 8) & 0xFFu),
             static_cast<int>(ip & 0xFFu));
    logServerAddr = sockaddr_in{};
    logServerAddr.sin_family = AF_INET;
    logServerAddr.sin_port = htons(static_cast<uint16_t>(port & 0xFFFFu));
    logServerAddr.sin_addr.s_addr = inet_addr(dotted);
    logServerAppliedIp = ip;
    logServerAppliedPort = port;
    return 0;
}

// ---- Hex dumps, the protocol message dump and the sub socket ----

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

void printAddressLines(const S_ProtocolMsg& msg, uint8_t protocol, bool source) {
    switch (protocol & 0x0Fu) {
        case 1: {
            const S_NPA npa = source ? msg.srcNPA : msg.destNPA;  // copied out: packed, unaligned
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
            const S_NPB npb = source ? msg.srcNPB : msg.destNPB;
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
            const S_NPC npc = source ? msg.srcNPC : msg.destNPC;
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
    printAddressLines(*msg, srcProtocol, true);
    const uint8_t destProtocol = msg->destProtocol;
    printf("--destProtocol  %02x \n", static_cast<unsigned>(destProtocol));
    printf("  destDeviceID  %04x \n", static_cast<unsigned>(msg->destDeviceID));
    printAddressLines(*msg, destProtocol, false);

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
