// Named threads of the first generation.
//
// util::Thread is an abstract thread object: derive from it, implement run(), call start()
// once, and cancel() or join() it from any thread. Its bookkeeping (state, lock, condition,
// name, handle) lives in a util::ThreadInternals inside the object. The library's thread key
// maps each started thread to its internals, so current() works inside run(), and the key's
// destructor records the end of the thread (util::ThreadInternals::runFinished) also when it
// ends by cancellation. Destroying a Thread reaps its finished thread with pthread_join.
//
// Every state change happens under the internals' recursive mutex; join waits on the condition,
// which is broadcast whenever an end state is reached. getState() reads without the lock.
// Failures: start twice, a failing pthread_create and a failing pthread_cancel throw
// util::GeneralException (printing its warning line); bad scheduling attributes and a missing
// thread key fail an assertion; destroying a thread that still runs prints
// "\n\n**** Thread must not be deleted while it is running!" on std::cerr and aborts.
#pragma once

#include <pthread.h>

#include <ostream>
#include <string>

#include "Orvix/RecursiveMutex.hpp"

namespace util {

class Thread;

// The states of a Thread; the values are fixed.
enum ThreadState {
  TS_NEW = 0,               // constructed, never started
  TS_STARTING = 1,          // pthread_create is being called, the body has not begun
  TS_CANCEL_REQUESTED = 2,  // cancelled before the body began
  TS_RUNNING = 3,           // the body is running
  TS_CANCELLED = 4,         // pthread_cancel was sent while running
  TS_FINISHED = 5,          // ended; still to be reaped with pthread_join
  TS_FAILED = 6,            // start or cancel failed, or the end came in an unexpected state
};

// The bookkeeping of one Thread.
class ThreadInternals {
 public:
  ThreadInternals(Thread* owner, const std::string& name);
  // Reaps a finished thread; aborts while it still runs (see above). Never throws.
  ~ThreadInternals();
  ThreadInternals(const ThreadInternals&) = delete;
  ThreadInternals& operator=(const ThreadInternals&) = delete;

  // In the new thread, before the body: true when the body is to run.
  bool started();
  // In the ending thread (the thread key's destructor): records the end and wakes the joiners;
  // in an unexpected state also prints, sets TS_FAILED and throws GeneralException.
  void runFinished();

  int state;               // guarded by mutex (getState reads it without)
  RecursiveMutex mutex;
  WaitCond cond;           // broadcast on every end state; used with mutex
  const std::string name;
  pthread_t thread;        // written by start under mutex
  Thread* const owner;
};

// The start routine handed to pthread_create; its argument is the ThreadInternals.
void* pthreadFunc(void* internals);

// An abstract named thread (see above).
class Thread {
 public:
  // State TS_NEW; nothing is started.
  explicit Thread(const std::string& name);
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The body, run once in the new thread.
  virtual void run() = 0;

  // A snapshot of the state, read without the lock.
  int getState() const;

  // The Thread of the calling thread; valid only inside a thread started by this class.
  static Thread* current();

  // Starts the thread. -1 means "not given": without stack size and priority the default
  // attributes are used; policy and priority together select explicit real-time scheduling.
  // Throws GeneralException when already started or when pthread_create fails.
  void start(int stackSize = -1, int priority = -1, int policy = -1);

  // Before the body began: the body will not run. While it runs: pthread_cancel (a failure
  // throws GeneralException). Otherwise nothing.
  void cancel();

  // Waits until the thread has finished or failed; reaping is left to the destructor.
  void join();

  // Writes "[<name> <monotonic seconds with three decimals>] " to std::cout and returns it, for
  // the caller to complete the line. Takes no lock.
  std::ostream& out() const;

  // Sleeps ms milliseconds; an interrupted or refused nanosleep throws GeneralException with the
  // fixed message "Unexpected errno (-1) in nanosleep in Thread::msleep". No resumption.
  static void msleep(int ms);

 protected:
  ThreadInternals internals;
};

}  // namespace util
