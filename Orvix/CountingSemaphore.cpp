#include "Orvix/CountingSemaphore.hpp"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>

#include "Orvix/GeneralException.hpp"
#include "Orvix/SafeLinuxCalls.hpp"
#include "Orvix/internal/Config.hpp"

namespace util {

namespace {

// The unit's name and the signatures its checked calls report.
constexpr const char* kUnit = "Orvix/CountingSemaphore";
constexpr const char* kSigConstructor = "util::CountingSemaphore::CountingSemaphore(int)";
constexpr const char* kSigDestructor = "virtual util::CountingSemaphore::~CountingSemaphore()";
constexpr const char* kSigDoWait = "void util::CountingSemaphore::doWait(const util::TimeSpec*)";
constexpr const char* kSigPost = "void util::CountingSemaphore::post()";
constexpr const char* kSigGetValue = "int util::CountingSemaphore::getValue()";

// The entry check of wait and post on the state read under the mutex: once destruction has
// begun the caller leaves with the exception; on a destroyed object the process ends. operation
// is "wait" or "post". Returns true (go on) for an active semaphore.
bool admit(int state, const char* operation) {
  switch (state) {
    case CountingSemaphore::CS_DELETING:
      throw CountingSemaphoreDeletingException();
    case CountingSemaphore::CS_DELETED:
      // One piece, as the line has always been written to the unbuffered stream.
      std::cerr << std::string("Illegal state CS_DELETED in CountingSemaphore::") + operation
                << std::endl;
      abort();
    default:
      return true;
  }
}

}  // namespace

// wait and post must still reach their CS_DELETED check when called on a destroyed object whose
// memory is readable; the sanitizer's dynamic-type check would stop them first, so it is off for
// exactly these entry points.
#define ORVIX_CALLABLE_AFTER_DESTRUCTION ORVIX_NO_SANITIZE_VPTR

CountingSemaphoreDeletingException::~CountingSemaphoreDeletingException() = default;

CountingSemaphore::CountingSemaphore(int value) : state(CS_ACTIVE), waiters(0) {
  safe(kSigConstructor, kUnit, 32, sem_init(&sem, 0, static_cast<unsigned>(value)), true);
}

CountingSemaphore::~CountingSemaphore() {
  {
    Lock lock(mutex);
    state = CS_DELETING;
    if (waiters > 0) {
      // One unit per waiter; waiters cannot change meanwhile, the mutex is held.
      int posts = 0;
      do {
        const int result = safe(kSigDestructor, kUnit, 59, sem_post(&sem), true);
        // safe has dealt with -1; only a number outside the call's contract comes here.
        if (result != 0 && result != -1) {
          GeneralExceptionThrower t(result);
          t.handle(EINVAL, "EINVAL");
          t.writeNow("in sem_post of ~CountingSemaphore", std::cerr);
        }
        ++posts;
      } while (posts < waiters);
    }
    // The last waiter to leave signals.
    while (waiters > 0) lock.wait(cond);
    state = CS_DELETED;
  }
  const int result = safe(kSigDestructor, kUnit, 78, sem_destroy(&sem), true);
  if (result != 0 && result != -1) {
    std::cerr << "sem_destroy failed with errno=" << std::dec << errno << "\n" << std::flush;
  }
}

ORVIX_CALLABLE_AFTER_DESTRUCTION void CountingSemaphore::wait() { doWait(nullptr); }

ORVIX_CALLABLE_AFTER_DESTRUCTION void CountingSemaphore::timedwait(const TimeSpec& deadline) {
  doWait(&deadline);
}

ORVIX_CALLABLE_AFTER_DESTRUCTION bool CountingSemaphore::prepareWait() {
  // Locked by hand rather than with a Lock, which the sanitizer would check on a destroyed object.
  mutex.lock();
  const int current = state;
  if (current == CS_ACTIVE) ++waiters;
  mutex.unlock();
  return admit(current, "wait");
}

ORVIX_CALLABLE_AFTER_DESTRUCTION void CountingSemaphore::doWait(const TimeSpec* deadline) {
  // Never taken: prepareWait answers true or leaves by exception or abort. Kept because the
  // step's bool result is public and a caller may rely on its meaning.
  if (!prepareWait()) return;
  int result;
  if (deadline == nullptr) {
    result = safe(kSigDoWait, kUnit, 147, sem_wait(&sem), true);
  } else {
    result = sem_timedwait(&sem, deadline->to_c());
    if (result == -1) result = errno;
  }
  {
    Lock lock(mutex);
    --waiters;
    switch (state) {
      case CS_DELETING:
        if (waiters == 0) cond.signal();
        throw CountingSemaphoreDeletingException();
      case CS_DELETED:
        // Not seen here: the destructor waits for this waiter. Kept so every state has its answer.
        throw CountingSemaphoreDeletingException();
      default:
        break;
    }
  }
  if (result == 0) return;
  if (result == ETIMEDOUT) throw TimedOutException();
  GeneralExceptionThrower t(result);
  t.handle(EDEADLK, "EDEADLK");
  t.handle(EINTR, "EINTR");
  t.handle(EINVAL, "EINVAL");
  t.throwNow("in sem_wait of CountingSemaphore::wait");
}

bool CountingSemaphore::tryDown() {
  int result = sem_trywait(&sem);
  if (result == -1) result = errno;
  if (result == 0) return true;
  if (result == EAGAIN) return false;
  GeneralExceptionThrower t(result);
  t.handle(EDEADLK, "EDEADLK");
  t.handle(EINTR, "EINTR");
  // Spelt so at this one site; the text is kept as it has always been.
  t.handle(EINVAL, "EINVVAL");
  t.throwNow("in sem_trywait in CountingSemaphore::tryDown");
}

ORVIX_CALLABLE_AFTER_DESTRUCTION bool CountingSemaphore::preparePost() {
  mutex.lock();  // by hand, as in prepareWait
  const int current = state;
  mutex.unlock();
  return admit(current, "post");
}

ORVIX_CALLABLE_AFTER_DESTRUCTION void CountingSemaphore::post() {
  if (!preparePost()) return;  // never taken, as in doWait
  const int result = safe(kSigPost, kUnit, 230, sem_post(&sem), true);
  if (result != 0 && result != -1) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.writeNow("in sem_post of CountingSemaphore::post", std::cerr);
  }
}

int CountingSemaphore::getValue() {
  int value = 0;
  const int result = safe(kSigGetValue, kUnit, 251, sem_getvalue(&sem, &value), true);
  if (result != 0 && result != -1) {
    GeneralExceptionThrower t(result);
    t.handle(EINVAL, "EINVAL");
    t.throwNow("in sem_getvalue in CountingSemaphore::getValue");
  }
  return value < 0 ? 0 : value;
}

int CountingSemaphore::waitingThreads() {
  Lock lock(mutex);
  return waiters;
}

}  // namespace util
