// The running daemon's line from its tap: each side of its UART through a LineTap, as a second
// UART on that wire would show it, with what the daemon itself discarded or could not write and
// the tap's gaps on the side's "dropped" interface, the reason as the packet comment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "LineTap.h"
#include "PcapngCapture.h"
#include "TapDecoder.h"

class TapView : public TapDecoder::Sink {
  public:
    struct Side {
        std::string label;
        WireSink* sink;
        std::unique_ptr<LineTap> tap;
        DaemonCounts daemon;
    };

    // The sides are "uart rx" (what the daemon read and made of it) and "uart tx" (what it wrote,
    // as the far end's daemon would take it).
    TapView(PcapngCapture& capture, size_t chunk);
    void record(const TapDecoder::Record& record) override;
    // End of the stream: what the extractors still hold is reported.
    void finish(int64_t timeNs);

    Side& rx() { return rx_; }
    Side& tx() { return tx_; }
    // The daemon's reason for not serving this reader; empty while it serves.
    const std::string& refusal() const { return refusal_; }

  private:
    void daemonDrop(Side& side, const TapDecoder::Record& record, const char* format);
    void gap(Side& side, int64_t timeNs, uint64_t bytes);

    Side rx_;
    Side tx_;
    std::string refusal_;
};
