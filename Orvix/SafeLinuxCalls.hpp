// Checked system calls and loud warnings.
//
// util::safe and util::safePosix check the result of a system call and, on failure, print one
// line on safeCerr (held for the whole line, so lines of different threads never mix):
//   "<funcName> failed in <file>:<line> - (<errno>) <strerror_r text>"
// util::safe then returns -1 or aborts (fatal); util::safePosix always aborts. Call sites pass
// their own full signature, unit file text and line.
//
// orvix::ibuf::perror_errno prints a warning and returns; setSchedHighest reports its failure
// that way. All functions are reentrant.
#pragma once

#include <pthread.h>

namespace util {

// For calls that return -1 and set errno. Returns linuxFuncResult unless it is -1; then prints
// the line and, when fatal, fails "linuxFuncResult != -1" (Orvix/SafeLinuxCalls:32).
int safe(const char* funcName, const char* file, int line, int linuxFuncResult, bool fatal);

// For calls that return an error number. Returns 0 for 0; otherwise stores the number in errno,
// prints the line and fails "posixFuncResult == 0" (Orvix/SafeLinuxCalls:50).
int safePosix(const char* funcName, const char* file, int line, int posixFuncResult);

}  // namespace util

namespace orvix {
namespace ibuf {

// perror("\n**** ERROR - <what>: <strerror(err)>\n\n"): perror appends the text of the current
// errno, so the output names an error twice on purpose.
void perror_errno(const char* what, int err);

// SCHED_FIFO at priority 98 for thread; a failure is printed by perror_errno and ignored.
void setSchedHighest(pthread_t thread);

}  // namespace ibuf
}  // namespace orvix
