// pcapng writer shared by the line capture tool and the line emulator: one section, interfaces
// declared up front, enhanced packet blocks with an optional comment, nanosecond time stamps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr uint16_t kLinkEthernet = 1;
// Raw bytes with no link layer: Wireshark shows them as data (LINKTYPE_USER0).
constexpr uint16_t kLinkRawBytes = 147;

class PcapngWriter {
  public:
    // Writes to fd, which stays the caller's. Every block goes out in one piece, so a reader on a
    // pipe (wireshark -k -i -) sees each packet as soon as it is written.
    explicit PcapngWriter(int fd) : fd_(fd) {}

    // The section header; first, once. False once any write has failed (the reader went away).
    bool begin(const std::string& application);
    // Returns the new interface's id (0, 1, ... in the order declared). Declare every interface
    // before the first packet.
    uint32_t addInterface(uint16_t linkType, const std::string& name,
                          const std::string& description);
    // timeNs counts nanoseconds since the epoch; comment may be null.
    bool packet(uint32_t interfaceId, int64_t timeNs, const uint8_t* data, size_t length,
                const char* comment);
    bool ok() const { return !failed_; }

  private:
    void put32(uint32_t v);
    void putBytes(const void* data, size_t length);
    void option(uint16_t code, const void* value, size_t length);
    bool emit(uint32_t type);

    int fd_;
    bool failed_ = false;
    uint32_t interfaces_ = 0;
    std::vector<uint8_t> block_;
};
