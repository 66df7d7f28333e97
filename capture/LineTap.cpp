// The daemon's view of one direction of the line: bytes into its ring, frames cut by its
// extractor, and each take's report turned into packets and reasons in words.
#include "LineTap.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "FrameCodec.h"

namespace {

constexpr size_t kMaxChunk = 4096;

std::string format(const char* fmt, unsigned long long a) {
    char text[160];
    snprintf(text, sizeof text, fmt, a);
    return text;
}

// Each reason the extractor drops bytes for: the counter it adds to and its words, formatted with
// the frame's length with its flags (the payload's length after unstuffing for kShortPayload).
struct DropReason {
    TakeOutcome outcome;
    uint64_t WireCounts::*counter;
    const char* text;
};
constexpr DropReason kDropReasons[] = {
    {TakeOutcome::kUnterminated, &WireCounts::unterminated,
     "dropped: %llu bytes after a start flag without an end flag, at the 3048-byte bound for an "
     "unterminated run"},
    {TakeOutcome::kTooShort, &WireCounts::tooShort,
     "dropped: frame of %llu bytes with its flags, below the 11-byte minimum"},
    {TakeOutcome::kTooLong, &WireCounts::tooLong,
     "dropped: frame of %llu bytes with its flags, above the 3047-byte maximum"},
    {TakeOutcome::kOverLimit, &WireCounts::tooLong,
     "dropped: frame of %llu bytes with its flags, above the reader's limit of 8192 bytes"},
    {TakeOutcome::kShortPayload, &WireCounts::shortPayload,
     "dropped: payload of %llu bytes after unstuffing, below the 12-byte minimum"},
};

}  // namespace

std::string wireCountsText(const WireCounts& now, const WireCounts& before) {
    const std::pair<const char*, uint64_t> reasons[] = {
        {"short", now.tooShort - before.tooShort},
        {"long", now.tooLong - before.tooLong},
        {"unterminated", now.unterminated - before.unterminated},
        {"payload", now.shortPayload - before.shortPayload},
    };
    std::string text = "delivered " + std::to_string(now.delivered - before.delivered) +
                       ", dropped " + std::to_string(now.dropped() - before.dropped());
    const char* separator = " (";
    for (const auto& r : reasons) {
        if (r.second == 0) continue;
        text += separator + std::string(r.first) + " " + std::to_string(r.second);
        separator = ", ";
    }
    if (separator[0] == ',') text += ")";
    return text + ", noise " + std::to_string(now.noiseBytes - before.noiseBytes) + " bytes";
}

LineTap::LineTap(WireSink& sink, size_t chunk)
    : sink_(sink), chunk_(std::min(std::max<size_t>(chunk, 1), kMaxChunk)), packet_(kLimit) {
    ringCreate(&ring_, kRingSize);
    mirror_.resize(ring_.size);
}

LineTap::~LineTap() {
    ringDestroy(&ring_);
}

void LineTap::feedAt(const uint8_t* data, size_t length, int64_t timeNs, int64_t bytesPerSecond) {
    for (size_t at = 0; at < length;) {
        const size_t n = std::min(chunk_, length - at);
        // What the chunk's last byte brings about happens when it has arrived.
        const int64_t lastNs =
            bytesPerSecond > 0 ? nominalNs(writeOffset_ + n - 1, bytesPerSecond) : timeNs;
        // After takeAll the ring holds at most the chunk's bytes before a start flag, a run of
        // under 3048 bytes and one more chunk: never the 16383 bytes that would fill it.
        if (ringPutBytes(&ring_, data + at, static_cast<uint16_t>(n)) != 0) std::abort();
        for (size_t i = 0; i < n; ++i) mirror_[(writeOffset_ + i) & ring_.mask] = data[at + i];
        writeOffset_ += n;
        at += n;
        takeAll(lastNs);
    }
}

void LineTap::copyOut(uint64_t offset, uint32_t length, std::vector<uint8_t>& out) const {
    out.resize(length);
    for (uint32_t i = 0; i < length; ++i) out[i] = mirror_[(offset + i) & ring_.mask];
}

void LineTap::dropSpan(uint64_t offset, uint32_t length, int64_t timeNs,
                       const std::string& reason) {
    copyOut(offset, length, scratch_);
    sink_.dropped(offset, timeNs, scratch_.data(), scratch_.size(), reason);
}

