#include "Orvix/NotYetImplemented.hpp"

#include <cstdlib>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace nyi {

void nyi(const char* what) {
  safeCerr << ">>> NOT YET IMPLEMENTED: " << what << std::endl;
  ORVIX_ASSERT(false, "false", "Orvix/NotYetImplemented", 27);
  std::abort();  // __assert_fail does not return; this tells the compiler so
}

}  // namespace nyi
