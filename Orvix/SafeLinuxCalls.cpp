#include "Orvix/SafeLinuxCalls.hpp"

#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace util {
namespace {

constexpr const char* kUnit = "Orvix/SafeLinuxCalls";

void printFailure(const char* funcName, const char* file, int line, int err) {
  char buffer[256];
  const char* description = strerror_r(err, buffer, sizeof buffer);
  safeCerr << funcName << " failed in " << file << ":" << line << " - (" << err << ") "
           << description << std::endl;
}

}  // namespace

int safe(const char* funcName, const char* file, int line, int linuxFuncResult, bool fatal) {
  if (linuxFuncResult != -1) return linuxFuncResult;
  printFailure(funcName, file, line, errno);
  if (fatal) ORVIX_ASSERT(linuxFuncResult != -1, "linuxFuncResult != -1", kUnit, 32);
  return linuxFuncResult;
}

int safePosix(const char* funcName, const char* file, int line, int posixFuncResult) {
  if (posixFuncResult == 0) return 0;
  errno = posixFuncResult;
  printFailure(funcName, file, line, posixFuncResult);
  ORVIX_ASSERT(posixFuncResult == 0, "posixFuncResult == 0", kUnit, 50);
  return posixFuncResult;
}

}  // namespace util

namespace orvix {
namespace ibuf {

void perror_errno(const char* what, int err) {
  const std::string text = std::string("\n**** ERROR - ") + what + ": " + strerror(err) + "\n\n";
  perror(text.c_str());
}

void setSchedHighest(pthread_t thread) {
  sched_param param{};
  param.sched_priority = 98;
  const int result = pthread_setschedparam(thread, SCHED_FIFO, &param);
  if (result != 0) perror_errno("pthread_setschedparam", result);
}

}  // namespace ibuf
}  // namespace orvix
