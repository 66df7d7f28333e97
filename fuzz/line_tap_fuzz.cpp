// libFuzzer target: the line capture's tap (capture/LineTap) on arbitrary streams, fed in
// arbitrary pieces with an arbitrary chunk size. Checks that every packet and dropped run carries
// the input's own bytes at the offset it names, that delivered payloads are what frameDecode makes
// of the frame there, that together they show every input byte (noise exactly once), that time
// stamps never go back, and that the counts match the packets.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FrameCodec.h"
#include "FuzzInput.h"
#include "LineTap.h"

namespace {

class CheckingSink : public WireSink {
  public:
    explicit CheckingSink(const std::vector<uint8_t>& stream)
        : stream_(stream), shown_(stream.size(), 0) {}

    void delivered(uint64_t offset, int64_t timeNs, const uint8_t* payload,
                   size_t length) override {
        CHECK(offset + 1 < stream_.size() && stream_[offset] == kFrameFlag);
        const uint8_t* frame = stream_.data() + offset;
        const void* end = std::memchr(frame + 1, kFrameFlag, stream_.size() - offset - 1);
        CHECK(end != nullptr);
        const size_t span = size_t(static_cast<const uint8_t*>(end) - frame) + 1;
        CHECK(span >= 11 && span <= 3047);
        std::vector<uint8_t> decoded(span);
        CHECK(frameDecode(frame, decoded.data()) == int32_t(length) && length >= 12);
        CHECK(std::memcmp(decoded.data(), payload, length) == 0);
        show(offset, span, timeNs, false);
        ++delivered_;
    }
    void dropped(uint64_t offset, int64_t timeNs, const uint8_t* bytes, size_t length,
                 const std::string& reason) override {
        CHECK(!reason.empty() && length > 0 && offset + length <= stream_.size());
        CHECK(std::memcmp(stream_.data() + offset, bytes, length) == 0);
        show(offset, length, timeNs, false);
        if (reason.compare(0, 8, "dropped:") == 0) ++dropped_;
    }
    void noise(uint64_t offset, int64_t timeNs, const uint8_t* bytes, size_t length) override {
        CHECK(length > 0 && offset + length <= stream_.size());
        CHECK(std::memcmp(stream_.data() + offset, bytes, length) == 0);
        show(offset, length, timeNs, true);
        noiseBytes_ += length;
    }

    void finish(const WireCounts& counts) const {
        // Every byte is shown: noise once, a frame's closing flag at most again as the next
        // frame's start.
        for (uint8_t n : shown_) CHECK(n >= 1 && n <= 2);
        CHECK(counts.delivered == delivered_ && counts.dropped() == dropped_);
        CHECK(counts.noiseBytes == noiseBytes_);
    }

  private:
    void show(uint64_t offset, size_t length, int64_t timeNs, bool noise) {
        CHECK(timeNs >= lastNs_);
        lastNs_ = timeNs;
        for (size_t i = 0; i < length; ++i) {
            uint8_t& n = shown_[offset + i];
            CHECK(!noise || n == 0);
            ++n;
        }
    }

    const std::vector<uint8_t>& stream_;
    std::vector<uint8_t> shown_;
    int64_t lastNs_ = 0;
    uint64_t delivered_ = 0, dropped_ = 0, noiseBytes_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static const size_t kChunks[] = {1, 1, 1, 2, 3, 7, 10, 64, 600, 4096};
    const size_t chunk = kChunks[data[0] % 10];
    const uint8_t pieces = data[1];
    data += 2;
    size -= 2;
    // The stream: the input, with bytes 0xF0..0xF3 standing for runs that reach the length
    // bounds (a frame of 3041 payload bytes, runs of 3046 to 3048 bytes after a start flag).
    std::vector<uint8_t> stream;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] >= 0xF0 && data[i] <= 0xF3) {
            stream.push_back(kFrameFlag);
            stream.insert(stream.end(), size_t(3045 + (data[i] & 3)), 0x41);
        } else {
            stream.push_back(data[i]);
        }
    }
    CheckingSink sink(stream);
    LineTap tap(sink, chunk);
    constexpr int64_t kRate = 57600;
    for (size_t at = 0, k = 0; at < stream.size(); ++k) {
        const size_t n = std::min(stream.size() - at, size_t((pieces >> (k % 8)) & 1 ? 1 : 97));
        if (pieces & 0x80) {
            tap.feed(stream.data() + at, n, int64_t(at));
        } else {
            tap.feedNominal(stream.data() + at, n, kRate);
        }
        at += n;
    }
    tap.finish(LineTap::nominalNs(stream.size(), kRate) + int64_t(stream.size()));
    CHECK(tap.bytesFed() == stream.size());
    sink.finish(tap.counts());
    CHECK(!wireCountsText(tap.counts(), WireCounts{}).empty());
    return 0;
}
