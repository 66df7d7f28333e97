// Debug log sinks: console always, the debug file for file-flagged messages, one UDP datagram per
// message while the network sink is on.
#include "debug.h"

#include <sys/socket.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

std::atomic<int32_t> debugLevel{0};
std::atomic<uint8_t> netLogEnabled{0};
std::atomic<int> netLogSocket{-1};
sockaddr_in netLogDest{};
std::ofstream debugFile;

namespace {
// The file sink shares one stream; the open-write-close sequence must not interleave.
std::mutex debugFileMutex;

constexpr size_t kMessageBufferSize = 1500;
constexpr size_t kDatagramBufferSize = 1028;
constexpr size_t kDatagramCharLimit = 999;

void writeDebugFile(const char* message) {
    std::lock_guard<std::mutex> guard(debugFileMutex);
    debugFile.open(kDebugFilePath, std::ios::out | std::ios::trunc);
    if (!debugFile.is_open()) {
        debugFile.setstate(std::ios::failbit);
    } else {
        debugFile.clear();
    }
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
    if (static_cast<int32_t>(level & 0xFFFFu) > debugLevel.load(std::memory_order_relaxed)) return;

    char message[kMessageBufferSize];
    va_list args;
    va_start(args, format);
    const int formatted = vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (formatted < 0) return;
    printf("%s", message);

    if (!netLogEnabled.load(std::memory_order_relaxed)) {
        if ((level >> 16) == 0xFFFFu) writeDebugFile(message);
        return;
    }
    if (!netLogEnabled.load(std::memory_order_relaxed)) return;

    const size_t length = std::min(static_cast<size_t>(formatted), sizeof message - 1);
    char datagram[kDatagramBufferSize];
    const size_t used = buildDatagram(message, length, datagram);
    sendto(netLogSocket.load(std::memory_order_relaxed), datagram, used, 0,
           reinterpret_cast<const sockaddr*>(&netLogDest), sizeof netLogDest);
}
