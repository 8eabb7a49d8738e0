#include "Orvix/InitCondVar.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/ThreadSafeStream.hpp"
#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using util::InitCondVar;

namespace {

// Sends std::cerr into a string for the test's lifetime; read it under the console lock, which
// every safeCerr chain holds while it writes.
class CerrToString {
 public:
  CerrToString() : old_(std::cerr.rdbuf(text_.rdbuf())) {}
  ~CerrToString() { std::cerr.rdbuf(old_); }
  std::string text() {
    pthread_mutex_lock(&tss::consoleLock());
    std::string t = text_.str();
    pthread_mutex_unlock(&tss::consoleLock());
    return t;
  }
  // Waits (with a generous limit) until the text holds n lines.
  bool waitForLines(int n) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
      const std::string t = text();
      if (std::count(t.begin(), t.end(), '\n') >= n) return true;
      if (std::chrono::steady_clock::now() > limit) return false;
      std::this_thread::yield();
    }
  }

 private:
  std::stringstream text_;
  std::streambuf* old_;
};

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  std::sort(lines.begin(), lines.end());
  return lines;
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Waits until thread tid of this process is asleep in the kernel (state S in its stat file).
bool waitUntilAsleep(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  for (;;) {
    std::ifstream in(path);
    std::string stat;
    std::getline(in, stat);
    const auto close = stat.rfind(')');
    if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S')
      return true;
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::yield();
  }
}

}  // namespace

TEST(InitCondVar, WaitAfterSetReturnsAtOnceSilently) {
  InitCondVar v("Database");
  v.setInitialized();
  CaptureFd out(1);
  CaptureFd err(2);
  v.waitUntilInitialized("Reader");
  v.waitUntilInitialized(nullptr);
  EXPECT_EQ(out.text(), "");
  EXPECT_EQ(err.text(), "");
}

TEST(InitCondVar, SetTwiceChangesNothing) {
  InitCondVar v("Database");
  v.setInitialized();
  v.setInitialized();
  CaptureFd err(2);
  v.waitUntilInitialized("Reader");
  EXPECT_EQ(err.text(), "");
}

TEST(InitCondVar, OneWaiterPrintsOneLineAndReturnsAfterSet) {
  CerrToString cerr;
  InitCondVar v("Printer engine");
  std::atomic<bool> returned{false};
  std::thread t([&] {
    v.waitUntilInitialized("Job scheduler");
    returned = true;
  });
  ASSERT_TRUE(cerr.waitForLines(1));
  EXPECT_FALSE(returned);
  v.setInitialized();
  t.join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(cerr.text(),
            "Job scheduler is being blocked until Printer engine has been initialized!\n");
}

TEST(InitCondVar, TwoWaitersEachPrintTheirLineAndBothReturn) {
  CerrToString cerr;
  InitCondVar v("Drive A");
  std::atomic<int> returned{0};
  std::thread a([&] {
    v.waitUntilInitialized("ThreadA");
    ++returned;
  });
  std::thread b([&] {
    v.waitUntilInitialized("ThreadB");
    ++returned;
  });
  ASSERT_TRUE(cerr.waitForLines(2));
  EXPECT_EQ(returned, 0);
  v.setInitialized();  // one call wakes both
  a.join();
  b.join();
  EXPECT_EQ(returned, 2);
  EXPECT_EQ(sortedLines(cerr.text()),
            (std::vector<std::string>{
                "ThreadA is being blocked until Drive A has been initialized!",
                "ThreadB is being blocked until Drive A has been initialized!"}));
  // Later waits print nothing more.
  v.waitUntilInitialized("ThreadC");
  EXPECT_EQ(sortedLines(cerr.text()).size(), 2u);
}

TEST(InitCondVar, NullWhoFailsOnlyItsOwnLine) {
  CerrToString cerr;
  InitCondVar v("Heap");
  std::atomic<pid_t> tid{0};
  std::thread t([&] {
    tid = currentTid();
    v.waitUntilInitialized(nullptr);
  });
  while (tid == 0) std::this_thread::yield();
  // Asleep means inside the wait: nothing else here blocks it.
  ASSERT_TRUE(waitUntilAsleep(tid));
  EXPECT_EQ(cerr.text(), "");
  EXPECT_TRUE(std::cerr.good());  // the failed chain did not leave the stream failed
  v.setInitialized();
  t.join();
  InitCondVar w("Timer");
  std::thread u([&] { w.waitUntilInitialized("Tester"); });
  ASSERT_TRUE(cerr.waitForLines(1));
  w.setInitialized();
  u.join();
  EXPECT_EQ(cerr.text(), "Tester is being blocked until Timer has been initialized!\n");
}

TEST(InitCondVar, Types) {
  static_assert(std::has_virtual_destructor<InitCondVar>::value, "");
  static_assert(!std::is_copy_constructible<InitCondVar>::value, "");
  static_assert(!std::is_copy_assignable<InitCondVar>::value, "");
}
