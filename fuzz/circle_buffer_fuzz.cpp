// libFuzzer target for CircleBuffer: arbitrary appends, frame and message cuts with arbitrary
// delimiters, heads and tails, and partial takes, checked against a plain deque model; output
// buffers are exactly as large as the most a call may deliver, so any overrun trips the sanitizer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>

#include "CircleBuffer.h"
#include "FuzzInput.h"
#include "debug.h"

namespace {

// Delimiter strings are NUL-terminated, so they cannot hold a 0 byte.
std::string delimiter(FuzzInput& in, size_t length) {
    std::string s;
    for (size_t i = 0; i < length; ++i) {
        const uint8_t b = in.byte();
        s.push_back(static_cast<char>(b == 0 ? 1 : b));
    }
    return s;
}

bool matches(const std::deque<uint8_t>& q, size_t at, const std::string& pattern) {
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (q[at + i] != static_cast<uint8_t>(pattern[i])) return false;
    }
    return true;
}

// The model's frame cut: returns the frame (empty when none) and consumes as the buffer does.
std::string modelFrame(std::deque<uint8_t>& q, size_t capacity, uint8_t start, uint8_t end) {
    const size_t n = q.size();
    if (n < 2) return {};
    size_t k = 0;
    while (k + 1 < n && !(q[k] == start && q[k + 1] != start)) ++k;
    if (k + 1 >= n) return {};
    size_t e = k + 1;
    while (e < n && q[e] != end) ++e;
    if (e >= n) return {};
    std::string frame(q.begin() + static_cast<long>(k), q.begin() + static_cast<long>(e) + 1);
    q.erase(q.begin(), q.begin() + static_cast<long>(e));
    return frame.size() == capacity ? std::string() : frame;
}

// The model's message cut; `peekCount` receives the peek result.
std::string modelMessage(std::deque<uint8_t>& q, size_t capacity, const std::string* head,
                         const std::string* tail, bool peek, size_t& peekCount) {
    peekCount = 0;
    if (head == nullptr || head->empty()) return {};
    const size_t h = head->size();
    const size_t t = tail != nullptr ? tail->size() : 0;
    if (h + t > 40 || h + t > q.size()) return {};
    size_t k = 0;
    while (k <= q.size() - (h + t) && !matches(q, k, *head)) ++k;
    if (k > q.size() - (h + t)) return {};
    size_t end = k + h;
    if (t > 0) {
        size_t j = end;
        while (j + t <= q.size() && !matches(q, j, *tail)) ++j;
        if (j + t > q.size()) return {};
        end = j + t;
    }
    if (peek) {
        // Counted from the positions, so a full ring with its head at the oldest byte gives 0.
        peekCount = (q.size() - k) % capacity;
        return {};
    }
    std::string message(q.begin() + static_cast<long>(k), q.begin() + static_cast<long>(end));
    q.erase(q.begin(), q.begin() + static_cast<long>(end));
    return message.size() == capacity ? std::string() : message;
}

bool same(const Int8* bytes, uint32_t n, const std::string& expected) {
    return n == expected.size() && (n == 0 || memcmp(bytes, expected.data(), n) == 0);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    debugLevel = -1;  // the overflow messages are expected here; keep the output quiet
    FuzzInput in{data, size};
    const int32_t code = static_cast<int32_t>(in.byte() % 8) - 1;  // includes unknown codes
    CircleBuffer ring(code);
    const size_t capacity = ring.getFreeSize();
    CHECK(capacity == 256 || capacity == 1024 || capacity == 2048 || capacity == 4096 ||
          capacity == 16384);
    std::deque<uint8_t> model;

    while (!in.empty()) {
        const size_t before = model.size();
        switch (in.byte() % 6) {
            case 0: {
                const uint32_t length = in.word() % static_cast<uint32_t>(capacity + 16);
                std::unique_ptr<Int8[]> bytes(new Int8[length]);
                for (uint32_t i = 0; i < length; ++i) {
                    bytes[i] = static_cast<Int8>(in.empty() ? i * 7 : in.byte());
                }
                const bool fits = length <= capacity - before;
                CHECK(ring.insertData(bytes.get(), length) == (fits ? 0 : -1));
                if (fits) {
                    model.insert(model.end(), bytes.get(), bytes.get() + length);
                } else {
                    model.clear();
                }
                break;
            }
            case 1: {
                const uint8_t start = in.byte();
                const uint8_t end = in.byte();
                std::unique_ptr<Int8[]> out(new Int8[before]);
                const uint32_t n =
                    ring.getFrame(out.get(), static_cast<Int8>(start), static_cast<Int8>(end));
                CHECK(same(out.get(), n, modelFrame(model, capacity, start, end)));
                break;
            }
            case 2: {
                const uint8_t shape = in.byte();
                const std::string head = delimiter(in, in.byte() % 44);
                const int tailMode = in.byte() % 10;  // 0: no tail, else tailMode - 1 bytes
                const std::string tail = delimiter(in, tailMode == 0 ? 0 : tailMode - 1);
                const bool peek = shape & 1;
                const std::string* headArg = (shape & 2) ? nullptr : &head;
                const std::string* tailArg = tailMode == 0 ? nullptr : &tail;
                std::unique_ptr<Int8[]> out(new Int8[before]);
                const uint32_t n =
                    ring.getMessage(out.get(), headArg ? headArg->c_str() : nullptr,
                                    tailArg ? tailArg->c_str() : nullptr, peek ? 1 : 0);
                size_t peekCount = 0;
                const std::string expected =
                    modelMessage(model, capacity, headArg, tailArg, peek, peekCount);
                CHECK(peek ? n == peekCount : same(out.get(), n, expected));
                break;
            }
            case 3: {
                const uint32_t length = in.word() % static_cast<uint32_t>(capacity + 16);
                std::unique_ptr<Int8[]> out(new Int8[length]);
                const uint32_t n = ring.takeData(out.get(), length);
                const size_t expected = length < before ? length : before;
                CHECK(n == expected);
                CHECK(same(out.get(), n, std::string(model.begin(), model.begin() + n)));
                model.erase(model.begin(), model.begin() + n);
                break;
            }
            case 4: {
                std::unique_ptr<Int8[]> out(new Int8[before]);
                CHECK(same(out.get(), ring.getData(out.get()),
                           std::string(model.begin(), model.end())));
                model.clear();
                break;
            }
            default:
                CHECK(ring.clear() == 0);
                model.clear();
                break;
        }
        CHECK(ring.getDataSize() == model.size());
        CHECK(ring.getFreeSize() == capacity - model.size());
    }
    std::unique_ptr<Int8[]> rest(new Int8[model.size()]);
    CHECK(same(rest.get(), ring.getData(rest.get()), std::string(model.begin(), model.end())));
    return 0;
}
