#include "Orvix/WaitThread.hpp"

#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/WaitThread";

}  // namespace

IWaitThreadHandler::~IWaitThreadHandler() = default;

WaitThread::WaitThread(IWaitThreadHandler* handler)
    : notified(false), exit(false), handler(handler) {
  ORVIX_ASSERT(nullptr != handler, "nullptr != handler", kUnit, 51);
  thread = std::thread(&WaitThread::loop, this);
}

WaitThread::~WaitThread() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    notified = true;
    exit = true;
  }
  cond.notify_one();
  if (thread.joinable()) thread.join();
}

void WaitThread::loop() {
  if (exit) return;
  // exit is tested only after the event: a waiting worker handles the destructor's wake-up too.
  do {
    wait();
    event();
  } while (!exit);
}

void WaitThread::wait() {
  std::unique_lock<std::mutex> lock(mutex);
  cond.wait(lock, [this] { return notified; });
  notified = false;
}

void WaitThread::notify() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    notified = true;
  }
  cond.notify_one();
}

void WaitThread::event() { handler->event(); }
