// One direction of the serial line seen exactly as the daemon sees it: the raw bytes go through
// the daemon's own ring and extractor (ringPutBytes, ringTakePacketReport), and every packet it
// would write to uart2eth0, and every run of bytes it would drop, comes out with the reason in
// words. Shared by the line capture tool and the line emulator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "ByteRing.h"

// What one direction carried; the line emulator and the capture tool print these per second.
struct WireCounts {
    uint64_t delivered = 0;
    uint64_t tooShort = 0;      // frame below 11 bytes with its flags
    uint64_t tooLong = 0;       // above 3047 bytes, or above the reader's limit
    uint64_t unterminated = 0;  // 3048 bytes from a start flag without an end flag
    uint64_t shortPayload = 0;  // payload of 11 bytes or fewer after unstuffing
    uint64_t noiseBytes = 0;    // bytes outside any frame

    uint64_t dropped() const { return tooShort + tooLong + unterminated + shortPayload; }
};

// What the daemon itself reports for one side of its UART, seen through its tap: chunks or frames
// it discarded for a full ring, writes that failed, and bytes the tap lost (gaps).
struct DaemonCounts {
    uint64_t discarded = 0;
    uint64_t writeFailures = 0;
    uint64_t gapBytes = 0;
};

// "delivered 3, dropped 2 (short 1, payload 1), noise 20 bytes" for the difference now - before;
// the reasons are short, long, unterminated and payload, each named when it occurred.
std::string wireCountsText(const WireCounts& now, const WireCounts& before);

class WireSink {
  public:
    virtual ~WireSink() = default;
    // A packet the daemon would write to uart2eth0, as it would write it (padding included).
    // offset: input position of the frame's start flag; timeNs: arrival of its end flag.
    virtual void delivered(uint64_t offset, int64_t timeNs, const uint8_t* payload,
                           size_t length) = 0;
    // Raw bytes from input position offset that the daemon drops (or, at the end of input, still
    // holds), and why. timeNs: arrival of the byte after which the daemon drops them.
    virtual void dropped(uint64_t offset, int64_t timeNs, const uint8_t* bytes, size_t length,
                         const std::string& reason) = 0;
    // Bytes outside any frame, dropped as noise. The extractor drops noise a few bytes at a time;
    // a piece whose offset is where the previous one ended continues it.
    virtual void noise(uint64_t offset, int64_t timeNs, const uint8_t* bytes, size_t length) = 0;
};

class LineTap {
  public:
    // The daemon's serial ring and reader limit.
    static constexpr int32_t kRingSize = 16384;
    static constexpr uint16_t kLimit = 8192;

    // chunk: bytes put into the ring between two looks for frames. 1 models a daemon that keeps
    // up with the line byte by byte, independent of how the input was read; at most 4096 (the
    // daemon's read size).
    explicit LineTap(WireSink& sink, size_t chunk = 1);
    ~LineTap();
    LineTap(const LineTap&) = delete;
    LineTap& operator=(const LineTap&) = delete;

    // Bytes that arrived together at timeNs (read from a device or a pipe).
    void feed(const uint8_t* data, size_t length, int64_t timeNs) {
        feedAt(data, length, timeNs, 0);
    }
    // Bytes of a recording, stamped with nominal line time: input byte k at the end of its last
    // bit at bytesPerSecond, counted from 0.
    void feedNominal(const uint8_t* data, size_t length, int64_t bytesPerSecond) {
        feedAt(data, length, 0, bytesPerSecond);
    }
    // Nominal time of the end of input byte offset.
    static int64_t nominalNs(uint64_t offset, int64_t bytesPerSecond) {
        return static_cast<int64_t>((offset + 1) * 1000000000ull /
                                    static_cast<uint64_t>(bytesPerSecond));
    }
    // End of input: what the ring still holds is reported.
    void finish(int64_t timeNs);
    // Bytes are missing from the input here: what the ring holds is reported as of unknown fate,
    // and the extractor starts again with an empty ring, as the daemon's state is not known.
    void restart(int64_t timeNs);

    const WireCounts& counts() const { return counts_; }
    uint64_t bytesFed() const { return writeOffset_; }

  private:
    void feedAt(const uint8_t* data, size_t length, int64_t timeNs, int64_t bytesPerSecond);
    void takeAll(int64_t timeNs);
    void dropSpan(uint64_t offset, uint32_t length, int64_t timeNs, const std::string& reason);
    void reportHeld(int64_t timeNs, const char* reason);
    void copyOut(uint64_t offset, uint32_t length, std::vector<uint8_t>& out) const;

    WireSink& sink_;
    size_t chunk_;
    ByteRing ring_;
    std::vector<uint8_t> mirror_;  // the input by ring position: the ring zeroes what it cuts
    std::vector<uint8_t> packet_;
    std::vector<uint8_t> scratch_;
    uint64_t readOffset_ = 0;   // input position of the ring's readIndex
    uint64_t writeOffset_ = 0;  // bytes fed so far
    uint32_t shown_ = 0;        // bytes at readIndex already shown with the frame they closed
    WireCounts counts_;
};

// The summary mode: one line per second of the taps' time stamps,
// "HH:MM:SS a: delivered ..., noise N bytes | b: ...", each second's own counts; for a side seen
// through the daemon's tap, followed by ", daemon: discarded N, write failures N, gaps N bytes".
class WireSummary {
  public:
    // utc: the time stamps are nominal line time from 0 (shown as elapsed time), not the clock.
    WireSummary(FILE* out, bool utc) : out_(out), utc_(utc) {}
    void add(const std::string& label, const LineTap* tap, const DaemonCounts* daemon = nullptr);
    // Prints a line for every whole second that ended at or before timeNs.
    void advance(int64_t timeNs);
    // A closing line per tap with the counts since the start.
    void total();

  private:
    struct Entry {
        std::string label;
        const LineTap* tap;
        const DaemonCounts* daemon;
        WireCounts last;
        DaemonCounts lastDaemon;
        std::string text(const WireCounts& since, const DaemonCounts& daemonSince) const;
    };
    FILE* out_;
    bool utc_;
    int64_t nextNs_ = -1;
    std::vector<Entry> entries_;
};
