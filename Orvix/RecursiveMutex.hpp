// The first-generation mutex, condition and scope lock.
//
// util::RecursiveMutex is a POSIX mutex the owning thread may lock again. util::WaitCond is a
// condition variable whose timed wait runs on CLOCK_MONOTONIC, so its deadlines ignore changes
// of the wall clock: build them with TimeSpec::initNow(CLOCK_MONOTONIC) plus the wait time.
// util::Lock holds a RecursiveMutex for its scope and waits on a WaitCond with it.
//
// Any thread may use them; signal and broadcast may be called with or without the mutex held.
// Failures of the condition's calls throw util::GeneralException (built by
// util::GeneralExceptionThrower, which prints its warning line); a passed deadline throws the
// silent util::TimedOutException. Lock and unlock results are handed back unexamined.
// Destructors never throw: a mutex that cannot be destroyed (still locked) prints
// "FATAL ERROR: <description>" on std::cerr and ends the process with exit(1); a condition that
// cannot be destroyed prints its message on std::cerr and carries on.
#pragma once

#include <pthread.h>

#include "Orvix/TimeSpec.hpp"

namespace util {

class WaitCond;

// A recursive POSIX mutex.
class RecursiveMutex {
 public:
  // Initialises a PTHREAD_MUTEX_RECURSIVE mutex; the results of the set-up calls are not
  // examined.
  RecursiveMutex();
  // Exits the process with status 1 when the mutex cannot be destroyed (see above).
  virtual ~RecursiveMutex();
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  // pthread_mutex_lock; its result is returned unexamined.
  int lock();
  // pthread_mutex_unlock; its result is returned unexamined.
  int unlock();

 private:
  friend class WaitCond;

  pthread_mutex_t mutex;
};

// A condition variable on CLOCK_MONOTONIC.
class WaitCond {
 public:
  // Throws GeneralException when one of the set-up calls fails.
  WaitCond();
  // A failure of pthread_cond_destroy is written to std::cerr; never throws.
  virtual ~WaitCond();
  WaitCond(const WaitCond&) = delete;
  WaitCond& operator=(const WaitCond&) = delete;

  // Wakes one waiter; throws GeneralException on failure.
  void signal();
  // Wakes all waiters; throws GeneralException on failure.
  void broadcast();
  // Waits with m, which the caller holds; throws GeneralException on failure.
  void wait(RecursiveMutex& m);
  // As wait, until the absolute CLOCK_MONOTONIC deadline; throws TimedOutException when it
  // passes (m is held again then), GeneralException on other failures.
  void timedwait(RecursiveMutex& m, const TimeSpec& deadline);

 private:
  pthread_cond_t cond;
};

// Holds a RecursiveMutex from construction to destruction. Always name it: Lock lock(m);
class [[nodiscard]] Lock {
 public:
  // Locks m.
  explicit Lock(RecursiveMutex& m);
  // Unlocks; an exception here terminates the process.
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // c.wait with the held mutex.
  void wait(WaitCond& c);
  // c.timedwait with the held mutex; TimedOutException reaches the caller with the lock held.
  void timedwait(WaitCond& c, const TimeSpec& deadline);

 private:
  RecursiveMutex& mutex;
};

}  // namespace util
