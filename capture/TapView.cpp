// Tap records into the two sides' extractors and packets: line bytes feed the extractor, the
// daemon's own drops become packets with their reason, a gap restarts the extractor.
#include "TapView.h"

#include <cstdio>
#include <cstring>

namespace {

// What the daemon itself discarded or could not write: the count it adds to on its side of the
// UART (tapKindIsRx tells which), and the reason shown with its bytes.
struct DaemonDrop {
    TapKind kind;
    uint64_t DaemonCounts::*count;
    const char* format;  // of the record's length
};
constexpr DaemonDrop kDaemonDrops[] = {
    {TapKind::kSerialRingFull, &DaemonCounts::discarded,
     "discarded by the daemon: %u bytes read from the UART, its serial ring full"},
    {TapKind::kTunWriteFailed, &DaemonCounts::writeFailures,
     "not written: uart2eth0 did not take this %u-byte packet"},
    {TapKind::kUartTxUnsent, &DaemonCounts::writeFailures,
     "not sent: the last %u bytes of a frame, not taken by the UART in 100 attempts"},
    {TapKind::kTunRingFull, &DaemonCounts::discarded,
     "discarded by the daemon: a %u-byte frame from uart2eth0, its tun ring full"},
};

}  // namespace

TapView::TapView(PcapngCapture& capture, size_t chunk) {
    const std::string tap = " (the tap of SerialToEth), with the daemon's own drops and the gaps";
    rx_.label = "uart rx";
    rx_.sink = &capture.addDirection(rx_.label, "the bytes the daemon read from its UART" + tap);
    tx_.label = "uart tx";
    tx_.sink = &capture.addDirection(tx_.label, "the bytes the daemon wrote to its UART" + tap,
                                     "the daemon at the far end");
    for (Side* side : {&rx_, &tx_}) side->tap = std::make_unique<LineTap>(*side->sink, chunk);
}

void TapView::record(const TapDecoder::Record& record) {
    switch (record.kind) {
        case TapKind::kUartRx:
            rx_.tap->feed(record.body, record.length, record.timeNs);
            break;
        case TapKind::kUartTx:
            tx_.tap->feed(record.body, record.length, record.timeNs);
            break;
        case TapKind::kGap: {
            TapGap lost;
            memcpy(&lost, record.body, sizeof lost);
            if (lost.rxBytes > 0) gap(rx_, record.timeNs, lost.rxBytes);
            if (lost.txBytes > 0) gap(tx_, record.timeNs, lost.txBytes);
            break;
        }
        case TapKind::kRefused:
            refusal_.assign(reinterpret_cast<const char*>(record.body), record.length);
            break;
        case TapKind::kHello:
            break;
        default:
            for (const DaemonDrop& drop : kDaemonDrops) {
                if (drop.kind != record.kind) continue;
                Side& side = tapKindIsRx(record.kind) ? rx_ : tx_;
                ++(side.daemon.*drop.count);
                daemonDrop(side, record, drop.format);
            }
            break;
    }
}

void TapView::daemonDrop(Side& side, const TapDecoder::Record& record, const char* format) {
    char reason[128];
    snprintf(reason, sizeof reason, format, record.length);
    side.sink->dropped(0, record.timeNs, record.body, record.length, reason);
}

void TapView::gap(Side& side, int64_t timeNs, uint64_t bytes) {
    side.daemon.gapBytes += bytes;
    side.tap->restart(timeNs);
    char reason[160];
    snprintf(reason, sizeof reason,
             "gap: the tap lost %llu bytes of this side (it or this reader fell behind); the "
             "extractor starts again here",
             static_cast<unsigned long long>(bytes));
    const uint8_t none = 0;
    side.sink->dropped(0, timeNs, &none, 0, reason);
}

void TapView::finish(int64_t timeNs) {
    rx_.tap->finish(timeNs);
    tx_.tap->finish(timeNs);
}
