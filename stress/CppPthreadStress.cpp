// orvix::Pthread started with random stack sizes in both forms, moved between handles,
// cancelled, joined and detached in racing orders.
#include "Orvix/CppPthread.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

#include "StressSupport.hpp"

using orvix::Pthread;
using orvix_stress::pick;

namespace {

// One thread's body and what it did.
struct Body {
  int steps = 0;
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  std::atomic<bool> gone{false};  // set last by a detached callable

  void* run() {
    ++begun;
    for (int i = 0; i < steps; ++i) {
      pthread_testcancel();
      sched_yield();
    }
    ++ended;
    return this;
  }
};

void* runBody(void* body) { return static_cast<Body*>(body)->run(); }

}  // namespace

// Each round: 1 to 5 threads, the function or the callable form at random, stacks of 0 to 64
// KiB, each handle possibly moved into another one; then each thread is joined, cancelled and
// joined, or detached. A joined thread gives back its own body's address, or PTHREAD_CANCELED
// only when it was cancelled; no body runs twice; a second join throws with code 3; detached
// bodies finish; no thread is left behind.
TEST(CppPthreadStress, StartCancelJoinDetachRaces) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const int n = pick(1, 5);
    std::vector<Body> bodies(static_cast<std::size_t>(n));
    std::vector<Pthread> handles(static_cast<std::size_t>(n));
    std::vector<int> plan(static_cast<std::size_t>(n));
    std::vector<bool> callable(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
      Body& body = bodies[static_cast<std::size_t>(i)];
      body.steps = pick(0, 300);
      plan[static_cast<std::size_t>(i)] = pick(0, 2);  // 0: join, 1: cancel and join, 2: detach
      const uint32_t stack = static_cast<uint32_t>(pick(0, 64));
      Pthread started;
      callable[static_cast<std::size_t>(i)] = pick(0, 1) == 1;
      if (!callable[static_cast<std::size_t>(i)]) {
        started = Pthread(runBody, &body, stack);
      } else if (plan[static_cast<std::size_t>(i)] == 2) {
        started = Pthread(Pthread::AlternativeFunc([&body] {
                            void* r = body.run();
                            body.gone = true;
                            return r;
                          }),
                          stack);
      } else {
        started = Pthread(Pthread::AlternativeFunc([&body] { return body.run(); }), stack);
      }
      // Into the vector by move assignment or through a moved-constructed temporary.
      if (pick(0, 1) == 0) {
        handles[static_cast<std::size_t>(i)] = std::move(started);
      } else {
        Pthread moved(std::move(started));
        handles[static_cast<std::size_t>(i)] = std::move(moved);
      }
      ASSERT_EQ(started.getState(), Pthread::EMPTY);
    }
    for (int i = 0; i < n; ++i) {
      Pthread& h = handles[static_cast<std::size_t>(i)];
      Body& body = bodies[static_cast<std::size_t>(i)];
      const int what = plan[static_cast<std::size_t>(i)];
      if (what == 2) {
        if (body.steps > 0 && pick(0, 1) == 0) orvix_stress::spin(pick(0, 20000));
        h.detach();
        ASSERT_EQ(h.getState(), Pthread::EMPTY);
        continue;
      }
      if (what == 1) {
        orvix_stress::spin(pick(0, 20000));
        pthread_cancel(h.getThread());
      }
      void* const result = h.join();
      ASSERT_EQ(h.getState(), Pthread::JOINED);
      if (result == PTHREAD_CANCELED) {
        ASSERT_EQ(what, 1) << "round " << round << " thread " << i;
        ASSERT_EQ(body.ended.load(), 0) << "round " << round << " thread " << i;
      } else {
        ASSERT_EQ(result, &body) << "round " << round << " thread " << i;
        ASSERT_EQ(body.ended.load(), 1) << "round " << round << " thread " << i;
      }
      ASSERT_LE(body.begun.load(), 1);
      if (i == 0) {
        try {
          h.join();
          ADD_FAILURE() << "a second join returned";
        } catch (const std::system_error& e) {
          ASSERT_EQ(e.code().value(), 3);
        }
      }
    }
    // The detached threads end on their own: wait for each one's last touch of its body
    // before the bodies go, then for the threads themselves.
    for (int i = 0; i < n; ++i) {
      const Body& body = bodies[static_cast<std::size_t>(i)];
      if (plan[static_cast<std::size_t>(i)] != 2) continue;
      while (!(callable[static_cast<std::size_t>(i)] ? body.gone.load() : body.ended.load() == 1))
        std::this_thread::yield();
      ASSERT_EQ(body.begun.load(), 1) << "round " << round << " thread " << i;
      ASSERT_EQ(body.ended.load(), 1) << "round " << round << " thread " << i;
    }
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
