#include "Orvix/NonLockingWaitThread.hpp"

#include <sched.h>

#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/NonLockingWaitThread";
constexpr uint32_t kStackSizeKiB = 128;

}  // namespace

INonLockingWaitThreadHandler::~INonLockingWaitThreadHandler() = default;

NonLockingWaitThreadBase::NonLockingWaitThreadBase() : stop(false), handler(nullptr) {}

NonLockingWaitThreadBase::~NonLockingWaitThreadBase() { stopThread(); }

void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler* handler, int priority) {
  ORVIX_ASSERT(nullptr != handler, "nullptr != handler", kUnit, 50);
  this->handler = handler;
  thread = orvix::Pthread(orvix::Pthread::AlternativeFunc([this]() { return run(); }),
                          kStackSizeKiB, SCHED_FIFO, priority);
}

void* NonLockingWaitThreadBase::run() {
  while (!stop) step();
  return nullptr;
}

void NonLockingWaitThreadBase::stopThread() {
  stop = true;
  if (thread.getState() == orvix::Pthread::RUNNING) thread.join();
}
