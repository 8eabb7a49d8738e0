// Marker for code paths that were never written.
//
// nyi::nyi prints ">>> NOT YET IMPLEMENTED: <what>" on safeCerr and fails the assertion
// "false" (Orvix/NotYetImplemented:27): reaching such a path stops the process.
#pragma once

namespace nyi {

[[noreturn]] void nyi(const char* what);

}  // namespace nyi
