// Precondition checks of the library.
//
// Assertions stay active whatever NDEBUG says: a broken precondition on the controller must stop
// the process with a readable line, not run on. The report goes through glibc's __assert_fail,
// so it has the standard form
//   prog: <file>:<line>: <function>: Assertion `<expression>' failed.
// and the process aborts. The texts are part of the library's contract, which is why the call
// sites give file, line and expression text explicitly instead of taking them from the
// preprocessor:
//   file      "Orvix/<Unit>" for a .cpp unit, the header path for a header;
//   line      the line the contract gives for that assertion;
//   function  the full signature (__PRETTY_FUNCTION__ unless the contract quotes another text).
#pragma once

#include <sys/cdefs.h>

// glibc's reporter; declared here because <assert.h> hides it when NDEBUG is set.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) __THROW __attribute__((__noreturn__));

// Checks cond; on failure reports text (the asserted expression as written in the contract).
#define ORVIX_ASSERT_AT(cond, text, file, line, function) \
  ((cond) ? static_cast<void>(0) : __assert_fail(text, file, line, function))

// The common form: the unit's file text, the given line, this function's full signature.
#define ORVIX_ASSERT(cond, text, file, line) \
  ORVIX_ASSERT_AT(cond, text, file, line, __PRETTY_FUNCTION__)
