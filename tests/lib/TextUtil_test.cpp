// Text utilities, including the quirks callers rely on: the field before the first dot is never
// converted, a lone trailing dot is consumed, and decimals are summed with single-precision FMAs.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "TextUtil.h"

namespace {

std::vector<uint64_t> dotted(const char* text, int32_t expectedCount) {
    std::vector<uint64_t> values(8, 777);
    EXPECT_EQ(parseDottedNumbers(text, values.data()), expectedCount) << text;
    values.resize(std::max(expectedCount, 0));
    return values;
}

TEST(ParseDottedNumbers, ConvertsOnlyTheFieldsAfterEachDot) {
    EXPECT_EQ(dotted("1.22.333", 2), (std::vector<uint64_t>{22, 333}));
    EXPECT_EQ(dotted("10.0.0.1", 3), (std::vector<uint64_t>{0, 0, 1}));
    uint64_t untouched = 5;
    EXPECT_EQ(parseDottedNumbers("12345", &untouched), 0);
    EXPECT_EQ(untouched, 5u);
    EXPECT_EQ(parseDottedNumbers(nullptr, &untouched), -1);
    EXPECT_EQ(parseDottedNumbers("1.2", nullptr), -1);
}

TEST(ParseDecimal, SignBlanksAndEndPosition) {
    struct Case {
        const char* text;
        float value;
        size_t consumed;
    };
    for (const Case& c : {Case{"  -12.5x", -12.5f, 7}, Case{"3.", 3.0f, 2}, Case{"+5", 0.0f, 0}}) {
        char* end = nullptr;
        EXPECT_EQ(parseDecimal(c.text, &end), c.value) << c.text;
        EXPECT_EQ(end, c.text + c.consumed) << c.text;
    }
    char marker = 0;
    char* end = &marker;
    EXPECT_EQ(parseDecimal(nullptr, &end), 0.0f);
    EXPECT_EQ(end, &marker);
}

// Values that tell the fused single-precision sums apart from separate rounding and from a
// correctly rounded conversion.
TEST(ParseDecimal, SumsWithSinglePrecisionFusedMultiplyAdd) {
    EXPECT_EQ(parseDecimal("167772153", nullptr), 0x1.4p+27f);  // unfused: 167772144
    EXPECT_EQ(parseDecimal("0.9", nullptr), 0x1.cccccep-1f);    // strtof: 0x1.cccccdp-1
    EXPECT_EQ(parseDecimal("9.87654321", nullptr), 0x1.3c0ca2p+3f);
}

}  // namespace
