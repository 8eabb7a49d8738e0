// Shared by the stress programs: round counts, a watchdog for hung rounds, thread counting, and
// output capture.
//
// Each stress test repeats one race for a number of rounds and checks its own invariant after
// every round (nothing lost, nothing counted twice, every thread ended). The round count is the
// test's full count unless ORVIX_STRESS_ROUNDS gives another; every test prints one line
// "[stress] <test>: <rounds> rounds in <seconds> s". A round that has not finished after
// kRoundLimitSeconds ends the program with a message naming it: a hang is a finding too.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>

#include <sys/types.h>

namespace orvix_stress {

constexpr int kRoundLimitSeconds = 120;

// Starts the thread that ends the program when a round hangs; main calls it before any test,
// so that the thread counts of the tests include it.
void startWatchdog();

// ORVIX_STRESS_ROUNDS if set (a positive number), else full.
int rounds(int full);

// A random generator for one test, seeded from ORVIX_STRESS_SEED or at random; the seed is
// printed so that a failing run can be repeated.
std::mt19937& rng();
// A number from lo to hi inclusive.
int pick(int lo, int hi);

// Runs body(round) for every round of the test, under the watchdog, stopping at the first
// failure; prints the test's line with rounds and duration.
void repeat(int fullRounds, const std::function<void(int round)>& body);
// The same for exactly n rounds, each called a unit ("rounds", "batches of ...") in the line.
void repeatExactly(int n, const char* unit, const std::function<void(int round)>& body);

// The threads of this process (entries of /proc/self/task).
int threadCount();
// Waits until the process has at most n threads again (an ended thread may linger in /proc for
// a moment after it was joined); false after kRoundLimitSeconds.
bool threadsBackTo(int n);

// The thread ids of this process (entries of /proc/self/task).
std::set<pid_t> threadIds();
// The one thread that is in threadIds() now but not in before; 0 if there is not exactly one.
pid_t newThread(const std::set<pid_t>& before);

// Whether thread tid is blocked in a futex wait on a word inside [object, object + size): a
// worker waiting on a condition variable or mutex member of that object. A state, not a moment:
// a thread that is running, or waiting elsewhere, answers false.
bool blockedInside(pid_t tid, const void* object, std::size_t size);
// Waits until blockedInside(tid, object, size); false after kRoundLimitSeconds.
bool awaitBlockedInside(pid_t tid, const void* object, std::size_t size);

// Holds a thread at one point of its work: close() the gate, and the first thread to pass()
// then waits there until open().
class Gate {
 public:
  void close() { closed_ = true; }
  void open() { closed_ = false; }
  // Where the held thread is to wait; returns at once while the gate is open.
  void pass();
  // Waits until a thread waits in pass(); false after kRoundLimitSeconds.
  bool awaitHeld() const;
  // The thread held (its pthread_t as a number), 0 before.
  std::uintptr_t heldThread() const { return held_; }
  bool isOpen() const { return !closed_; }

 private:
  std::atomic<bool> closed_{false};
  std::atomic<std::uintptr_t> held_{0};
};

// The calls of a handler under test: how many began, whether two ever ran at once, whether all
// ran on one thread, and how many began after a call held at the gate was let go.
class Calls {
 public:
  // First thing in a call: counts it, and holds it while the gate is closed.
  void begin();
  // Last thing in a call.
  void end() { --active_; }
  // No call is running.
  bool idle() const { return active_ == 0; }
  // Waits until n calls have begun after this one; false after kRoundLimitSeconds.
  bool awaitMore(int n) const;

  Gate gate;
  std::atomic<int> count{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> elsewhere{0};   // calls on another thread than the first call's
  std::atomic<int> afterHeld{0};   // calls begun after a held call was let go
  std::atomic<pid_t> thread{0};    // the thread of the first call

 private:
  std::atomic<int> active_{0};
};

// Waits until a thread is held at gate, runs destroy() on a new thread and opens the gate once
// the new thread waits to join the held one: a destructor that ends with the join has then done
// everything else. Returns when destroy() has returned; false if either wait never ended.
bool destroyWhileHeld(Gate& gate, const std::function<void()>& destroy);

// Spins for about n iterations of a cheap loop: a random moment for the next step.
void spin(int n);

// Captures what this process writes to standard output (file descriptor 1) while it lives.
class CaptureStdout {
 public:
  CaptureStdout();
  ~CaptureStdout();
  CaptureStdout(const CaptureStdout&) = delete;
  CaptureStdout& operator=(const CaptureStdout&) = delete;
  // Stops capturing (once) and returns everything captured.
  std::string text();

 private:
  int saved_;
  int file_;
  bool stopped_ = false;
  std::string text_;
};

}  // namespace orvix_stress
