// libFuzzer target: the tap stream's decoder (capture/TapDecoder) and the attached view behind it.
// A stream is either the input itself or built from it (a header record, then records of any kind
// and length up to the bound). Checks that a stream decodes to the same records and verdict fed
// whole or in pieces of any size, that a built stream decodes to exactly the records it was built
// from (unknown kinds left out), and that every record goes through the view within bounds.
#include <algorithm>
#include <cstdint>
#include <tuple>
#include <vector>

#include "FuzzInput.h"
#include "TapDecoder.h"
#include "TapView.h"

namespace {

using Got = std::tuple<uint16_t, int64_t, std::vector<uint8_t>>;  // kind, time, body

struct Collect : TapDecoder::Sink {
    explicit Collect(TapView* v = nullptr) : view(v) {}
    std::vector<Got> got;
    TapView* view;
    void record(const TapDecoder::Record& r) override {
        CHECK(r.length <= 8192);
        got.emplace_back(uint16_t(r.kind), r.timeNs,
                         std::vector<uint8_t>(r.body, r.body + r.length));
        if (view != nullptr) view->record(r);
    }
};

void append(std::vector<uint8_t>& stream, uint16_t kind, int64_t timeNs, const uint8_t* body,
            uint32_t length) {
    const TapRecordHead head[1] = {{kind, 0, length, timeNs}};
    stream.insert(stream.end(), reinterpret_cast<const uint8_t*>(head),
                  reinterpret_cast<const uint8_t*>(head + 1));
    stream.insert(stream.end(), body, body + length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    std::vector<uint8_t> stream;
    std::vector<Got> built;
    const bool structured = in.byte() % 2 == 0;
    if (!structured && size > 0) stream.assign(data + 1, data + size);
    if (structured) {
        append(stream, 1, 0, reinterpret_cast<const uint8_t*>("S2E-TAP\0\1\0\0\0"), 12);
        while (!in.empty()) {
            const uint16_t kind = uint16_t(2 + in.byte() % 10);  // 10 and 11: unknown kinds
            const int64_t timeNs = int64_t(in.word()) << 20;
            size_t n = in.word() % (kTapMaxBody + 1);
            const uint8_t* body = in.take(&n);
            std::vector<uint8_t> b(body, body + n);
            if (kind == 8) b.resize(24);  // a gap's body is three counters
            append(stream, kind, timeNs, b.data(), uint32_t(b.size()));
            if (kind <= 9) built.emplace_back(kind, timeNs, b);
        }
    }

    PcapngCapture capture(-1, "fuzz");
    TapView view(capture, 1 + size % 64);
    TapDecoder whole, pieces;
    Collect fromWhole, fromPieces(&view);
    const bool wholeRead = whole.feed(stream.data(), stream.size(), fromWhole);
    bool piecesRead = true;
    for (size_t at = 0, x = size; at < stream.size();) {
        x = x * 6364136223846793005u + 1442695040888963407u;  // pieces of 1 to 700 bytes
        const size_t n = std::min<size_t>(1 + (x >> 33) % 700, stream.size() - at);
        piecesRead = pieces.feed(stream.data() + at, n, fromPieces) && piecesRead;
        at += n;
    }
    view.finish(0);
    CHECK(wholeRead == piecesRead);
    CHECK(whole.error() == pieces.error());
    CHECK(fromWhole.got == fromPieces.got);
    if (structured) CHECK(wholeRead && fromWhole.got == built);
    return 0;
}
