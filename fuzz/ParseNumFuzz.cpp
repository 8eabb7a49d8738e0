// parseNum on arbitrary text against the reference model: ParseException exactly where the
// model says, the model's value everywhere else.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.hpp"
#include "Orvix/CppDataIO.hpp"
#include "models/ParseNumModel.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The library reads a C string: the text ends at its first NUL, as the model's does.
  const std::string text(reinterpret_cast<const char*>(data), size);
  const orvix_model::ParseNumExpected expected = orvix_model::parseNumModel(text);
  bool thrown = false;
  int64_t value = 0;
  try {
    value = parseNum(text.c_str());
  } catch (const ParseException& e) {
    thrown = true;
    FUZZ_REQUIRE(std::string(e.what()) == "ParseException", "what() " << e.what());
  }
  FUZZ_REQUIRE(thrown == expected.throws, orvix_fuzz::quoted(text));
  if (!thrown) FUZZ_REQUIRE(value == expected.value, orvix_fuzz::quoted(text) << " gave " << value
                                                         << ", model " << expected.value);
  return 0;
}
