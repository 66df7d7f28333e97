// libFuzzer target: the line capture's tap (capture/LineTap) on arbitrary streams, fed in pieces
// of 1 or 97 bytes with an arbitrary chunk size. Every delivered packet is the frame model's packet
// of the frame at the offset it names, every dropped run and noise piece is the input's own bytes
// there, together they show every input byte (noise exactly once), and the counts match.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FrameModel.h"
#include "FuzzInput.h"
#include "LineTap.h"

namespace {

class CheckingSink : public WireSink {
  public:
    explicit CheckingSink(const model::Bytes& stream) : stream_(stream), shown_(stream.size()) {}

    void delivered(uint64_t offset, int64_t, const uint8_t* payload, size_t length) override {
        CHECK(offset < stream_.size());
        CHECK(stream_[offset] == 0x7E);
        const auto end = std::find(stream_.begin() + long(offset) + 1, stream_.end(), 0x7E);
        CHECK(end != stream_.end());
        CHECK(model::payload(stream_.data() + offset) == model::Bytes(payload, payload + length));
        show(offset, size_t(end - stream_.begin()) + 1 - offset, false);
        ++delivered_;
    }
    void dropped(uint64_t offset, int64_t, const uint8_t* bytes, size_t length,
                 const std::string& reason) override {
        show(offset, length, false);
        CHECK(std::memcmp(stream_.data() + offset, bytes, length) == 0);
        if (reason.compare(0, 8, "dropped:") == 0) ++dropped_;
    }
    void noise(uint64_t offset, int64_t, const uint8_t* bytes, size_t length) override {
        show(offset, length, true);
        CHECK(std::memcmp(stream_.data() + offset, bytes, length) == 0);
        noiseBytes_ += length;
    }
    void finish(const WireCounts& counts) const {
        for (uint8_t n : shown_) CHECK(n >= 1);
        CHECK(counts.delivered == delivered_);
        CHECK(counts.dropped() == dropped_);
        CHECK(counts.noiseBytes == noiseBytes_);
    }

  private:
    // Noise is shown once; a frame's end flag may be shown again as the next frame's start.
    void show(uint64_t offset, size_t length, bool isNoise) {
        CHECK(length > 0);
        CHECK(offset + length <= stream_.size());
        for (size_t i = 0; i < length; ++i) {
            if (isNoise) CHECK(shown_[offset + i] == 0);
            ++shown_[offset + i];
        }
    }

    const model::Bytes& stream_;
    std::vector<uint8_t> shown_;
    uint64_t delivered_ = 0, dropped_ = 0, noiseBytes_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    static const size_t kChunks[] = {1, 2, 7, 64, 600, 4096};
    const size_t chunk = kChunks[in.byte() % 6];
    const uint8_t pieces = in.byte();
    size_t n = size;
    const uint8_t* rest = in.take(&n);
    const model::Bytes stream = model::lineStream(rest, n);
    CheckingSink sink(stream);
    LineTap tap(sink, chunk);
    for (size_t at = 0, k = 0; at < stream.size(); ++k) {
        const size_t n = std::min(stream.size() - at, size_t((pieces >> (k % 8)) & 1 ? 1 : 97));
        tap.feedNominal(stream.data() + at, n, 57600);
        at += n;
    }
    tap.finish(LineTap::nominalNs(stream.size(), 57600));
    CHECK(tap.bytesFed() == stream.size());
    sink.finish(tap.counts());
    return 0;
}
