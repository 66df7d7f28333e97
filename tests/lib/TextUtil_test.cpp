// Text utilities, including the quirks callers rely on: the field before the first dot is never
// converted, a lone trailing dot is consumed, and decimals are summed with single-precision FMAs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "TextUtil.h"

namespace {

TEST(ParseDottedNumbers, ConvertsOnlyTheFieldsAfterEachDot) {
    uint64_t values[8];
    std::fill(std::begin(values), std::end(values), 777u);
    EXPECT_EQ(parseDottedNumbers("1.22.333", values), 2);
    EXPECT_EQ(values[0], 22u);
    EXPECT_EQ(values[1], 333u);
    EXPECT_EQ(values[2], 777u);

    EXPECT_EQ(parseDottedNumbers("10.0.0.1", values), 3);
    EXPECT_EQ(values[0], 0u);
    EXPECT_EQ(values[1], 0u);
    EXPECT_EQ(values[2], 1u);

    // Every dot yields a number, also where nothing numeric follows it.
    EXPECT_EQ(parseDottedNumbers("a..x.18446744073709551615", values), 3);
    EXPECT_EQ(values[0], 0u);
    EXPECT_EQ(values[1], 0u);
    EXPECT_EQ(values[2], UINT64_MAX);
}

TEST(ParseDottedNumbers, NoDotOrNullArguments) {
    uint64_t values[2] = {5, 6};
    EXPECT_EQ(parseDottedNumbers("12345", values), 0);
    EXPECT_EQ(parseDottedNumbers("", values), 0);
    EXPECT_EQ(values[0], 5u);
    EXPECT_EQ(parseDottedNumbers(nullptr, values), -1);
    EXPECT_EQ(parseDottedNumbers("1.2", nullptr), -1);
}

TEST(ParseDecimal, SignBlanksAndEndPosition) {
    const char* text = "  -12.5x";
    char* end = nullptr;
    EXPECT_EQ(parseDecimal(text, &end), -12.5f);
    EXPECT_EQ(end, text + 7);

    const char* trailingDot = "3.";
    EXPECT_EQ(parseDecimal(trailingDot, &end), 3.0f);
    EXPECT_EQ(end, trailingDot + 2);

    const char* plus = "+5";  // not a sign this reader knows
    EXPECT_EQ(parseDecimal(plus, &end), 0.0f);
    EXPECT_EQ(end, plus);

    const char* exponent = "2e3";
    EXPECT_EQ(parseDecimal(exponent, &end), 2.0f);
    EXPECT_EQ(end, exponent + 1);

    EXPECT_EQ(parseDecimal("\t\n 42", nullptr), 42.0f);
}

TEST(ParseDecimal, NullTextLeavesEndAlone) {
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
