// A counting semaphore destroyed while threads wait in it, with posts racing the destruction's
// own wake-ups.
#include "Orvix/CountingSemaphore.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "StressSupport.hpp"

using orvix_stress::pick;
using util::CountingSemaphore;
using util::CountingSemaphoreDeletingException;

namespace {

util::TimeSpec farRealtimeDeadline() {
  util::TimeSpec t;
  t.initNow(CLOCK_REALTIME);
  util::TimeSpec far;
  far.init(3600, 0);
  t += far;
  return t;
}

}  // namespace

// Each round: a semaphore with 0 to 2 units, 1 to 6 waiters (wait and timedwait), a poster
// adding 0 to 4 units while they wait. Once every waiter is inside its wait or has taken a unit
// and left, the semaphore is destroyed at a random moment. Every waiter leaves exactly once,
// with a unit or with the deleting exception; no more units are taken than there were; the
// destructor returns; every thread ends.
TEST(CountingSemaphoreStress, DestroyedWithWaitingThreads) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const int initial = pick(0, 2);
    const int waiters = pick(1, 6);
    const int posts = pick(0, 4);
    auto* sem = new CountingSemaphore(initial);
    std::atomic<int> taken{0}, deleted{0}, other{0}, finished{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i) {
      const bool timed = pick(0, 1) == 1;
      threads.emplace_back([&, timed] {
        try {
          if (timed)
            sem->timedwait(farRealtimeDeadline());
          else
            sem->wait();
          ++taken;
        } catch (const CountingSemaphoreDeletingException&) {
          ++deleted;
        } catch (...) {
          ++other;
        }
        ++finished;
      });
    }
    std::thread poster([&] {
      for (int i = 0; i < posts; ++i) {
        orvix_stress::spin(pick(0, 2000));
        sem->post();
      }
    });
    poster.join();  // a post racing the end of the destructor would use freed memory
    // Safe to destroy once every waiter is counted inside or has left for good: read the ones
    // that left first, so that none is counted twice.
    for (;;) {
      const int left = finished.load();
      if (left + sem->waitingThreads() == waiters) break;
      std::this_thread::yield();
    }
    orvix_stress::spin(pick(0, 5000));
    delete sem;
    for (auto& t : threads) t.join();
    ASSERT_EQ(other.load(), 0) << "round " << round;
    ASSERT_EQ(taken + deleted, waiters) << "round " << round;
    ASSERT_LE(taken.load(), initial + posts) << "round " << round;
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
