// A pcapng file of one or two line directions: per direction an Ethernet interface "<label>" with
// the packets the daemon would deliver, and a raw-bytes interface "<label> dropped" with the bytes
// it would drop, each with its reason as the packet comment. Noise is joined into one packet while
// it continues.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "LineTap.h"
#include "PcapngWriter.h"

class PcapngCapture {
  public:
    // Longest noise packet; longer noise is split.
    static constexpr size_t kMaxNoisePacket = 65535;

    // fd stays the caller's; with fd -1 nothing is written and the sinks only discard.
    PcapngCapture(int fd, const std::string& application);
    ~PcapngCapture();
    PcapngCapture(const PcapngCapture&) = delete;
    PcapngCapture& operator=(const PcapngCapture&) = delete;

    // Declares a direction's two interfaces; add every direction before the first packet.
    // receiver: who would deliver or drop what the direction carries, as the descriptions say.
    WireSink& addDirection(const std::string& label, const std::string& source,
                           const std::string& receiver = "the daemon");
    // Writes the noise held so far, oldest first (after a pause on the line, and at the end).
    void flushNoise();
    // False once a write failed (the reader went away).
    bool ok() const { return writer_ == nullptr || writer_->ok(); }

  private:
    class Direction;
    // Every packet goes out after the noise still held, whose time stamps are earlier, so the
    // file stays in time order across directions.
    void write(uint32_t interfaceId, int64_t timeNs, const uint8_t* data, size_t length,
               const char* comment);

    std::unique_ptr<PcapngWriter> writer_;
    std::vector<std::unique_ptr<Direction>> directions_;
};
