// Debug log sinks: console always, the debug file for file-flagged messages, one UDP datagram per
// message while the network sink is on; plus the decorated printer, the telnet terminal writer and
// the configured log-server address.
#include "debug.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>

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
