// A counting semaphore that may be destroyed while threads wait in it.
//
// util::CountingSemaphore wraps an unnamed, process-private POSIX semaphore. Its destructor
// wakes every thread blocked in wait or timedwait; each of them leaves with
// util::CountingSemaphoreDeletingException, and the destructor returns only after the last one
// has left, so the object's memory is never touched by a waiter after it is gone. A small state
// machine (CS_ACTIVE, CS_DELETING, CS_DELETED), guarded by the object's own mutex together with
// the count of waiters, does that hand-over; the semaphore operations themselves run without
// the mutex, so a waiter never blocks a poster or the destructor.
//
// Any thread may call anything but the destructor concurrently; tryDown and getValue bypass the
// state machine. Failures: broken system calls the library cannot continue from print a line
// through util::safe and abort; a passed deadline of timedwait throws the silent
// util::TimedOutException; other failures of a wait or of tryDown throw util::GeneralException
// (printing its warning line). wait and post on a destroyed object print
// "Illegal state CS_DELETED in CountingSemaphore::<wait|post>" on std::cerr and abort, where the
// memory is still readable at all.
#pragma once

#include <semaphore.h>

#include <exception>

#include "Orvix/RecursiveMutex.hpp"
#include "Orvix/TimeSpec.hpp"

namespace util {

// Thrown to every waiter and poster once the semaphore is being destroyed.
class CountingSemaphoreDeletingException : public std::exception {
 public:
  CountingSemaphoreDeletingException() = default;
  ~CountingSemaphoreDeletingException() override;
};

// A counting semaphore, safe to destroy under waiters (see above).
class CountingSemaphore {
 public:
  enum State { CS_ACTIVE = 0, CS_DELETING = 1, CS_DELETED = 2 };

  // Starts with value units; a failing sem_init prints and aborts.
  explicit CountingSemaphore(int value);
  // Wakes the waiters, waits until the last has left, then destroys the semaphore. Anything
  // thrown in here terminates the process.
  virtual ~CountingSemaphore();
  CountingSemaphore(const CountingSemaphore&) = delete;
  CountingSemaphore& operator=(const CountingSemaphore&) = delete;

  // Takes one unit, blocking as long as there is none. An interrupted sem_wait aborts.
  void wait();
  // As wait, until the absolute CLOCK_REALTIME deadline (it goes straight to sem_timedwait,
  // unlike the monotonic deadlines of WaitCond). TimedOutException when it passes;
  // GeneralException for anything else, a signal (EINTR) included: there is no retry.
  void timedwait(const TimeSpec& deadline);
  // Takes one unit if there is one; never blocks.
  bool tryDown();
  // Adds one unit; throws CountingSemaphoreDeletingException once destruction has begun.
  void post();
  // The current count, never below 0.
  int getValue();

  // The steps of wait and post; public, but meant for the class's own use.
  bool prepareWait();
  void doWait(const TimeSpec* deadline);
  bool preparePost();

  // The number of threads between the entry to a wait and its exit bookkeeping, read under the
  // mutex; for tests and diagnostics, which need to know that waiters are really inside.
  int waitingThreads();

 private:
  sem_t sem;
  int state;              // guarded by mutex
  RecursiveMutex mutex;
  WaitCond cond;          // the destructor waits here for waiters to leave; used with mutex
  int waiters;            // guarded by mutex
};

}  // namespace util
