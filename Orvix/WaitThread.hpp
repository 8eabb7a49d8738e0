// WaitThread: one worker thread that sleeps until notify() and then calls its handler's event()
// once. Notifications that arrive while the handler runs collapse into one further call.
//
// notify() may be called from any thread. The handler runs on the worker thread only, one call at
// a time. Destroying a WaitThread whose worker is waiting calls the handler's event() one last
// time, on the worker thread, before the destructor returns.
//
// Failures: a null handler is an assertion failure (abort). Errors of the standard mutex and
// thread are thrown as std::system_error, and end the process inside the destructor. Exceptions
// out of the handler are not caught.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

// Implemented by the user; called on the wait thread.
class IWaitThreadHandler {
 public:
  virtual ~IWaitThreadHandler();
  // One call per wake-up of the wait thread.
  virtual void event() = 0;
};

class WaitThread {
 public:
  // Starts the worker thread; handler is not owned and must outlive this object.
  explicit WaitThread(IWaitThreadHandler* handler);
  // Wakes the worker one last time (one final event() while it waits) and joins it.
  virtual ~WaitThread();
  WaitThread(const WaitThread&) = delete;
  WaitThread& operator=(const WaitThread&) = delete;

  // Asks for one further event(); several requests before the worker wakes count as one.
  void notify();

  // Used by the worker: blocks until notified, then clears the request.
  void wait();
  // Used by the worker: calls the handler.
  void event();

 private:
  // The worker's body: wait and handle until exit is set (tested after each event).
  void loop();

  std::thread thread;
  std::mutex mutex;
  std::condition_variable cond;
  // Written under mutex.
  bool notified;
  // Written under mutex, read by the worker without it (hence atomic).
  std::atomic<bool> exit;
  IWaitThreadHandler* const handler;
};
