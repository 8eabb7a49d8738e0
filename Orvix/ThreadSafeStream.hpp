// Console output of the library.
//
// my_printf writes to standard output without any lock (the library's "[WARN ..."/"[INFO ..."
// trace lines rely on the single write of one printf). safePrintf, safeCout and safeCerr share
// one process-wide recursive console lock, so a line on standard output and a line on standard
// error never interleave. A chain such as
//     safeCerr << "x" << n << std::endl;
// holds the lock from its first << until the returned tss::Internal temporary dies at the end of
// the full expression, so the chain comes out whole. The lock is recursive: code called inside a
// chain may write to safeCout or safeCerr itself. The lock is never held across a wait.
//
// Any thread may use all of it. A failure to take the console lock throws std::system_error.
#pragma once

#include <pthread.h>

#include <ostream>

namespace tss {

class ThreadSafeStream;

// The token one output chain holds; while any copy lives the console lock is held.
class Internal {
 public:
  // Locks the console lock.
  Internal(std::ostream& out, ThreadSafeStream& owner);
  // Copies the fields and locks once more.
  Internal(const Internal& other);
  Internal& operator=(const Internal&) = delete;
  // Unlocks once.
  virtual ~Internal();

  template <class T>
  Internal& operator<<(const T& value) {
    *out << value;
    return *this;
  }
  Internal& operator<<(std::ostream& (*manip)(std::ostream&));

 private:
  std::ostream* const out;
  pthread_mutex_t* const lock;
  ThreadSafeStream* const owner;
};

// A stream whose every << chain is written under the console lock.
class ThreadSafeStream {
 public:
  explicit ThreadSafeStream(std::ostream& target);
  virtual ~ThreadSafeStream();
  ThreadSafeStream(const ThreadSafeStream&) = delete;
  ThreadSafeStream& operator=(const ThreadSafeStream&) = delete;

  // Takes the lock, writes value, and hands the lock on to the returned token.
  template <class T>
  Internal operator<<(const T& value) {
    Internal token(target, *this);
    target << value;
    return token;
  }
  Internal operator<<(std::ostream& (*manip)(std::ostream&));

  std::ostream& target;
};

// The process-wide console lock (recursive, statically initialised).
pthread_mutex_t& consoleLock();

}  // namespace tss

// Serialised streams over std::cout and std::cerr.
extern tss::ThreadSafeStream safeCout;
extern tss::ThreadSafeStream safeCerr;

// vfprintf to standard output; no lock, no flush.
int my_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// vfprintf to standard output under the console lock.
int safePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
