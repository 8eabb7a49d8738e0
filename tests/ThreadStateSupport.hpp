// Observing this process's own threads through /proc, for tests that must know that a worker
// has reached a blocking point (waiting on a condition, joining) before they go on. Waiting for
// such a state replaces sleeping "long enough": a loaded machine only makes it take longer.
#pragma once

#include <dirent.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace orvix_test {

// The kernel's id of the calling thread.
inline pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The ids of all threads of this process.
inline std::set<pid_t> threadIds() {
  std::set<pid_t> ids;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ids.insert(static_cast<pid_t>(std::atoi(e->d_name)));
    closedir(d);
  }
  return ids;
}

// The ids of all threads, taken after one thread has been started and joined: a sanitizer's
// runtime starts a helper thread of its own at the first thread creation, and a comparison with
// this set should show only the threads the test starts.
inline std::set<pid_t> threadIdsBeforeStarting() {
  std::thread([] {}).join();
  return threadIds();
}

// The one thread in after that is not in before; 0 unless there is exactly one.
inline pid_t newThread(const std::set<pid_t>& before, const std::set<pid_t>& after) {
  pid_t found = 0;
  for (pid_t id : after) {
    if (before.count(id) != 0) continue;
    if (found != 0) return 0;
    found = id;
  }
  return found;
}

// Sleeps about one millisecond without going through nanosleep (which tests may interpose).
inline void pauseBriefly() {
  timespec t{0, 1000000};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &t, nullptr);
}

// Polls until done() holds; false when timeoutSeconds pass first (a failure guard only).
inline bool waitUntil(const std::function<bool()>& done, int timeoutSeconds = 120) {
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    if (done()) return true;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - start.tv_sec > timeoutSeconds) return false;
    pauseBriefly();
  }
}

// True when thread tid sleeps in the kernel in a wait whose name contains where ("futex" for a
// condition, a mutex or a join).
inline bool isBlocked(pid_t tid, const char* where = "futex") {
  const std::string dir = "/proc/self/task/" + std::to_string(tid);
  std::ifstream statFile(dir + "/stat");
  std::string stat;
  std::getline(statFile, stat);
  const std::size_t paren = stat.rfind(')');
  if (paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] != 'S')
    return false;
  std::ifstream wchanFile(dir + "/wchan");
  std::string wchan;
  std::getline(wchanFile, wchan);
  return wchan.find(where) != std::string::npos;
}

// Waits until thread tid is seen blocked on two polls in a row (so that a brief block inside a
// runtime's own lock on the way is not taken for the wait the test means).
inline bool waitUntilBlocked(pid_t tid, const char* where = "futex", int timeoutSeconds = 120) {
  int seen = 0;
  return waitUntil(
      [&] {
        seen = isBlocked(tid, where) ? seen + 1 : 0;
        return seen >= 2;
      },
      timeoutSeconds);
}

// The record of a worker's events for handlers in tests: the thread each event ran on, in order.
// A handler calls record() at the start of each event; the test waits for counts.
class EventRecorder {
 public:
  // Blocks until at least n events have started (false after a generous guard time).
  bool awaitEvents(std::size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::minutes(2), [&] { return threads_.size() >= n; });
  }
  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_.size();
  }
  pid_t threadOf(std::size_t i) {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_.at(i);
  }

 protected:
  // Called with mutex_ held: notes the calling thread, wakes waiters, returns the event's number.
  std::size_t record() {
    threads_.push_back(threadId());
    cond_.notify_all();
    return threads_.size();
  }

  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<pid_t> threads_;  // written under mutex_
};

}  // namespace orvix_test
