#include "Orvix/ThreadSafeStream.hpp"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <system_error>

#include "Orvix/internal/StartupOrder.hpp"

namespace tss {
namespace {

// Statically initialised so that it works before and after every constructor of the library.
pthread_mutex_t gl_consoleLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

void lockConsole(pthread_mutex_t* lock) {
  const int result = pthread_mutex_lock(lock);
  if (result != 0) throw std::system_error(result, std::system_category());
}

}  // namespace

pthread_mutex_t& consoleLock() { return gl_consoleLock; }

Internal::Internal(std::ostream& out, ThreadSafeStream& owner)
    : out(&out), lock(&gl_consoleLock), owner(&owner) {
  lockConsole(lock);
}

Internal::Internal(const Internal& other) : out(other.out), lock(other.lock), owner(other.owner) {
  lockConsole(lock);
}

Internal::~Internal() { pthread_mutex_unlock(lock); }

Internal& Internal::operator<<(std::ostream& (*manip)(std::ostream&)) {
  manip(*out);
  return *this;
}

ThreadSafeStream::ThreadSafeStream(std::ostream& target) : target(target) {}

ThreadSafeStream::~ThreadSafeStream() = default;

Internal ThreadSafeStream::operator<<(std::ostream& (*manip)(std::ostream&)) {
  Internal token(target, *this);
  manip(target);
  return token;
}

}  // namespace tss

tss::ThreadSafeStream safeCout ORVIX_INIT_PRIORITY(ORVIX_INIT_CONSOLE)(std::cout);
tss::ThreadSafeStream safeCerr ORVIX_INIT_PRIORITY(ORVIX_INIT_CONSOLE)(std::cerr);

int my_printf(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int result = vfprintf(stdout, format, ap);
  va_end(ap);
  return result;
}

int safePrintf(const char* format, ...) {
  tss::lockConsole(&tss::gl_consoleLock);
  va_list ap;
  va_start(ap, format);
  const int result = vfprintf(stdout, format, ap);
  va_end(ap);
  pthread_mutex_unlock(&tss::gl_consoleLock);
  return result;
}
