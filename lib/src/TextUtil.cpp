// Dot-separated number lists and a small single-precision decimal reader.
#include "TextUtil.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>

int32_t parseDottedNumbers(const char* text, uint64_t* values) {
    if (text == nullptr || values == nullptr) return -1;
    int32_t count = 0;
    for (const char* dot = std::strchr(text, '.'); dot != nullptr;
         dot = std::strchr(dot + 1, '.')) {
        values[count++] = std::strtoul(dot + 1, nullptr, 10);
    }
    return count;
}

float parseDecimal(const char* text, char** end) {
    if (text == nullptr) return 0.0f;
    const char* p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    float sign = 1.0f;
    if (*p == '-') {
        sign = -1.0f;
        ++p;
    }
    float value = 0.0f;
    while (std::isdigit(static_cast<unsigned char>(*p))) {
        value = std::fmaf(value, 10.0f, static_cast<float>(*p - '0'));
        ++p;
    }
    if (*p == '.') {
        ++p;
        float weight = 1.0f;
        while (std::isdigit(static_cast<unsigned char>(*p))) {
            // The weight is scaled in double and rounded back to single on every digit.
            weight = static_cast<float>(static_cast<double>(weight) * 0.1);
            value = std::fmaf(static_cast<float>(*p - '0'), weight, value);
            ++p;
        }
    }
    if (end != nullptr) *end = const_cast<char*>(p);
    return value * sign;
}
