// Aids for the library's own test and demonstration programs.
//
// util::TestThreadState is a counter that several threads step through expected values while
// printing their progress; util::TimeLimit checks that the time since its construction lies
// around an expected duration; orvix::test::asyncInput and orvix::test::AsyncInput read one
// console line in the background; enterIfInteractive pauses for the Enter key when a program
// runs interactively. util::TestSleeps only keeps the number it was given.
//
// TestThreadState may be shared by any number of threads (each operation holds its mutex).
// An AsyncInput is used by the thread that owns it; its reading task runs on its own thread.
// Nothing here throws on its own account; mismatches are reported on standard error and as a
// false result.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <future>
#include <istream>
#include <mutex>
#include <ostream>
#include <string>

#include "Orvix/RecursiveMutex.hpp"
#include "Orvix/TimeSpec.hpp"

namespace util {

// A shared counter of expected states. Each line it writes ends with a newline and a flush.
class TestThreadState {
 public:
  explicit TestThreadState(const std::string& name);
  virtual ~TestThreadState();
  TestThreadState(const TestThreadState&) = delete;
  TestThreadState& operator=(const TestThreadState&) = delete;

  int get();
  // Returns the new value.
  int inc();
  // Back to 0.
  void reset();
  // Increments and writes "Inc <name> to <state>" to out.
  void incState(std::ostream& out);
  // As incState; a state other than expected is also reported on standard error
  // ("** Unexpected state <name> after incrementation: <state> instead of <expected>").
  bool incAndCheckState1(int expected, std::ostream& out);
  // "State <name> == <expected> is true!" to out when it is, otherwise
  // "** Unexpected state <name>: <state> instead of <expected>" on standard error.
  bool checkState1(int expected, std::ostream& out);

 private:
  int32_t state;         // guarded by mutex
  RecursiveMutex mutex;
  const std::string name;
};

// Measures from its construction on the monotonic clock.
class TimeLimit {
 public:
  TimeLimit();
  virtual ~TimeLimit();

  // True when the time since start lies between a * b milliseconds divided by and multiplied
  // by factor (a factor below 1 counts as its inverse), bounds included. Otherwise writes
  // "minDiff: ", "diff: " and "maxDiff: " lines with the three time spans to standard error and
  // returns false.
  bool checkAround(int a, int b, double factor);

  // The start of the measurement; public so that a caller (or a test) can place it.
  TimeSpec start;
};

// Keeps the number given to it; nothing else.
class TestSleeps {
 public:
  explicit TestSleeps(int value);
  virtual ~TestSleeps();

  int value;
};

}  // namespace util

namespace orvix {
namespace test {

// Reads one line from in on a new thread; the future yields it (empty when in fails). in must
// outlive the task.
std::future<std::string> asyncInput(std::istream& in);

// Reads one line from in on a new thread, then under m moves it into line, sets finished and
// notifies all waiters of condVar. Returns at once: the task's future goes to the store of
// easyAsyncIntern. All references must outlive the task.
void asyncInput(std::istream& in, std::mutex& m, std::condition_variable& condVar, bool& finished,
                std::string& line);

// One line of standard input, read in the background from construction on.
class AsyncInput {
 public:
  AsyncInput();
  // Waits for the line first: destroying an AsyncInput blocks until a line has come.
  virtual ~AsyncInput();
  AsyncInput(const AsyncInput&) = delete;
  AsyncInput& operator=(const AsyncInput&) = delete;

  // Whether the line has come.
  virtual bool done();
  // Waits until it has.
  virtual void wait();
  // Waits, then returns the line.
  virtual std::string join();

 private:
  std::mutex mutex;
  std::condition_variable cond;  // notified with mutex when finished is set
  bool finished;                 // guarded by mutex
  std::string line;              // guarded by mutex
};

}  // namespace test
}  // namespace orvix

// When interactive, writes "*** Nach ENTER: <what> ... > " on safeCerr and reads and discards
// one line of standard input; otherwise does nothing.
void enterIfInteractive(bool interactive, const std::string& what);
