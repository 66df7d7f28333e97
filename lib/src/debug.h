// Leveled debug log of the framework library: console, debug-file and UDP sinks, plus the byte
// dumps and the second debug socket built on the same state.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>

struct S_ProtocolMsg;

// Low 16 bits of a log level argument: the level, lower is more severe.
enum : uint32_t { LOG_ERROR = 0, LOG_WARNING = 1, LOG_INFO = 2, LOG_DEBUG = 3 };
// High half 0xFFFF: also write the message to the debug file (console mode only).
constexpr uint32_t LOG_TO_FILE = 0xFFFF0000u;

constexpr const char* kDebugFilePath = "/root/dbg.txt";

// A caller's description of a debug peer, read byte-wise: one byte the log does not interpret,
// the base port (host order, unaligned) and a NUL-terminated dotted-quad address. The address may
// run on past `address` when the caller's record is longer; the readers follow the text to its NUL.
#pragma pack(push, 1)
struct DebugPeerAddr {
    uint8_t reserved;
    uint16_t basePort;
    char address[16];
};
#pragma pack(pop)
static_assert(offsetof(DebugPeerAddr, basePort) == 1, "base port follows the unread byte");
static_assert(offsetof(DebugPeerAddr, address) == 3, "address text follows the base port");

// Threshold: a message is emitted when its level is at most this value. Relaxed atomics: these
// switches order nothing else, they only must not tear while other threads log.
extern std::atomic<int32_t> debugLevel;
// Network sink switch. Stored with release after netLogSocket/netLogDest are set, loaded with
// acquire before they are read, so a sender never sees the switch on with a half-written peer.
// Switched off with seq_cst against the in-flight count (see DebugSocketSender).
extern std::atomic<uint8_t> netLogEnabled;
extern std::atomic<int> netLogSocket;
extern sockaddr_in netLogDest;
extern std::ofstream debugFile;

// Printf-style log call used by every module.
void debugLog(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Network sink: datagrams go to the peer's base port minus 2. 0 on (or already on), -1 refused.
int openNetLog(const DebugPeerAddr* peer);
// Switches the sink off, waits 2 s for senders in flight, releases the socket, threshold back to 0.
int closeNetLog();
// Opens the debug file and leaves it open: 0, or -1 when the stream is in a failed state.
int openDebugFile();

// Decorated console line "[SLAVE][date]LEVEL   :[source,Lline]message\n".
extern const char* const levelNames[4];
extern std::atomic<int> printFilterOn;  // relaxed: a plain switch, orders nothing
extern std::atomic<int> printMaxLevel;  // relaxed: a plain switch, orders nothing
void debugPrint(int level, const char* sourceName, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Telnet log terminal: opened on the first write, closed (and reopened later) after a failed one.
// The path is the board's telnet terminal; diagnostics may point it elsewhere before the first
// write. Both the flag and the stream change only under the terminal's lock.
extern const char* telnetLogPath;
extern std::atomic<int> telnetLogOpen;  // relaxed: written under the lock, read for information
extern FILE* telnetLogFile;
void telnetLogWrite(const char* text);

// Configured log server: logServerIp has the first dotted octet in its most significant byte.
extern std::atomic<uint32_t> logServerIp;    // relaxed: configuration, read under the server lock
extern std::atomic<uint32_t> logServerPort;  // relaxed: configuration, read under the server lock
extern uint32_t logServerAppliedIp;          // last applied pair, under the server lock
extern uint32_t logServerAppliedPort;
extern sockaddr_in logServerAddr;
int setTelnetLogServer();

// Hex dumps, the protocol message dump and the sub socket.
// Sub socket switch: release after subSocket/subSocketDest are set, acquire before they are read;
// switched off with seq_cst against the in-flight count (see DebugSocketSender).
extern std::atomic<uint8_t> subSocketEnabled;
extern std::atomic<int> subSocket;
extern sockaddr_in subSocketDest;
constexpr uint16_t kSubSocketDefaultPort = 9998;

// One text datagram of the bytes to the network log peer; the sendto result.
ssize_t sendHexDump(const uint8_t* bytes, uint32_t len);
// Console dump, 8 bytes a line, each line led by the address of its first byte (level 2 and up).
void dumpBytesAt(const uint8_t* bytes, int32_t len);
// Console dump, 20 bytes a line, also sent as hex while the network sink is on (level 2 and up).
void dumpBytes(const uint8_t* bytes, int32_t len);
// Field-by-field console dump of a protocol message (level 1 and up; its data from level 2).
void dumpProtocolMsg(const S_ProtocolMsg* msg);
// Opens (or reopens) the sub socket towards the peer's base port minus 1, or the defaults.
int openSubSocket(const DebugPeerAddr* peer);
int closeSubSocket();
// One datagram on the sub socket: 0, or -1 when the socket is off or the send failed.
int subSocketPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A sender on a debug socket (network log or sub socket). It counts itself in flight before its
// last look at the switch; a closer switches off, waits its grace period and then until no sender
// is in flight, so the descriptor is never closed (or reused) under a send. Both sides use seq_cst
// on the counter and the switch: either the sender sees the switch off or the closer sees it
// counted. The sender's release decrement hands its use of the socket over to the closer.
class DebugSocketSender {
  public:
    DebugSocketSender(const std::atomic<uint8_t>& enabled, std::atomic<int>& inFlight)
        : inFlight_(inFlight) {
        inFlight_.fetch_add(1, std::memory_order_seq_cst);
        on_ = enabled.load(std::memory_order_seq_cst) != 0;
    }
    ~DebugSocketSender() { inFlight_.fetch_sub(1, std::memory_order_release); }
    DebugSocketSender(const DebugSocketSender&) = delete;
    DebugSocketSender& operator=(const DebugSocketSender&) = delete;
    bool on() const { return on_; }

  private:
    std::atomic<int>& inFlight_;
    bool on_;
};
extern std::atomic<int> netLogInFlight;
extern std::atomic<int> subSocketInFlight;

// The closing side: switch already off; waits 2 s, then for the last sender in flight to leave.
void debugSocketDrain(const std::atomic<int>& inFlight);

// Base name of a source path, for the "Msg: %s,(%d): " prefix of socket-creation failures.
constexpr const char* sourceBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}
