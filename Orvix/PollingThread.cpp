#include "Orvix/PollingThread.hpp"

#include <time.h>

#include <cerrno>

#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/PollingThread";

}  // namespace

IPollingThreadHandler::~IPollingThreadHandler() = default;

PollingThread::PollingThread(IPollingThreadHandler* handler, int interval)
    : startRequested(false),
      stopRequested(false),
      exit(false),
      running(false),
      noWait(false),
      interval(interval),
      handler(handler) {
  ORVIX_ASSERT(nullptr != handler, "nullptr != handler", kUnit, 61);
  thread = std::thread(&PollingThread::loop, this);
}

PollingThread::~PollingThread() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    exit = true;
    startRequested = true;
    stopRequested = true;
  }
  cond.notify_one();
  if (thread.joinable()) thread.join();
}

void PollingThread::loop() {
  // An idle worker leaves sleep() with stopRequested cleared, so exit is tested inside the
  // polling loop too; otherwise destroying an idle object would start it polling for ever.
  while (!exit) {
    sleep();
    while (!stopRequested && !exit) {
      wait();
      if (!stopRequested && !exit) event();
    }
  }
}

void PollingThread::sleep() {
  std::unique_lock<std::mutex> lock(mutex);
  cond.wait(lock, [this] { return startRequested.load(); });
  startRequested = false;
  stopRequested = false;
  running = true;
}

void PollingThread::wait() {
  bool skip = true;
  if (noWait.compare_exchange_strong(skip, false)) return;
  const int32_t us = interval;
  if (us < 1) return;
  timespec left{};
  left.tv_sec = us / 1000000;
  left.tv_nsec = (us % 1000000) * 1000L;
  // A signal does not shorten the period: sleep on with what is left.
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

void PollingThread::event() { handler->event(); }

void PollingThread::start() {
  if (running) return;
  {
    std::lock_guard<std::mutex> lock(mutex);
    startRequested = true;
  }
  cond.notify_one();
}

void PollingThread::stop() {
  if (!running) return;
  stopRequested = true;
  running = false;
}

void PollingThread::setInterval(int us) { interval = us; }

void PollingThread::setNoWait() { noWait = true; }
