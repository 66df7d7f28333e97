// The stream that a reader attached to the daemon's tap receives: a header record, then typed
// records, each a 16-byte head (kind, body length, time stamp) followed by its body. The daemon's
// tap (WireTap) writes it; serialtoeth-capture --attach reads it. Each record says its own length,
// so any transport that keeps the bytes in order (a local socket, a pipe, a file) carries the
// stream; the daemon's socket sends whole records only, several to a message.
#pragma once

#include <cstdint>

// Host byte order, and both targets (x86-64, AArch64) are little-endian: the stream is too.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the tap stream is little-endian");

constexpr const char* kTapDirectory = "/run/serialtoeth";
constexpr const char* kTapSocketPath = "/run/serialtoeth/tap";
constexpr char kTapMagic[8] = {'S', '2', 'E', '-', 'T', 'A', 'P', '\0'};
constexpr uint32_t kTapVersion = 1;
// Longest body: the bridge's buffers of 8192 bytes bound every chunk it reads, writes or drops.
constexpr uint32_t kTapMaxBody = 8192;
constexpr uint32_t kTapMaxReaders = 4;

enum class TapKind : uint16_t {
    kHello = 1,           // first record: kTapMagic, then the version (uint32)
    kUartRx = 2,          // bytes read from the UART and stored in the serial ring
    kUartTx = 3,          // bytes one write call to the UART took
    kSerialRingFull = 4,  // bytes read from the UART and discarded: serial ring full
    kUartTxUnsent = 5,    // the rest of a frame the UART did not take in 100 attempts
    kTunWriteFailed = 6,  // a packet cut from the line that uart2eth0 did not take
    kTunRingFull = 7,     // a frame read from uart2eth0 and discarded: tun ring full
    kGap = 8,             // records lost just before this one: a TapGap
    kRefused = 9,         // the daemon does not serve this reader (text); it closes the socket
};

struct TapRecordHead {
    uint16_t kind;  // a TapKind; readers skip kinds they do not know
    uint16_t reserved;
    uint32_t length;  // body bytes that follow, at most kTapMaxBody
    int64_t timeNs;   // CLOCK_REALTIME when the thread that made the record made it
};
static_assert(sizeof(TapRecordHead) == 16, "the head has no padding");

struct TapGap {
    uint64_t rxBytes;  // bytes of records of the UART's receiving side lost
    uint64_t txBytes;  // bytes of records of its sending side lost
    uint64_t records;
};
static_assert(sizeof(TapGap) == 24, "the gap body has no padding");

// Which side of the UART a record belongs to: received (and what became of it) or sent.
constexpr bool tapKindIsRx(TapKind kind) {
    return kind == TapKind::kUartRx || kind == TapKind::kSerialRingFull ||
           kind == TapKind::kTunWriteFailed;
}
