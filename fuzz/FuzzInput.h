// What every fuzz target needs: the input read as a stream of bytes that yields zeros once spent
// (so a short input still drives a whole run), and a check that names itself and aborts, which
// libFuzzer and the replay in ctest both report with the input that failed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ == end_; }
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    uint16_t word() { return uint16_t(byte() | (byte() << 8)); }
    // Up to *n bytes in place; *n becomes the number there were.
    const uint8_t* take(size_t* n) {
        if (*n > size_t(end_ - p_)) *n = size_t(end_ - p_);
        const uint8_t* at = p_;
        p_ += *n;
        return at;
    }

  private:
    const uint8_t* p_;
    const uint8_t* end_;
};

#define CHECK(condition) ((condition) ? void(0) : checkFailed(#condition, __FILE__, __LINE__))
[[noreturn]] inline void checkFailed(const char* condition, const char* file, int line) {
    fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
    std::abort();
}
