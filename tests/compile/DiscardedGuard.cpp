// Not part of any test program: CTest runs the compiler on this file (tests/CMakeLists.txt).
// With ORVIX_DISCARD_GUARD or ORVIX_DISCARD_UNGUARD it must fail, because a guard made and
// dropped in one statement locks and unlocks at once; without either it must compile.
#include "Orvix/CppSyncLockGroup.hpp"

int guardedIncrement(orvix::sync::LockGroup& group, int& counter) {
#if defined(ORVIX_DISCARD_GUARD)
  ORVIX_GUARD(group);
#else
  auto guard = ORVIX_GUARD(group);
#endif
  ++counter;
  {
#if defined(ORVIX_DISCARD_UNGUARD)
    group.unguard(__FILE__, __LINE__);
#else
    auto unguard = group.unguard(__FILE__, __LINE__);
#endif
  }
  return counter;
}
