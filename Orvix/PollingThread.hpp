// PollingThread: one worker thread that, once started, calls its handler's event() periodically,
// sleeping a settable interval (microseconds) between calls. It can be stopped and started again
// and told to skip one sleep.
//
// start(), stop(), setInterval() and setNoWait() may be called from any thread; the handler runs
// on the worker thread only. The worker is idle until start(). stop() does not wait: the current
// sleep finishes, no further event() follows, and the worker is idle again. A stop() that comes
// before the worker has taken up a start() is ignored. An interval of 0 or less means no sleep at
// all. Destroying the object ends the worker from either state without a further event(); while
// the worker sleeps this takes up to one interval.
//
// Failures: a null handler is an assertion failure (abort). Errors of the standard mutex and
// thread are thrown as std::system_error, and end the process inside the destructor. Exceptions
// out of the handler are not caught.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

// Implemented by the user; called on the polling thread.
class IPollingThreadHandler {
 public:
  virtual ~IPollingThreadHandler();
  // One call per polling period.
  virtual void event() = 0;
};

class PollingThread {
 public:
  // Starts the worker thread idle; handler is not owned and must outlive this object.
  PollingThread(IPollingThreadHandler* handler, int interval);
  // Ends and joins the worker, idle or polling.
  virtual ~PollingThread();
  PollingThread(const PollingThread&) = delete;
  PollingThread& operator=(const PollingThread&) = delete;

  // Starts polling unless it is already running.
  void start();
  // Stops polling after the current sleep, without a further event(); ignored while not running.
  void stop();
  // The sleep between events in microseconds; takes effect at the next sleep.
  void setInterval(int interval);
  // The next single sleep is skipped.
  void setNoWait();

  // Used by the worker: blocks until start() is taken up, then marks the thread running.
  void sleep();
  // Used by the worker: one sleep of the interval (continued after signals), unless skipped.
  void wait();
  // Used by the worker: calls the handler.
  void event();

 private:
  // The worker's body.
  void loop();

  std::thread thread;
  std::mutex mutex;
  std::condition_variable cond;
  // The start hand-shake is written under mutex; the rest needs no lock.
  std::atomic<bool> startRequested;
  std::atomic<bool> stopRequested;
  std::atomic<bool> exit;
  std::atomic<bool> running;
  std::atomic<bool> noWait;
  std::atomic<int32_t> interval;
  IPollingThreadHandler* const handler;
};
