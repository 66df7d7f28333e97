// Line directions into pcapng: delivered packets as Ethernet, dropped bytes as raw bytes with the
// reason as comment, and noise pieces joined until something else happens on the line.
#include "PcapngCapture.h"

#include <cstdio>

class PcapngCapture::Direction : public WireSink {
  public:
    Direction(PcapngCapture& owner, uint32_t deliveredId, uint32_t droppedId)
        : owner_(owner), deliveredId_(deliveredId), droppedId_(droppedId) {}

    void delivered(uint64_t, int64_t timeNs, const uint8_t* payload, size_t length) override {
        owner_.write(deliveredId_, timeNs, payload, length, nullptr);
    }
    void dropped(uint64_t, int64_t timeNs, const uint8_t* bytes, size_t length,
                 const std::string& reason) override {
        owner_.write(droppedId_, timeNs, bytes, length, reason.c_str());
    }
    void noise(uint64_t offset, int64_t timeNs, const uint8_t* bytes, size_t length) override {
        if (!held_.empty() &&
            (heldOffset_ + held_.size() != offset || held_.size() + length > kMaxNoisePacket)) {
            owner_.flushNoise();
        }
        if (held_.empty()) heldOffset_ = offset;
        held_.insert(held_.end(), bytes, bytes + length);
        heldTimeNs_ = timeNs;
    }

    bool holdsNoise() const { return !held_.empty(); }
    int64_t heldTimeNs() const { return heldTimeNs_; }
    // writer null: no file, the noise is only let go.
    void writeNoise(PcapngWriter* writer) {
        char reason[80];
        snprintf(reason, sizeof reason, "dropped: %zu bytes of noise without a start flag",
                 held_.size());
        if (writer != nullptr) {
            writer->packet(droppedId_, heldTimeNs_, held_.data(), held_.size(), reason);
        }
        held_.clear();
    }

  private:
    PcapngCapture& owner_;
    uint32_t deliveredId_;
    uint32_t droppedId_;
    std::vector<uint8_t> held_;
    uint64_t heldOffset_ = 0;
    int64_t heldTimeNs_ = 0;
};

PcapngCapture::PcapngCapture(int fd, const std::string& application) {
    if (fd < 0) return;
    writer_ = std::make_unique<PcapngWriter>(fd);
    writer_->begin(application);
}

PcapngCapture::~PcapngCapture() = default;

WireSink& PcapngCapture::addDirection(const std::string& label, const std::string& source,
                                      const std::string& receiver) {
    uint32_t deliveredId = 0, droppedId = 0;
    if (writer_ != nullptr) {
        deliveredId = writer_->addInterface(
            kLinkEthernet, label,
            "packets " + receiver + " would write to uart2eth0, from " + source);
        droppedId = writer_->addInterface(kLinkRawBytes, label + " dropped",
                                          "bytes " + receiver + " would drop, from " + source +
                                              "; the reason is the packet comment");
    }
    directions_.push_back(std::make_unique<Direction>(*this, deliveredId, droppedId));
    return *directions_.back();
}

// Oldest first, so that the file stays in time order across directions.
void PcapngCapture::flushNoise() {
    for (;;) {
        Direction* oldest = nullptr;
        for (auto& d : directions_) {
            if (d->holdsNoise() && (oldest == nullptr || d->heldTimeNs() < oldest->heldTimeNs())) {
                oldest = d.get();
            }
        }
        if (oldest == nullptr) return;
        oldest->writeNoise(writer_.get());
    }
}

void PcapngCapture::write(uint32_t interfaceId, int64_t timeNs, const uint8_t* data, size_t length,
                          const char* comment) {
    flushNoise();
    if (writer_ != nullptr) writer_->packet(interfaceId, timeNs, data, length, comment);
}
