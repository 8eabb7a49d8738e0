#include "Orvix/TestUtil.hpp"

#include <time.h>

#include <iostream>
#include <utility>

#include "EasyAsync.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace util {

TestThreadState::TestThreadState(const std::string& name) : state(0), name(name) {}

TestThreadState::~TestThreadState() = default;

int TestThreadState::get() {
  Lock lock(mutex);
  return state;
}

int TestThreadState::inc() {
  Lock lock(mutex);
  return ++state;
}

void TestThreadState::reset() {
  Lock lock(mutex);
  state = 0;
}

void TestThreadState::incState(std::ostream& out) {
  Lock lock(mutex);
  ++state;
  out << "Inc " << name << " to " << state << std::endl;
}

bool TestThreadState::incAndCheckState1(int expected, std::ostream& out) {
  Lock lock(mutex);
  ++state;
  out << "Inc " << name << " to " << state << std::endl;
  if (state != expected) {
    std::cerr << "** Unexpected state " << name << " after incrementation: " << state
              << " instead of " << expected << std::endl;
  }
  return state == expected;
}

bool TestThreadState::checkState1(int expected, std::ostream& out) {
  Lock lock(mutex);
  if (state == expected) {
    out << "State " << name << " == " << expected << " is true!" << std::endl;
    return true;
  }
  std::cerr << "** Unexpected state " << name << ": " << state << " instead of " << expected
            << std::endl;
  return false;
}

TimeLimit::TimeLimit() { start.initNow(CLOCK_MONOTONIC); }

TimeLimit::~TimeLimit() = default;

bool TimeLimit::checkAround(int a, int b, double factor) {
  const double f = factor < 1.0 ? 1.0 / factor : factor;
  // The product wraps as the controller's 32-bit int does.
  const double expectedMs = static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
  TimeSpec minDiff;
  minDiff.initFromMs(static_cast<int>(expectedMs / f));
  TimeSpec maxDiff;
  maxDiff.initFromMs(static_cast<int>(expectedMs * f));
  TimeSpec diff;
  diff.initNow(CLOCK_MONOTONIC);
  diff -= start;
  if (!(diff < minDiff) && !(maxDiff < diff)) return true;
  std::cerr << "minDiff: " << minDiff << "\n"
            << "diff: " << diff << "\n"
            << "maxDiff: " << maxDiff << "\n";
  return false;
}

TestSleeps::TestSleeps(int value) : value(value) {}

TestSleeps::~TestSleeps() = default;

}  // namespace util

namespace orvix {
namespace test {

std::future<std::string> asyncInput(std::istream& in) {
  return std::async(std::launch::async, [&in] {
    std::string text;
    std::getline(in, text);
    return text;
  });
}

void asyncInput(std::istream& in, std::mutex& m, std::condition_variable& condVar, bool& finished,
                std::string& line) {
  std::future<void> task = std::async(std::launch::async, [&in, &m, &condVar, &finished, &line] {
    std::string text;
    std::getline(in, text);
    std::lock_guard<std::mutex> lock(m);
    line = std::move(text);
    finished = true;
    condVar.notify_all();
  });
  // Kept elsewhere, so that this call does not wait in the future's destructor.
  orvix::easyAsyncIntern::storeFuture(std::move(task));
}

AsyncInput::AsyncInput() : finished(false) { asyncInput(std::cin, mutex, cond, finished, line); }

AsyncInput::~AsyncInput() { AsyncInput::wait(); }

bool AsyncInput::done() {
  std::lock_guard<std::mutex> lock(mutex);
  return finished;
}

void AsyncInput::wait() {
  std::unique_lock<std::mutex> lock(mutex);
  cond.wait(lock, [this] { return finished; });
}

std::string AsyncInput::join() {
  std::unique_lock<std::mutex> lock(mutex);
  cond.wait(lock, [this] { return finished; });
  return line;
}

}  // namespace test
}  // namespace orvix

void enterIfInteractive(bool interactive, const std::string& what) {
  if (!interactive) return;
  safeCerr << "*** Nach ENTER: " << what << " ... > " << std::flush;
  std::string discarded;
  std::getline(std::cin, discarded);
}
