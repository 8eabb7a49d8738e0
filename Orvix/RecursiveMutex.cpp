#include "Orvix/RecursiveMutex.hpp"

#include <cerrno>
#include <cstdlib>
#include <iostream>

#include "Orvix/GeneralException.hpp"

namespace util {

RecursiveMutex::RecursiveMutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

RecursiveMutex::~RecursiveMutex() {
  const int result = pthread_mutex_destroy(&mutex);
  if (result == 0) return;
  const char* description = "";
  switch (result) {
    case EBUSY:
      description = "EBUSY in pthread_mutex_destroy";
      break;
    case EINVAL:
      description = "EINVAL in pthread_mutex_destroy";
      break;
    case EPERM:
      description = "EPERM in pthread_mutex_destroy";
      break;
    default:
      // Any other number leaves the line without a description.
      break;
  }
  std::cerr << "FATAL ERROR: " << description << std::endl;
  exit(1);
}

int RecursiveMutex::lock() { return pthread_mutex_lock(&mutex); }

int RecursiveMutex::unlock() { return pthread_mutex_unlock(&mutex); }

WaitCond::WaitCond() {
  pthread_condattr_t attr;
  int result = pthread_condattr_init(&attr);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.handle(EBUSY, "EBUSY");
    t.handle(ENOMEM, "ENOMEM");
    t.throwNow(" in pthread_condattr_init");
  }
  result = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.throwNow(" in pthread_condattr_setclock");
  }
  result = pthread_cond_init(&cond, &attr);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.handle(EBUSY, "EBUSY");
    t.handle(ENOMEM, "ENOMEM");
    t.throwNow(" in pthread_cond_init");
  }
  result = pthread_condattr_destroy(&attr);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.throwNow(" in pthread_condattr_destroy");
  }
}

WaitCond::~WaitCond() {
  const int result = pthread_cond_destroy(&cond);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.writeNow(" in pthread_cond_destroy", std::cerr);
  }
}

void WaitCond::signal() {
  const int result = pthread_cond_signal(&cond);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.handle(EPERM, "EPERM");
    t.throwNow(" in pthread_cond_signal");
  }
}

void WaitCond::broadcast() {
  const int result = pthread_cond_broadcast(&cond);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.handle(EPERM, "EPERM");
    t.throwNow(" in pthread_cond_broadcast");
  }
}

void WaitCond::wait(RecursiveMutex& m) {
  const int result = pthread_cond_wait(&cond, &m.mutex);
  if (result != 0) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.handle(EPERM, "EPERM");
    t.throwNow(" in pthread_cond_wait");
  }
}

void WaitCond::timedwait(RecursiveMutex& m, const TimeSpec& deadline) {
  const int result = pthread_cond_timedwait(&cond, &m.mutex, deadline.to_c());
  if (result == 0) return;
  if (result == ETIMEDOUT) throw TimedOutException();
  GeneralExceptionThrower t(result);
  t.handle(EPERM, "EPERM");
  t.handle(EINVAL, "EINVAL");
  // Never matches (ETIMEDOUT is thrown above); listed with the call's documented errors.
  t.handle(ETIMEDOUT, "ETIMEDOUT");
  t.throwNow(" in pthread_cond_timedwait");
}

Lock::Lock(RecursiveMutex& m) : mutex(m) { mutex.lock(); }

// noexcept: an exception while unlocking ends the process.
Lock::~Lock() { mutex.unlock(); }

void Lock::wait(WaitCond& c) { c.wait(mutex); }

void Lock::timedwait(WaitCond& c, const TimeSpec& deadline) { c.timedwait(mutex, deadline); }

}  // namespace util
