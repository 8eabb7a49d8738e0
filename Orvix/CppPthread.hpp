// orvix::Pthread: a move-only owner of one POSIX thread with an explicit stack size and,
// optionally, an explicit scheduling policy and priority.
//
// A Pthread object belongs to one thread at a time; nothing in it is locked. The thread starts
// in the constructor and runs either a start function with one pointer argument or a callable
// without arguments; join() hands back what it returned.
//
// Failures: an illegal scheduling policy is an assertion failure; a failing attribute call,
// thread creation, join or detach prints through util::safePosix and aborts; join()/detach() on
// an object that owns no running thread throw std::system_error (ESRCH/EDEADLK from join, EINVAL
// from detach). Destroying or move-assigning onto an object that still owns a running, unjoined
// thread writes a German "FEHLER: " line to standard error and terminates the process.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <functional>

namespace orvix {

// The start routine handed to the operating system for every Pthread; p is the
// intern::InternThread record, which this function deletes before running the thread's body.
void* pthreadFunc(void* p);

class Pthread {
 public:
  // A plain start function taking one argument.
  using Func = void* (*)(void*);
  // A callable without arguments.
  using AlternativeFunc = std::function<void*()>;

  // Owns no thread; destroying it is silent.
  Pthread();
  // Start f(arg) with a stack of stackSizeKiB KiB (at least 16 KiB, rounded up to whole pages).
  Pthread(Func f, void* arg, uint32_t stackSizeKiB);
  // Start f() likewise.
  Pthread(AlternativeFunc f, uint32_t stackSizeKiB);
  // As above with explicit scheduling: schedpolicy is SCHED_OTHER, SCHED_FIFO or SCHED_RR; the
  // priority goes to the system unchecked.
  Pthread(Func f, void* arg, uint32_t stackSizeKiB, int schedpolicy, int priority);
  Pthread(AlternativeFunc f, uint32_t stackSizeKiB, int schedpolicy, int priority);

  // Takes over the other object's thread; the other is left owning nothing.
  Pthread(Pthread&& other) noexcept;
  // Terminates the process when this object still owns a running, unjoined thread; so, unlike
  // the construction, not a move that cannot fail.
  Pthread& operator=(Pthread&& other);
  Pthread(const Pthread&) = delete;
  Pthread& operator=(const Pthread&) = delete;

  // Terminates the process when this object still owns a running, unjoined thread.
  virtual ~Pthread();

  // Waits for the thread and returns its result.
  void* join();
  // Lets the thread run on unowned.
  void detach();

  // The ownership state: RUNNING, JOINED or EMPTY.
  int32_t getState() const { return state; }
  // The thread's identifier (kept after join, reset by detach and move).
  pthread_t getThread() const { return thread; }

  static constexpr int32_t RUNNING = 0;
  static constexpr int32_t JOINED = 1;
  static constexpr int32_t EMPTY = 2;

 private:
  int32_t state;
  pthread_t thread;
};

namespace intern {

// The start record of a new thread: built by the constructing thread before the thread starts,
// deleted by the new thread alone.
class InternThread {
 public:
  InternThread(Pthread::Func f, void* arg);
  explicit InternThread(Pthread::AlternativeFunc af);
  virtual ~InternThread();
  InternThread(const InternThread&) = delete;
  InternThread& operator=(const InternThread&) = delete;

  // Null when the callable form is used.
  const Pthread::Func f;
  // The argument of f; null for the callable form.
  void* const arg;
  // Empty when f is used.
  const Pthread::AlternativeFunc alternativeF;
};

}  // namespace intern
}  // namespace orvix
