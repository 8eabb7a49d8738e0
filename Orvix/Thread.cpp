#include "Orvix/Thread.hpp"

#include <sched.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>

#include "Orvix/GeneralException.hpp"
#include "Orvix/OrvixAssert.hpp"
#include "Orvix/TimeSpec.hpp"
#include "Orvix/internal/ThreadKey.hpp"

namespace util {

namespace {
constexpr const char* kUnit = "Orvix/Thread";
}  // namespace

ThreadInternals::ThreadInternals(Thread* owner, const std::string& name)
    : state(TS_NEW), name(name), thread(0), owner(owner) {}

ThreadInternals::~ThreadInternals() {
  Lock lock(mutex);
  switch (state) {
    case TS_STARTING:
    case TS_CANCEL_REQUESTED:
    case TS_RUNNING:
    case TS_CANCELLED:
      std::cerr << "\n\n**** Thread must not be deleted while it is running!" << std::endl;
      abort();
    case TS_FINISHED: {
      const int result = pthread_join(thread, nullptr);
      if (result != 0) {
        GeneralExceptionThrower t(result);
        t.handle(ESRCH, "ESRCH");
        t.handle(EDEADLK, "EDEADLK");
        t.handle(EINVAL, "EINVAL");
        t.writeNow("in pthread_join in ~ThreadInternals", std::cerr);
      }
      break;
    }
    default:  // TS_NEW, TS_FAILED: nothing to reap
      break;
  }
}

bool ThreadInternals::started() {
  Lock lock(mutex);
  switch (state) {
    case TS_STARTING:
      state = TS_RUNNING;
      return true;
    case TS_CANCEL_REQUESTED:
      state = TS_CANCELLED;
      return false;
    default:
      std::cerr << "Unexpected state in ThreadInternals::started: " << state << "\n" << std::flush;
      return true;
  }
}

void ThreadInternals::runFinished() {
  Lock lock(mutex);
  if (state == TS_RUNNING || state == TS_CANCELLED) {
    state = TS_FINISHED;
    cond.broadcast();
    return;
  }
  const std::string msg = "Unexpected state in runFinished: " + std::to_string(state);
  std::cerr << msg << std::endl;
  state = TS_FAILED;
  cond.broadcast();
  throw GeneralException(msg);
}

void* pthreadFunc(void* internals) {
  auto* in = static_cast<ThreadInternals*>(internals);
  const int result = pthread_setspecific(gl_threadKey.key, internals);
  if (result != 0) {
    // The body still runs; only current() and the end bookkeeping are lost.
    GeneralExceptionThrower t(result);
    t.handle(ENOMEM, "ENOMEM");
    t.handle(EINVAL, "EINVAL");
    t.writeNow(" in pthread_setspecific in Thread::start", std::cerr);
  }
  if (!in->started()) return nullptr;
  in->owner->run();
  return nullptr;
}

Thread::Thread(const std::string& name) : internals(this, name) {}

Thread::~Thread() = default;

int Thread::getState() const { return internals.state; }

Thread* Thread::current() {
  auto* in = static_cast<ThreadInternals*>(pthread_getspecific(gl_threadKey.key));
  return in == nullptr ? nullptr : in->owner;
}

void Thread::start(int stackSize, int priority, int policy) {
  Lock lock(internals.mutex);
  if (internals.state != TS_NEW)
    throw GeneralException("Cannot start thread that has already been started!", false);
  pthread_attr_t attributes;
  pthread_attr_t* used = nullptr;
  if (stackSize == -1 && priority == -1) {
    internals.state = TS_STARTING;
  } else {
    pthread_attr_init(&attributes);
    if (stackSize != -1) pthread_attr_setstacksize(&attributes, static_cast<size_t>(stackSize));
    if (policy != -1 && priority != -1) {
      const int schedPolicy = policy;
      pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
      int result = pthread_attr_setschedpolicy(&attributes, schedPolicy);
      ORVIX_ASSERT(!result, "!result", kUnit, __LINE__);
      int checkPolicy = -1;
      result = pthread_attr_getschedpolicy(&attributes, &checkPolicy);
      ORVIX_ASSERT(!result, "!result", kUnit, __LINE__);
      ORVIX_ASSERT(checkPolicy == schedPolicy, "checkPolicy == schedPolicy", kUnit, __LINE__);
      sched_param param{};
      param.sched_priority = priority;
      result = pthread_attr_setschedparam(&attributes, &param);
      ORVIX_ASSERT(!result, "!result", kUnit, __LINE__);
    }
    internals.state = TS_STARTING;
    used = &attributes;
  }
  ORVIX_ASSERT(gl_threadKey.valid, "keyCreated", kUnit, __LINE__);
  const int result = pthread_create(&internals.thread, used, pthreadFunc, &internals);
  if (used != nullptr) pthread_attr_destroy(used);
  if (result != 0) {
    internals.state = TS_FAILED;
    internals.cond.broadcast();
    GeneralExceptionThrower t(result);
    t.handle(EAGAIN, "EAGAIN");
    t.handle(EINVAL, "EINVAL");
    t.handle(EPERM, "EPERM");
    t.throwNow(" in pthread_create");
  }
}

void Thread::cancel() {
  Lock lock(internals.mutex);
  switch (internals.state) {
    case TS_STARTING:
      internals.state = TS_CANCEL_REQUESTED;
      break;
    case TS_RUNNING: {
      const int result = pthread_cancel(internals.thread);
      if (result == 0) {
        internals.state = TS_CANCELLED;
        break;
      }
      internals.state = TS_FAILED;
      internals.cond.broadcast();
      GeneralExceptionThrower t(result);
      t.handle(ESRCH, "ESRCH");
      t.throwNow("in pthread_cancel in Thread::cancel in state RUNNING");
    }
    default:
      break;
  }
}

void Thread::join() {
  Lock lock(internals.mutex);
  while (internals.state != TS_FINISHED && internals.state != TS_FAILED) lock.wait(internals.cond);
}

std::ostream& Thread::out() const {
  TimeSpec now;
  now.initNow(CLOCK_MONOTONIC);
  std::cout << "[" << internals.name << " " << now.toShortString() << "] ";
  return std::cout;
}

void Thread::msleep(int ms) {
  TimeSpec duration;
  duration.initFromMs(ms);
  const int result = nanosleep(duration.to_c(), nullptr);
  if (result != 0) {
    // The return value, not errno, goes to the thrower: the message is always
    // "Unexpected errno (-1) ...", as it has always been.
    GeneralExceptionThrower t(result);
    t.handle(EINTR, "EINTR");
    t.handle(EINVAL, "EINVAL");
    t.handle(ENOSYS, "ENOSYS");
    t.throwNow("in nanosleep in Thread::msleep");
  }
}

}  // namespace util
