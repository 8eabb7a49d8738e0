// What the library does when it is loaded.
//
// Orvix_constructor is the library's first static initialiser: it calls
// checkBuildVersion(52) of libCheckBuildVersion and ignores the result (that library decides
// what a mismatch means). The library's process-wide objects follow in a fixed order and are
// destroyed in reverse at unload; the thread key of util::Thread is deleted after all of them.
#pragma once

// Build-interface number this library passes to checkBuildVersion.
constexpr int kOrvixBuildInterface = 52;

void Orvix_constructor();
