// Small text parsers of the framework library: dot-separated numbers and a plain decimal reader.
#pragma once

#include <cstdint>

// Converts the field after each dot with strtoul (base 10) into values[0], values[1], ...; the
// field before the first dot is not converted ("1.22.333" stores 22 and 333 and returns 2).
// values must have room for one number per dot. Returns the count stored, 0 without a dot, -1
// when an argument is null.
int32_t parseDottedNumbers(const char* text, uint64_t* values);

// Reads [blanks][-]digits[.digits] in single precision with fused multiply-adds; no plus sign, no
// exponent, no error report. A dot without a digit after it still counts as consumed. end, when
// given (and text is not null), receives the first character not consumed.
float parseDecimal(const char* text, char** end);
