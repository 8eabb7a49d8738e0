#include "StressSupport.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
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

int threadCount() { return static_cast<int>(threadIds().size()); }

bool threadsBackTo(int n) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  while (threadCount() > n) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

std::set<pid_t> threadIds() {
  std::set<pid_t> ids;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return ids;
  while (const dirent* e = readdir(dir))
    if (e->d_name[0] != '.') ids.insert(static_cast<pid_t>(std::atoi(e->d_name)));
  closedir(dir);
  return ids;
}

pid_t newThread(const std::set<pid_t>& before) {
  pid_t found = 0;
  for (pid_t id : threadIds()) {
    if (before.count(id) != 0) continue;
    if (found != 0) return 0;
    found = id;
  }
  return found;
}

bool blockedInside(pid_t tid, const void* object, std::size_t size) {
  // "<number> <arg1> ..." while the thread is blocked in a system call, "running" otherwise.
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
  std::string line;
  if (!std::getline(in, line)) return false;
  std::istringstream fields(line);
  long number = -1;
  std::string arg1;
  if (!(fields >> number >> arg1) || number != SYS_futex) return false;
  const auto word = static_cast<std::uintptr_t>(std::strtoull(arg1.c_str(), nullptr, 16));
  const auto begin = reinterpret_cast<std::uintptr_t>(object);
  return word >= begin && word < begin + size;
}

bool awaitBlockedInside(pid_t tid, const void* object, std::size_t size) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  while (!blockedInside(tid, object, size)) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

void Gate::pass() {
  if (!closed_) return;
  held_ = static_cast<std::uintptr_t>(pthread_self());
  while (closed_) std::this_thread::yield();
}

bool Gate::awaitHeld() const {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  while (held_ == 0) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
  return true;
}

void Calls::begin() {
  if (++active_ != 1) ++overlaps;
  const auto self = static_cast<pid_t>(syscall(SYS_gettid));
  pid_t first = 0;
  if (!thread.compare_exchange_strong(first, self) && first != self) ++elsewhere;
  if (gate.isOpen() && gate.heldThread() != 0) ++afterHeld;
  ++count;
  gate.pass();
}

bool Calls::awaitMore(int n) const {
  const int target = count + n;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kRoundLimitSeconds);
  while (count < target) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
  return true;
}

bool destroyWhileHeld(Gate& gate, const std::function<void()>& destroy) {
  if (!gate.awaitHeld()) {
    gate.open();
    destroy();
    return false;
  }
  std::atomic<pid_t> destroyer{0};
  std::thread t([&] {
    destroyer = static_cast<pid_t>(syscall(SYS_gettid));
    destroy();
  });
  while (destroyer == 0) std::this_thread::yield();
  // pthread_join waits on a word of the joined thread's descriptor, which its pthread_t points
  // to; the descriptor is well under a page.
  const bool joining =
      awaitBlockedInside(destroyer, reinterpret_cast<const void*>(gate.heldThread()), 4096);
  gate.open();
  t.join();
  return joining;
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
