// Timers over POSIX per-process timers on CLOCK_MONOTONIC whose expiries start a notification
// thread (SIGEV_THREAD).
//
// orvix::LinuxTimer holds a callable and is created, armed (first expiry and period in seconds
// and nanoseconds), disarmed and deleted by its owner. orvix::PeriodicTimer (an orvix::Timer) is
// created at construction and calls an orvix::TimerCallback on each expiry; all such callbacks
// of the process run one at a time under orvix::Timer::alarmMtx, so a slow callback delays every
// other periodic timer.
//
// Threads: the owner's thread creates, arms and destroys a timer. Every expiry runs on a thread
// the system starts for it, concurrently with the owner and, for fast periods, with earlier
// expiries of the same timer. Neither destructor waits for a notification already on its way, so
// a timer object (and whatever its callback uses) must stay alive until those have run.
//
// Failures: a failing timer_create, timer_settime or timer_delete of a LinuxTimer is logged
// through the timer unit's log group ("timer_create failed: ..." and the like, with the source
// line) and aborts the process. A PeriodicTimer only prints its failures on standard output
// ("PeriodicTimer: Could not create the thread", "PeriodicTimer::startTimer: failed", ...) and
// goes on; a missing callback is reported but does not stop arming or disarming.
#pragma once

#include <signal.h>
#include <time.h>

#include <atomic>
#include <functional>
#include <mutex>

namespace orvix {

class LinuxTimer {
 public:
  // Not created; nothing is armed.
  LinuxTimer();
  // cancelAndDelete(), then drops the callable.
  ~LinuxTimer();
  LinuxTimer(const LinuxTimer&) = delete;
  LinuxTimer& operator=(const LinuxTimer&) = delete;

  // Deletes a timer created before, keeps f and creates a disarmed timer calling it.
  void create(std::function<void()> f);
  // Arms the timer relative to now: first expiry {sec, nsec} (zero disarms), then every
  // {intervalSec, intervalNsec} (zero: one-shot). Does nothing unless created.
  void start(long sec, long nsec, long intervalSec, long intervalNsec);
  // Disarms the timer. Does nothing unless created.
  void cancel();
  // Disarms and deletes the timer; later notifications call nothing. The callable is kept.
  void cancelAndDelete();

  // Runs on the notification thread of each expiry: calls the callable of the LinuxTimer in
  // value unless it has been deleted since (an empty callable throws std::bad_function_call).
  static void notifyFunction(sigval value);

 private:
  // Owner's thread only.
  timer_t timerId;
  // Replaced by create() only; notification threads call it.
  std::function<void()> callback;
  // True between create() and cancelAndDelete(); read by notification threads.
  std::atomic<bool> created;
};

// What a PeriodicTimer calls on each expiry.
class TimerCallback {
 public:
  virtual ~TimerCallback();
  // Called on a notification thread with Timer::alarmMtx held.
  virtual void timerExpired() = 0;
};

class Timer {
 public:
  Timer();
  virtual ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Arms the timer: first expiry and period intervalUs microseconds.
  virtual void startTimer(int intervalUs) = 0;
  // Disarms the timer.
  virtual void stopTimer() = 0;

  // The object called on each expiry (not owned); null calls nothing. Set it while the timer is
  // disarmed or hold alarmMtx.
  void setCallback(TimerCallback* callback);

  // Runs on the notification thread of each expiry: calls the callback of the Timer in value
  // under alarmMtx.
  static void alarm(sigval value);
  // Serialises every periodic-timer callback of the process.
  static std::mutex alarmMtx;

 protected:
  // Read by alarm() under alarmMtx.
  TimerCallback* callback;
  timer_t timerId;
  // The setting last passed to the system.
  itimerspec spec;
};

class PeriodicTimer : public Timer {
 public:
  // Creates the timer (disarmed); a failure is printed and leaves the object usable.
  PeriodicTimer();
  // Deletes the timer if one was created; does not wait for a running callback.
  ~PeriodicTimer() override;

  // Reports a missing callback, then arms; a failure is printed.
  void startTimer(int intervalUs) override;
  // Reports a missing callback, then disarms; a failure is printed.
  void stopTimer() override;
};

}  // namespace orvix
