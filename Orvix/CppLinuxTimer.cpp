#include "Orvix/CppLinuxTimer.hpp"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "Orvix/LogGroups.hpp"

namespace orvix {

namespace {

constexpr const char* kUnit = "Orvix/CppLinuxTimer";

logGroups::LogUnit logUnit{logGroups::kCppLinuxTimer, kUnit};

// A failing timer call of a LinuxTimer: log (unless the group is switched off), then abort.
[[noreturn]] void fatal(int line, const char* format) {
  const int err = errno;
  logGroups::logMessage(logUnit, line, format, strerror(err));
  abort();
}

sigevent threadNotification(void* self, void (*function)(sigval), pthread_attr_t* attributes) {
  sigevent event;
  memset(&event, 0, sizeof event);
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_value.sival_ptr = self;
  event.sigev_notify_function = function;
  event.sigev_notify_attributes = attributes;
  return event;
}

itimerspec setting(long sec, long nsec, long intervalSec, long intervalNsec) {
  itimerspec s;
  memset(&s, 0, sizeof s);
  s.it_value.tv_sec = sec;
  s.it_value.tv_nsec = nsec;
  s.it_interval.tv_sec = intervalSec;
  s.it_interval.tv_nsec = intervalNsec;
  return s;
}

}  // namespace

// ---- LinuxTimer ------------------------------------------------------------------------------

LinuxTimer::LinuxTimer() : timerId(timer_t()), created(false) {}

LinuxTimer::~LinuxTimer() {
  cancelAndDelete();
  callback = nullptr;
}

void LinuxTimer::create(std::function<void()> f) {
  if (created) cancelAndDelete();
  callback = std::move(f);
  sigevent event = threadNotification(this, &LinuxTimer::notifyFunction, nullptr);
  if (timer_create(CLOCK_MONOTONIC, &event, &timerId) != 0) fatal(72, "timer_create failed: %s\n");
  created = true;
}

void LinuxTimer::start(long sec, long nsec, long intervalSec, long intervalNsec) {
  if (!created) return;
  const itimerspec s = setting(sec, nsec, intervalSec, intervalNsec);
  if (timer_settime(timerId, 0, &s, nullptr) != 0) fatal(96, "timer_settime failed: %s\n");
}

void LinuxTimer::cancel() {
  if (!created) return;
  const itimerspec s = setting(0, 0, 0, 0);
  if (timer_settime(timerId, 0, &s, nullptr) != 0) fatal(111, "timer_settime failed: %s\n");
}

void LinuxTimer::cancelAndDelete() {
  if (!created) return;
  cancel();
  if (timer_delete(timerId) != 0) fatal(129, "timer_delete failed: %s\n");
  created = false;
}

void LinuxTimer::notifyFunction(sigval value) {
  auto* self = static_cast<LinuxTimer*>(value.sival_ptr);
  if (!self->created) return;
  self->callback();
}

// ---- Timer and PeriodicTimer -----------------------------------------------------------------

TimerCallback::~TimerCallback() = default;

std::mutex Timer::alarmMtx;

Timer::Timer() : callback(nullptr), timerId(timer_t()), spec(setting(0, 0, 0, 0)) {}

Timer::~Timer() = default;

void Timer::setCallback(TimerCallback* c) { callback = c; }

void Timer::alarm(sigval value) {
  std::lock_guard<std::mutex> lock(alarmMtx);
  auto* timer = static_cast<Timer*>(value.sival_ptr);
  if (timer == nullptr || timer->callback == nullptr) return;
  timer->callback->timerExpired();
}

PeriodicTimer::PeriodicTimer() {
  // The system copies the attributes when the timer is created; what they hold is asked for,
  // not checked, and the object is left as it is.
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  sched_param param;
  memset(&param, 0, sizeof param);
  param.sched_priority = 255;
  pthread_attr_setschedparam(&attributes, &param);
  sigevent event = threadNotification(static_cast<Timer*>(this), &Timer::alarm, &attributes);
  if (timer_create(CLOCK_MONOTONIC, &event, &timerId) != 0)
    std::cout << "PeriodicTimer: Could not create the thread" << std::endl;
}

PeriodicTimer::~PeriodicTimer() {
  if (timerId != timer_t()) timer_delete(timerId);
}

namespace {

// Both operations report a missing callback with the same text and arm regardless.
void reportMissingCallback(const TimerCallback* callback) {
  if (callback == nullptr)
    std::cout << "PeriodicTimer::startTimer: no callback defined\n" << std::endl;
}

}  // namespace

void PeriodicTimer::startTimer(int intervalUs) {
  reportMissingCallback(callback);
  const long sec = intervalUs / 1000000;
  const long nsec = (intervalUs % 1000000) * 1000L;
  spec = setting(sec, nsec, sec, nsec);
  if (timer_settime(timerId, 0, &spec, nullptr) != 0)
    std::cout << "PeriodicTimer::startTimer: failed\n" << std::endl;
}

void PeriodicTimer::stopTimer() {
  reportMissingCallback(callback);
  spec = setting(0, 0, 0, 0);
  if (timer_settime(timerId, 0, &spec, nullptr) != 0)
    std::cout << "PeriodicTimer::stopTimer: failed\n" << std::endl;
}

}  // namespace orvix
