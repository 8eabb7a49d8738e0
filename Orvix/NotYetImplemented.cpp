#include "Orvix/NotYetImplemented.hpp"

#include <cstdlib>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace nyi {

namespace {
constexpr const char* kUnit = "Orvix/NotYetImplemented";
}  // namespace

void nyi(const char* what) {
  safeCerr << ">>> NOT YET IMPLEMENTED: " << what << std::endl;
  ORVIX_ASSERT(false, "false", kUnit, 27);
  std::abort();  // __assert_fail does not return; this tells the compiler so
}

}  // namespace nyi
