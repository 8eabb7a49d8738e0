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

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

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
