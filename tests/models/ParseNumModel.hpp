// Reference model of parseNum: hexadecimal after "0x"/"0X" (three characters at least), junk
// skipped, the value modulo 2^64; otherwise decimal with an optional leading minus, any other
// character a ParseException, the value modulo 2^64. Computed by chunks with std::from_chars
// rather than digit by digit.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>

namespace orvix_model {

// The value of a digit string modulo 2^64, by chunks of up to 19 digits (which never overflow).
inline uint64_t decimalModulo(const std::string& digits) {
  uint64_t value = 0;
  for (std::size_t at = 0; at < digits.size();) {
    const std::size_t length = std::min<std::size_t>(19, digits.size() - at);
    uint64_t chunk = 0;
    std::from_chars(digits.data() + at, digits.data() + at + length, chunk);
    uint64_t scale = 1;
    for (std::size_t k = 0; k < length; ++k) scale *= 10;
    value = value * scale + chunk;
    at += length;
  }
  return value;
}

inline bool isHexDigit(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The hex digits of body without the junk, the last sixteen of them as the value.
inline uint64_t hexModulo(const std::string& body) {
  std::string digits;
  for (unsigned char c : body)
    if (isHexDigit(c)) digits.push_back(static_cast<char>(c));
  if (digits.size() > 16) digits.erase(0, digits.size() - 16);
  uint64_t value = 0;
  if (!digits.empty()) std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  return value;
}

struct ParseNumExpected {
  bool throws = false;  // ParseException
  int64_t value = 0;    // when it does not throw
};

// What parseNum answers for text (a C string: it ends at its first NUL, if any).
inline ParseNumExpected parseNumModel(std::string text) {
  text = text.c_str();
  ParseNumExpected r;
  if (text.size() >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    r.value = static_cast<int64_t>(hexModulo(text.substr(2)));
    return r;
  }
  const bool negative = !text.empty() && text[0] == '-';
  const std::string digits = text.substr(negative ? 1 : 0);
  if (digits.find_first_not_of("0123456789") != std::string::npos) {
    r.throws = true;
    return r;
  }
  const uint64_t magnitude = decimalModulo(digits);
  r.value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  return r;
}

}  // namespace orvix_model
