// Reads the daemon's tap stream (app/TapFormat.h) from pieces of any size, as a socket, a pipe or
// a file hands them over. Bounded: a record's length is checked before any of its body is taken,
// and the decoder holds at most one record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TapFormat.h"

class TapDecoder {
  public:
    struct Record {
        TapKind kind;
        int64_t timeNs;
        const uint8_t* body;  // valid during the call only
        uint32_t length;
    };
    class Sink {
      public:
        virtual ~Sink() = default;
        virtual void record(const Record& record) = 0;
    };

    TapDecoder() : record_(sizeof(TapRecordHead) + kTapMaxBody) {}

    // Hands every whole record after the header record to sink, in order, kinds this program does
    // not know left out. False once the stream is not a tap stream it can read (error() says
    // why); nothing more is read then.
    bool feed(const uint8_t* data, size_t length, Sink& sink);
    const std::string& error() const { return error_; }

  private:
    void complete(const TapRecordHead& head, Sink& sink);

    std::vector<uint8_t> record_;  // head and body of the record being read
    size_t have_ = 0;
    bool hello_ = false;
    std::string error_;
};
