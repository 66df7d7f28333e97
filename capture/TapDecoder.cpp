// The tap stream's decoder: heads and bodies gathered across pieces, the header record checked
// first, every length bounded before a byte of its body is stored.
#include "TapDecoder.h"

#include <algorithm>
#include <cstring>

namespace {
constexpr size_t kHead = sizeof(TapRecordHead);
}  // namespace

bool TapDecoder::feed(const uint8_t* data, size_t length, Sink& sink) {
    while (error_.empty() && length > 0) {
        TapRecordHead head{};
        if (have_ >= kHead) memcpy(&head, record_.data(), kHead);
        const size_t want = (have_ >= kHead ? kHead + head.length : kHead) - have_;
        const size_t n = std::min(want, length);
        memcpy(record_.data() + have_, data, n);
        have_ += n;
        data += n;
        length -= n;
        if (have_ < kHead) continue;
        memcpy(&head, record_.data(), kHead);
        if (head.length > kTapMaxBody) {
            error_ = "record of " + std::to_string(head.length) + " bytes, above the tap's " +
                     std::to_string(kTapMaxBody);
            break;
        }
        if (have_ < kHead + head.length) continue;
        have_ = 0;
        complete(head, sink);
    }
    return error_.empty();
}

void TapDecoder::complete(const TapRecordHead& head, Sink& sink) {
    const uint8_t* body = record_.data() + kHead;
    const TapKind kind = static_cast<TapKind>(head.kind);
    if (!hello_) {
        uint32_t version = 0;
        if (kind != TapKind::kHello || head.length < sizeof kTapMagic + sizeof version ||
            memcmp(body, kTapMagic, sizeof kTapMagic) != 0) {
            error_ = "not a SerialToEth tap stream";
            return;
        }
        memcpy(&version, body + sizeof kTapMagic, sizeof version);
        if (version != kTapVersion) {
            error_ = "tap stream version " + std::to_string(version) + ", this program reads " +
                     std::to_string(kTapVersion);
            return;
        }
        hello_ = true;
        return;
    }
    if (kind == TapKind::kGap && head.length < sizeof(TapGap)) {
        error_ = "gap record of " + std::to_string(head.length) + " bytes";
        return;
    }
    if (kind < TapKind::kUartRx || kind > TapKind::kRefused) return;
    sink.record(Record{kind, head.timeNs, body, head.length});
}
