// Leveled debug log of the framework library: console, debug-file and UDP sinks, plus the byte
// dumps and the second debug socket built on the same state.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <fstream>

// Low 16 bits of a log level argument: the level, lower is more severe.
enum : uint32_t { LOG_ERROR = 0, LOG_WARNING = 1, LOG_INFO = 2, LOG_DEBUG = 3 };
// High half 0xFFFF: also write the message to the debug file (console mode only).
constexpr uint32_t LOG_TO_FILE = 0xFFFF0000u;

constexpr const char* kDebugFilePath = "/root/dbg.txt";

// Threshold: a message is emitted when its level is at most this value. Relaxed atomics: these
// switches order nothing else, they only must not tear while other threads log.
extern std::atomic<int32_t> debugLevel;
extern std::atomic<uint8_t> netLogEnabled;
extern std::atomic<int> netLogSocket;
extern sockaddr_in netLogDest;
extern std::ofstream debugFile;

// Printf-style log call used by every module.
void debugLog(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
