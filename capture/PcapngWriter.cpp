// pcapng blocks in the writer's own byte order, as the format allows (readers look at the
// section's byte-order magic): section header, interface descriptions, enhanced packets.
#include "PcapngWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kShbUserApplication = 4;
constexpr uint16_t kIfName = 2;
constexpr uint16_t kIfDescription = 3;
constexpr uint16_t kIfTsResolution = 9;
constexpr uint8_t kNanoseconds = 9;  // 10^-9 s per time stamp unit

}  // namespace

void PcapngWriter::put32(uint32_t v) {
    putBytes(&v, sizeof v);
}

void PcapngWriter::putBytes(const void* data, size_t length) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    block_.insert(block_.end(), p, p + length);
    block_.resize((block_.size() + 3) & ~size_t(3), 0);  // every field ends on a 32-bit boundary
}

void PcapngWriter::option(uint16_t code, const void* value, size_t length) {
    const uint16_t head[2] = {code, static_cast<uint16_t>(length)};
    putBytes(head, sizeof head);
    if (length > 0) putBytes(value, length);
}

// block_ holds the body; frame it with type and total length at both ends and write it whole.
bool PcapngWriter::emit(uint32_t type) {
    const uint32_t total = static_cast<uint32_t>(block_.size() + 12);
    std::vector<uint8_t> body;
    body.swap(block_);
    put32(type);
    put32(total);
    putBytes(body.data(), body.size());
    put32(total);
    size_t done = 0;
    while (!failed_ && done < block_.size()) {
        const ssize_t n = write(fd_, block_.data() + done, block_.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) failed_ = true;
        if (n > 0) done += static_cast<size_t>(n);
    }
    block_.clear();
    return !failed_;
}

bool PcapngWriter::begin(const std::string& application) {
    put32(kByteOrderMagic);
    const uint16_t version[2] = {1, 0};
    putBytes(version, sizeof version);
    const int64_t unknownLength = -1;  // written as a stream, length not known in advance
    putBytes(&unknownLength, sizeof unknownLength);
    option(kShbUserApplication, application.data(), application.size());
    option(kOptEnd, nullptr, 0);
    return emit(kSectionHeader);
}

uint32_t PcapngWriter::addInterface(uint16_t linkType, const std::string& name,
                                    const std::string& description) {
    const uint16_t head[2] = {linkType, 0};
    putBytes(head, sizeof head);
    put32(0);  // no snapshot length: packets are never cut
    option(kIfName, name.data(), name.size());
    option(kIfDescription, description.data(), description.size());
    option(kIfTsResolution, &kNanoseconds, 1);
    option(kOptEnd, nullptr, 0);
    emit(kInterfaceDescription);
    return interfaces_++;
}

bool PcapngWriter::packet(uint32_t interfaceId, int64_t timeNs, const uint8_t* data, size_t length,
                          const char* comment) {
    const uint64_t t = static_cast<uint64_t>(timeNs);
    put32(interfaceId);
    put32(static_cast<uint32_t>(t >> 32));
    put32(static_cast<uint32_t>(t));
    put32(static_cast<uint32_t>(length));  // captured
    put32(static_cast<uint32_t>(length));  // on the line
    putBytes(data, length);
    if (comment != nullptr) {
        // An option holds at most 65535 bytes.
        option(kOptComment, comment, std::min<size_t>(std::strlen(comment), 65535));
        option(kOptEnd, nullptr, 0);
    }
    return emit(kEnhancedPacket);
}
