#include "StressSupport.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace orvix_stress {

namespace {

// What the watchdog looks at: the round in progress and when it must have ended.
std::mutex gWatchMutex;
std::string gWatchLabel;                                // guarded by gWatchMutex
std::chrono::steady_clock::time_point gWatchDeadline;   // guarded by gWatchMutex
bool gWatchArmed = false;                               // guarded by gWatchMutex

void watch() {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::lock_guard<std::mutex> l(gWatchMutex);
    if (gWatchArmed && std::chrono::steady_clock::now() > gWatchDeadline) {
      std::fprintf(stderr, "\n[stress] %s has not finished after %d s: hung\n",
                   gWatchLabel.c_str(), kRoundLimitSeconds);
      std::fflush(stderr);
      std::abort();
    }
  }
}

void arm(const std::string& label) {
  std::lock_guard<std::mutex> l(gWatchMutex);
  gWatchLabel = label;
  gWatchDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  gWatchArmed = true;
}

void disarm() {
  std::lock_guard<std::mutex> l(gWatchMutex);
  gWatchArmed = false;
}

std::string testName() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return info == nullptr ? "?" : std::string(info->test_suite_name()) + "." + info->name();
}

}  // namespace

void startWatchdog() { std::thread(watch).detach(); }

int rounds(int full) {
  const char* env = std::getenv("ORVIX_STRESS_ROUNDS");
  if (env == nullptr || *env == '\0') return full;
  const int n = std::atoi(env);
  return n > 0 ? n : full;
}

std::mt19937& rng() {
  static std::mt19937 generator([] {
    const char* env = std::getenv("ORVIX_STRESS_SEED");
    const unsigned seed = env != nullptr ? static_cast<unsigned>(std::strtoul(env, nullptr, 0))
                                         : std::random_device{}();
    std::printf("[stress] seed %u (ORVIX_STRESS_SEED repeats it)\n", seed);
    std::fflush(stdout);
    return seed;
  }());
  return generator;
}

int pick(int lo, int hi) {
  // Meant for the test's own thread; the lock keeps a stray call from another one harmless.
  static std::mutex m;
  std::lock_guard<std::mutex> l(m);
  return lo + static_cast<int>(rng()() % static_cast<unsigned>(hi - lo + 1));
}

void repeat(int fullRounds, const std::function<void(int round)>& body) {
  repeatExactly(rounds(fullRounds), "rounds", body);
}

void repeatExactly(int n, const char* unit, const std::function<void(int round)>& body) {
  const std::string name = testName();
  rng();  // the seed line comes first
  const auto start = std::chrono::steady_clock::now();
  int done = 0;
  for (int round = 0; round < n; ++round) {
    arm(name + " round " + std::to_string(round));
    body(round);
    disarm();
    if (::testing::Test::HasFailure()) {
      ADD_FAILURE() << "stopped in round " << round;
      break;
    }
    ++done;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("[stress] %s: %d %s in %.1f s\n", name.c_str(), done, unit, seconds);
  std::fflush(stdout);
}

int threadCount() {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  int n = 0;
  while (const dirent* e = readdir(dir))
    if (e->d_name[0] != '.') ++n;
  closedir(dir);
  return n;
}

bool threadsBackTo(int n) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  while (threadCount() > n) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

void spin(int n) {
  volatile int sink = 0;
  for (int i = 0; i < n; ++i) sink = sink + 1;
}

CaptureStdout::CaptureStdout() {
  std::fflush(stdout);
  saved_ = dup(1);
  char name[] = "/tmp/orvix-stress-XXXXXX";
  file_ = mkstemp(name);
  unlink(name);
  dup2(file_, 1);
}

CaptureStdout::~CaptureStdout() { text(); }

std::string CaptureStdout::text() {
  if (stopped_) return text_;
  stopped_ = true;
  std::fflush(stdout);
  dup2(saved_, 1);
  close(saved_);
  lseek(file_, 0, SEEK_SET);
  char buf[4096];
  for (ssize_t n; (n = read(file_, buf, sizeof buf)) > 0;) text_.append(buf, static_cast<size_t>(n));
  close(file_);
  return text_;
}

}  // namespace orvix_stress
