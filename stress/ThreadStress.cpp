// util::Thread started, cancelled and joined in racing orders.
#include "Orvix/Thread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix_stress::pick;

namespace {

// A body that runs a given number of steps, each passing a cancellation point, and counts its
// beginning and its normal end. The cancellation point is pthread_testcancel: ThreadSanitizer
// loses track of a thread cancelled inside a call it intercepts (nanosleep, for one), and then
// reports the thread key's end bookkeeping, under the thread's own lock, as a race.
class Worker : public util::Thread {
 public:
  Worker(int steps) : util::Thread("stress"), steps_(steps) {}
  ~Worker() override = default;

  void run() override {
    ++begun;
    for (int i = 0; i < steps_; ++i) {
      pthread_testcancel();
      sched_yield();
    }
    ++ended;
  }

  std::atomic<int> begun{0};
  std::atomic<int> ended{0};

 private:
  const int steps_;
};

}  // namespace

// Each round: 1 to 5 threads with 0 to 300 steps; each is cancelled right after start, after a
// random moment, from another thread while it is being joined, or not at all, and joined by one
// or two threads. Afterwards every thread is TS_FINISHED (never TS_FAILED), its body began at
// most once and ended at most once, a thread that was not cancelled ran its body to the end,
// and destroying the objects leaves no thread behind.
TEST(ThreadStress, StartCancelJoinRaces) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const int n = pick(1, 5);
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<int> plan;
    for (int i = 0; i < n; ++i) {
      workers.push_back(std::make_unique<Worker>(pick(0, 300)));
      plan.push_back(pick(0, 3));  // 0: not cancelled, 1: at once, 2: later, 3: while joined
    }
    for (int i = 0; i < n; ++i) {
      workers[static_cast<std::size_t>(i)]->start();
      if (plan[static_cast<std::size_t>(i)] == 1) workers[static_cast<std::size_t>(i)]->cancel();
    }
    std::vector<std::thread> helpers;
    for (int i = 0; i < n; ++i) {
      Worker& w = *workers[static_cast<std::size_t>(i)];
      switch (plan[static_cast<std::size_t>(i)]) {
        case 2:
          orvix_stress::spin(pick(0, 20000));
          w.cancel();
          break;
        case 3: {
          const int delay = pick(0, 20000);
          helpers.emplace_back([&w, delay] {
            orvix_stress::spin(delay);
            w.cancel();
          });
          break;
        }
        default:
          break;
      }
      if (pick(0, 1) == 1) helpers.emplace_back([&w] { w.join(); });  // a second joiner
    }
    for (auto& w : workers) w->join();
    for (auto& h : helpers) h.join();
    for (int i = 0; i < n; ++i) {
      const Worker& w = *workers[static_cast<std::size_t>(i)];
      ASSERT_EQ(w.getState(), util::TS_FINISHED) << "round " << round << " thread " << i;
      ASSERT_LE(w.begun.load(), 1) << "round " << round << " thread " << i;
      ASSERT_LE(w.ended.load(), w.begun.load()) << "round " << round << " thread " << i;
      if (plan[static_cast<std::size_t>(i)] == 0) {
        ASSERT_EQ(w.ended.load(), 1) << "round " << round << " thread " << i;
      }
    }
    workers.clear();  // reaps every thread
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
