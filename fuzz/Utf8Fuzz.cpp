// UTF-8 to wide and back under C.UTF-8 against the reference decoder and encoder.
//
// The first input byte picks the direction:
//   even: the rest is UTF-8. The library converts it only when the model says the conversion
//         ends without an assertion abort (complete, or an invalid sequence and Utf8Exception);
//         the wide result (the converted prefix on a throw) and the diagnostic line must match,
//         and a complete result converts back to the very same bytes;
//   odd:  the rest is wide characters, four bytes each (little-endian); the UTF-8 form must be
//         the model's (unencodable characters dropped), and it converts back as the model says.
#include <clocale>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include "FuzzSupport.hpp"
#include "Orvix/CppMystring.hpp"
#include "models/Utf8Model.hpp"

using orvix_fuzz::quoted;
using orvix_model::Utf8Outcome;
using tavo2::mystring;
using tavo2::mywstring;

namespace {

// The library's diagnostics go through safeCerr to std::cerr, whose buffer is this one; the
// fuzzer's own reports go to file descriptor 2 directly.
std::stringbuf diagnostics;

std::string takeDiagnostics() {
  std::string text = diagnostics.str();
  diagnostics.str(std::string());
  return text;
}

std::string hexWide(const std::wstring& w) {
  std::ostringstream os;
  for (wchar_t c : w) os << std::hex << static_cast<unsigned long>(static_cast<unsigned>(c)) << ' ';
  return os.str();
}

// Converts bytes (which the model says end without an abort) and compares with the model.
void bytesToWide(const std::string& bytes) {
  const orvix_model::Utf8Decoded expected = orvix_model::decodeUtf8(bytes);
  if (expected.outcome == Utf8Outcome::kTruncated || expected.outcome == Utf8Outcome::kNul) return;
  const mystring source(bytes.data(), bytes.data() + bytes.size());
  mywstring wide(L"previous");
  bool thrown = false;
  try {
    wide = source;
  } catch (const tavo2::Utf8Exception&) {
    thrown = true;
  }
  const std::string printed = takeDiagnostics();
  FUZZ_REQUIRE(thrown == (expected.outcome == Utf8Outcome::kInvalid), quoted(bytes));
  FUZZ_REQUIRE(wide == expected.wide, quoted(bytes) << " gave " << hexWide(wide) << ", model "
                                                    << hexWide(expected.wide));
  const std::string line = thrown ? std::string("mbrtowc: ") + std::strerror(EILSEQ) + "\n" : "";
  FUZZ_REQUIRE(printed == line, quoted(bytes) << " printed " << quoted(printed));
  // Every accepted form is the shortest one, so what was read comes back byte for byte.
  const mystring back(wide);
  FUZZ_REQUIRE(back == (thrown ? orvix_model::utf8(expected.wide) : bytes),
               quoted(bytes) << " came back as " << quoted(back));
}

void wideToBytes(const uint8_t* data, size_t size) {
  std::wstring wide;
  for (size_t i = 0; i + 4 <= size; i += 4) {
    const uint32_t c = static_cast<uint32_t>(data[i]) | static_cast<uint32_t>(data[i + 1]) << 8 |
                       static_cast<uint32_t>(data[i + 2]) << 16 |
                       static_cast<uint32_t>(data[i + 3]) << 24;
    wide += static_cast<wchar_t>(c);
  }
  const mystring bytes{mywstring(wide)};
  FUZZ_REQUIRE(takeDiagnostics().empty(), hexWide(wide));
  const std::string expected = orvix_model::utf8(wide);
  FUZZ_REQUIRE(bytes == expected, hexWide(wide) << " gave " << quoted(bytes) << ", model "
                                                << quoted(expected));
  bytesToWide(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) orvix_fuzz::fail("the locale C.UTF-8 is missing");
  std::cerr.rdbuf(&diagnostics);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0)
    bytesToWide(std::string(reinterpret_cast<const char*>(data + 1), size - 1));
  else
    wideToBytes(data + 1, size - 1);
  return 0;
}
