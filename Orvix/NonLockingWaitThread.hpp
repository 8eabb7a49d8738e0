// NonLockingWaitThreadBase: an abstract base whose real-time thread (SCHED_FIFO, 128 KiB stack,
// an orvix::Pthread) runs a subclass-defined step() in a loop until the object is destroyed. No
// lock is involved: the only shared datum is an atomic stop flag.
//
// start() is called once, by the owner. step() runs on the thread only and must block or pace
// itself; the base adds no sleep. The handler given to start() is kept for the subclass
// (getHandler()); the base never calls it.
//
// A subclass whose step() uses the subclass's own members must call stopThread() first in its
// destructor: the base destructor stops the thread only after the subclass part is gone.
//
// Failures: a null handler is an assertion failure (abort). A thread that cannot be created with
// the requested policy and priority (for example without the right to real-time scheduling)
// prints through util::safePosix and aborts; calling start() twice ends the process (an
// orvix::Pthread that already runs a thread is overwritten).
#pragma once

#include <atomic>

#include "Orvix/CppPthread.hpp"

// Kept by NonLockingWaitThreadBase for its subclasses; what it offers is theirs to define.
class INonLockingWaitThreadHandler {
 public:
  virtual ~INonLockingWaitThreadHandler();
};

class NonLockingWaitThreadBase {
 public:
  // The thread is not started yet.
  NonLockingWaitThreadBase();
  // Sets the stop flag and joins the thread if it runs.
  virtual ~NonLockingWaitThreadBase();
  NonLockingWaitThreadBase(const NonLockingWaitThreadBase&) = delete;
  NonLockingWaitThreadBase& operator=(const NonLockingWaitThreadBase&) = delete;

  // Keeps handler (not owned) and starts the thread under SCHED_FIFO with the given priority.
  void start(INonLockingWaitThreadHandler* handler, int priority);

  // The thread's body: step() until the stop flag is set; returns null.
  void* run();

 protected:
  // One unit of the thread's work; called in a loop on the thread.
  virtual void step() = 0;

  // The handler given to start(); null before.
  INonLockingWaitThreadHandler* getHandler() const { return handler; }

  // Sets the stop flag and joins the thread if it runs; the destructor does the same.
  void stopThread();

 private:
  orvix::Pthread thread;
  std::atomic<bool> stop;
  // Written by start() before the thread exists.
  INonLockingWaitThreadHandler* handler;
};
