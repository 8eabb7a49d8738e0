#include "Orvix/Startup.hpp"

#include <ios>

#include "CheckBuildVersion.h"
#include "Orvix/internal/StartupOrder.hpp"

static_assert(kOrvixBuildInterface == ORVIX_BUILD_INTERFACE,
              "the build-interface number of the library and of its build disagree");

void Orvix_constructor() { (void)checkBuildVersion(kOrvixBuildInterface); }

// GCC drops a constructor priority given on a definition whose declaration had none, so the
// registration is a separate function that does nothing else.
ORVIX_INIT_FUNCTION(ORVIX_INIT_BUILD_CHECK) static void runOrvixConstructorFirst() {
  Orvix_constructor();
}

// The standard streams are ready before any object of the library that may write to them.
static std::ios_base::Init orvixStreamsInit ORVIX_INIT_PRIORITY(ORVIX_INIT_STREAMS);
