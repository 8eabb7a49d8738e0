// Shared by the fuzz targets: a failed comparison with the reference model prints what differed
// and aborts, which libFuzzer reports as a crash and saves the input that caused it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace orvix_fuzz {

[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "==== differs from the model: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

// Printable form of arbitrary bytes, for failure messages.
inline std::string quoted(const std::string& bytes) {
  std::ostringstream os;
  os << '"';
  for (unsigned char c : bytes) {
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      os << static_cast<char>(c);
    } else {
      static const char* kHex = "0123456789abcdef";
      os << "\\x" << kHex[c >> 4] << kHex[c & 15];
    }
  }
  os << '"';
  return os.str();
}

}  // namespace orvix_fuzz

// Fails with the condition's text and the context, which is built only on failure.
#define FUZZ_REQUIRE(cond, context)                                                         \
  do {                                                                                      \
    if (!(cond)) {                                                                          \
      std::ostringstream fuzzRequireContext_;                                               \
      fuzzRequireContext_ << context;                                                       \
      ::orvix_fuzz::fail(std::string(#cond) + " (" + fuzzRequireContext_.str() + ")");      \
    }                                                                                       \
  } while (0)