// Takes as the daemon's dispatcher does, until a take consumes nothing. Consumed bytes before a
// start flag are noise, except an end flag that was already shown with the frame it closed.
void LineTap::takeAll(int64_t timeNs) {
    for (;;) {
        // This thread is the ring's only consumer: its own index needs no ordering.
        const uint32_t before = ring_.readIndex.load(std::memory_order_relaxed);
        TakeReport rep{};
        const int32_t n = ringTakePacketReport(&ring_, packet_.data(), kLimit, &rep);
        if (rep.outcome == TakeOutcome::kNone) return;
        const uint64_t at = readOffset_;
        readOffset_ += (ring_.readIndex.load(std::memory_order_relaxed) - before) & ring_.mask;
        const uint32_t shown = std::min(rep.skipped, shown_);
        if (rep.skipped > shown) {
            counts_.noiseBytes += rep.skipped - shown;
            copyOut(at + shown, rep.skipped - shown, scratch_);
            sink_.noise(at + shown, timeNs, scratch_.data(), scratch_.size());
        }
        const uint64_t start = at + rep.skipped;
        // A frame's end flag stays at readIndex and is shown with its frame; noise and an
        // unterminated run end on no flag.
        shown_ =
            rep.outcome == TakeOutcome::kNoise || rep.outcome == TakeOutcome::kUnterminated ? 0 : 1;
        if (rep.outcome == TakeOutcome::kDelivered) {
            ++counts_.delivered;
            sink_.delivered(start, timeNs, packet_.data(), static_cast<size_t>(n));
        }
        for (const DropReason& reason : kDropReasons) {
            if (reason.outcome != rep.outcome) continue;
            ++(counts_.*reason.counter);
            const bool payload = rep.outcome == TakeOutcome::kShortPayload;
            dropSpan(
                start, rep.span, timeNs,
                payload && rep.payload < 0
                    ? std::string("dropped: header cut short by escape bytes, no payload "
                                  "(12-byte minimum)")
                    : format(reason.text,
                             payload ? static_cast<unsigned long long>(rep.payload) : rep.span));
        }
    }
}

void LineTap::reportHeld(int64_t timeNs, const char* reason) {
    const uint64_t from = readOffset_ + std::min<uint64_t>(shown_, writeOffset_ - readOffset_);
    if (writeOffset_ > from) {
        const uint32_t held = static_cast<uint32_t>(writeOffset_ - from);
        copyOut(from, held, scratch_);
        sink_.dropped(from, timeNs, scratch_.data(), held, format(reason, held));
    }
    readOffset_ = writeOffset_;
    shown_ = 0;
}

void LineTap::finish(int64_t timeNs) {
    reportHeld(timeNs,
               "not delivered: %llu bytes still held at the end of input, waiting for more");
}

void LineTap::restart(int64_t timeNs) {
    reportHeld(timeNs,
               "not known: %llu bytes held when bytes went missing; what became of them is not "
               "known, and the extractor starts again after the gap");
    // This thread is the ring's only user: the consumer's index follows the producer's at once.
    ring_.readIndex.store(ring_.writeIndex.load(std::memory_order_relaxed),
                          std::memory_order_relaxed);
}

void WireSummary::add(const std::string& label, const LineTap* tap, const DaemonCounts* daemon) {
    entries_.push_back({label, tap, daemon, tap->counts(), daemon ? *daemon : DaemonCounts{}});
}

std::string WireSummary::Entry::text(const WireCounts& since,
                                     const DaemonCounts& daemonSince) const {
    std::string line = label + ": " + wireCountsText(tap->counts(), since);
    if (daemon == nullptr) return line;
    return line + ", daemon: discarded " +
           std::to_string(daemon->discarded - daemonSince.discarded) + ", write failures " +
           std::to_string(daemon->writeFailures - daemonSince.writeFailures) + ", gaps " +
           std::to_string(daemon->gapBytes - daemonSince.gapBytes) + " bytes";
}

void WireSummary::advance(int64_t timeNs) {
    constexpr int64_t kSecond = 1000000000;
    // At the start, and after the clock jumped (a suspended machine), begin with this second.
    if (nextNs_ < 0 || timeNs - nextNs_ > 60 * kSecond) nextNs_ = (timeNs / kSecond + 1) * kSecond;
    while (timeNs >= nextNs_) {
        const time_t t = static_cast<time_t>(nextNs_ / kSecond);
        tm parts{};
        if (utc_) {
            gmtime_r(&t, &parts);
        } else {
            localtime_r(&t, &parts);
        }
        char clock[16];
        strftime(clock, sizeof clock, "%H:%M:%S", &parts);
        std::string line = clock;
        for (size_t i = 0; i < entries_.size(); ++i) {
            Entry& e = entries_[i];
            line += (i == 0 ? " " : " | ") + e.text(e.last, e.lastDaemon);
            e.last = e.tap->counts();
            if (e.daemon != nullptr) e.lastDaemon = *e.daemon;
        }
        fprintf(out_, "%s\n", line.c_str());
        fflush(out_);
        nextNs_ += kSecond;
    }
}

void WireSummary::total() {
    for (const Entry& e : entries_) {
        fprintf(out_, "total %s\n", e.text(WireCounts{}, DaemonCounts{}).c_str());
    }
    fflush(out_);
}
