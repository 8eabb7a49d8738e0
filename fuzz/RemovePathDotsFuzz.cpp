// removePathDots against the model of its transition table. The library is called only on the
// inputs the model says end without an assertion abort; result and string must match.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.hpp"
#include "Orvix/CppRemovePathDots.hpp"
#include "models/RemovePathDotsModel.hpp"

using orvix_model::PathDotsOutcome;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const orvix_model::PathDotsModeled expected = orvix_model::removePathDotsModel(input);
  if (expected.outcome != PathDotsOutcome::kTrue && expected.outcome != PathDotsOutcome::kFalse)
    return 0;
  std::string path = input;
  const bool result = removePathDots(path);
  FUZZ_REQUIRE(result == (expected.outcome == PathDotsOutcome::kTrue),
               orvix_fuzz::quoted(input) << " gave " << result);
  FUZZ_REQUIRE(path == expected.text, orvix_fuzz::quoted(input) << " became "
                                          << orvix_fuzz::quoted(path) << ", model "
                                          << orvix_fuzz::quoted(expected.text));
  return 0;
}
