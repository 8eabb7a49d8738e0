#include "Orvix/Startup.hpp"

#include <ios>

#include "CheckBuildVersion.h"
#include "Orvix/StartupOrder.hpp"

static_assert(kOrvixBuildInterface == ORVIX_BUILD_INTERFACE,
              "the build-interface number of the library and of its build disagree");

__attribute__((constructor(ORVIX_INIT_BUILD_CHECK))) void Orvix_constructor() {
  (void)checkBuildVersion(kOrvixBuildInterface);
}

// The standard streams are ready before any object of the library that may write to them.
static std::ios_base::Init orvixStreamsInit __attribute__((init_priority(ORVIX_INIT_STREAMS)));
