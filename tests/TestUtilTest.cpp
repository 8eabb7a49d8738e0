#include "Orvix/TestUtil.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <iostream>
#include <regex>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.hpp"

using orvix_test::CaptureFd;

// ---- TestThreadState -----------------------------------------------------------------------------

TEST(TestThreadState, CountsAndResets) {
  util::TestThreadState s("S");
  EXPECT_EQ(s.get(), 0);
  EXPECT_EQ(s.inc(), 1);
  EXPECT_EQ(s.inc(), 2);
  EXPECT_EQ(s.get(), 2);
  s.reset();
  EXPECT_EQ(s.get(), 0);
}

TEST(TestThreadState, IncStateWritesItsLine) {
  util::TestThreadState s("worker");
  std::ostringstream out;
  s.incState(out);
  s.incState(out);
  EXPECT_EQ(out.str(), "Inc worker to 1\nInc worker to 2\n");
}

TEST(TestThreadState, IncAndCheck) {
  util::TestThreadState s("phase");
  std::ostringstream out;
  CaptureFd err(2);
  EXPECT_TRUE(s.incAndCheckState1(1, out));
  EXPECT_EQ(out.str(), "Inc phase to 1\n");
  EXPECT_FALSE(s.incAndCheckState1(1, out));
  EXPECT_EQ(out.str(), "Inc phase to 1\nInc phase to 2\n");
  EXPECT_EQ(err.text(), "** Unexpected state phase after incrementation: 2 instead of 1\n");
}

TEST(TestThreadState, Check) {
  util::TestThreadState s("phase");
  s.inc();
  s.inc();
  std::ostringstream out;
  CaptureFd err(2);
  EXPECT_TRUE(s.checkState1(2, out));
  EXPECT_FALSE(s.checkState1(5, out));
  EXPECT_EQ(out.str(), "State phase == 2 is true!\n");
  EXPECT_EQ(err.text(), "** Unexpected state phase: 2 instead of 5\n");
  EXPECT_EQ(s.get(), 2);  // checking does not count
}

TEST(TestThreadState, SharedByThreads) {
  util::TestThreadState s("shared");
  std::vector<std::thread> ts;
  for (int i = 0; i < 4; ++i)
    ts.emplace_back([&] {
      for (int j = 0; j < 1000; ++j) s.inc();
    });
  for (auto& t : ts) t.join();
  EXPECT_EQ(s.get(), 4000);
}

TEST(TestThreadState, Types) {
  static_assert(std::has_virtual_destructor<util::TestThreadState>::value, "");
  static_assert(std::has_virtual_destructor<util::TimeLimit>::value, "");
  static_assert(std::has_virtual_destructor<orvix::test::AsyncInput>::value, "");
  util::TestSleeps sleeps(42);
  EXPECT_EQ(sleeps.value, 42);
}

// ---- TimeLimit -----------------------------------------------------------------------------------

namespace {

// Places the start of l ms milliseconds before now (after it for a negative ms).
void startAgo(util::TimeLimit& l, int ms) {
  l.start = orvix_test::deadlineIn(CLOCK_MONOTONIC, -ms);
}

const std::string kDiffLine = "diff: TimeSpec\\((-?[0-9]+)s; (-?[0-9]+)ns\\)\n";

}  // namespace

TEST(TimeLimit, StartsNowOnTheMonotonicClock) {
  util::TimeSpec before;
  before.initNow(CLOCK_MONOTONIC);
  util::TimeLimit l;
  util::TimeSpec after;
  after.initNow(CLOCK_MONOTONIC);
  EXPECT_FALSE(l.start < before);
  EXPECT_FALSE(after < l.start);
}

TEST(TimeLimit, InsideTheWindowIsQuiet) {
  util::TimeLimit l;
  startAgo(l, 950);  // 909 ms to 1100 ms for 10 x 100 ms and 1.1
  CaptureFd err(2);
  EXPECT_TRUE(l.checkAround(10, 100, 1.1));
  EXPECT_EQ(err.text(), "");
}

TEST(TimeLimit, AboveTheWindowPrintsThreeLines) {
  util::TimeLimit l;
  startAgo(l, 1200);
  CaptureFd err(2);
  EXPECT_FALSE(l.checkAround(10, 100, 1.1));
  const std::string text = err.text();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(text, m,
                               std::regex("minDiff: TimeSpec\\(0s; 909000000ns\\)\n" + kDiffLine +
                                          "maxDiff: TimeSpec\\(1s; 100000000ns\\)\n")))
      << text;
  EXPECT_GE(std::stoll(m[1]) * 1000000000LL + std::stoll(m[2]), 1200000000LL);
}

TEST(TimeLimit, BelowTheWindowPrintsThreeLines) {
  util::TimeLimit l;
  startAgo(l, -10000);  // the start lies ahead: the span is negative, certainly too short
  CaptureFd err(2);
  EXPECT_FALSE(l.checkAround(10, 100, 1.1));
  const std::string text = err.text();
  EXPECT_TRUE(std::regex_match(text, std::regex("minDiff: TimeSpec\\(0s; 909000000ns\\)\n"
                                                "diff: TimeSpec\\(-[0-9]+s; -[0-9]+ns\\)\n"
                                                "maxDiff: TimeSpec\\(1s; 100000000ns\\)\n")))
      << text;
}

TEST(TimeLimit, FactorBelowOneCountsAsItsInverse) {
  // 0.9 is taken as 1/0.9: 900 ms to 1111 ms.
  util::TimeLimit l;
  startAgo(l, 5000);
  CaptureFd err(2);
  EXPECT_FALSE(l.checkAround(10, 100, 0.9));
  const std::string text = err.text();
  EXPECT_TRUE(std::regex_match(text, std::regex("minDiff: TimeSpec\\(0s; 900000000ns\\)\n" +
                                                kDiffLine +
                                                "maxDiff: TimeSpec\\(1s; 111000000ns\\)\n")))
      << text;
  util::TimeLimit inside;
  startAgo(inside, 1000);
  EXPECT_TRUE(inside.checkAround(10, 100, 0.9));
}

TEST(TimeLimit, ProductWrapsAtThirtyTwoBits) {
  // 65536 x 65537 wraps to 65536 ms.
  util::TimeLimit l;
  startAgo(l, 200000);
  CaptureFd err(2);
  EXPECT_FALSE(l.checkAround(65536, 65537, 1.0));
  const std::string text = err.text();
  EXPECT_EQ(text.substr(0, text.find('\n')), "minDiff: TimeSpec(65s; 536000000ns)") << text;
}

TEST(TimeLimit, RealSleepInsideTheWindow) {
  // One real measurement with a wide window: 300 ms against 100 ms to 900 ms.
  util::TimeLimit l;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(l.checkAround(3, 100, 3.0));
}

// ---- Background input ----------------------------------------------------------------------------

namespace {

// A stream buffer that hands out its text only once release() was called, so that a reader
// blocks until then.
class GatedBuf : public std::streambuf {
 public:
  explicit GatedBuf(std::string text) : text_(std::move(text)) {}
  void release() { gate_.set_value(); }

 protected:
  int_type underflow() override {
    if (!opened_) {
      gate_.get_future().wait();
      opened_ = true;
      setg(&text_[0], &text_[0], &text_[0] + text_.size());
    }
    return gptr() < egptr() ? traits_type::to_int_type(*gptr()) : traits_type::eof();
  }

 private:
  std::string text_;
  std::promise<void> gate_;
  bool opened_ = false;  // used by the reading thread only
};

}  // namespace

TEST(AsyncInput, FutureFormReadsOneLine) {
  std::istringstream in("first line\nsecond\n");
  auto f = orvix::test::asyncInput(in);
  EXPECT_EQ(f.get(), "first line");
  std::string rest;
  std::getline(in, rest);
  EXPECT_EQ(rest, "second");
}

TEST(AsyncInput, FutureFormOnAFailedStreamIsEmpty) {
  std::istringstream in("");
  in.setstate(std::ios::failbit);
  EXPECT_EQ(orvix::test::asyncInput(in).get(), "");
}

TEST(AsyncInput, FutureFormRunsOnItsOwnThread) {
  GatedBuf buf("late\n");
  std::istream in(&buf);
  auto f = orvix::test::asyncInput(in);
  EXPECT_EQ(f.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  buf.release();
  EXPECT_EQ(f.get(), "late");
}

TEST(AsyncInput, ConditionFormReturnsAtOnceAndNotifies) {
  GatedBuf buf("typed\n");
  std::istream in(&buf);
  std::mutex m;
  std::condition_variable cv;
  bool finished = false;
  std::string line;
  orvix::test::asyncInput(in, m, cv, finished, line);  // returns although nothing was typed
  {
    std::lock_guard<std::mutex> l(m);
    EXPECT_FALSE(finished);
  }
  buf.release();
  std::unique_lock<std::mutex> l(m);
  cv.wait(l, [&] { return finished; });
  EXPECT_EQ(line, "typed");
}

namespace {

// Points std::cin at another buffer for one test (the object reads std::cin itself).
class CinFrom {
 public:
  explicit CinFrom(std::streambuf* buf) : old_(std::cin.rdbuf(buf)) { std::cin.clear(); }
  ~CinFrom() {
    std::cin.rdbuf(old_);
    std::cin.clear();
  }

 private:
  std::streambuf* old_;
};

}  // namespace

TEST(AsyncInput, ObjectReadsStandardInput) {
  GatedBuf buf("hello printer\nnext\n");
  CinFrom redirect(&buf);
  orvix::test::AsyncInput input;
  EXPECT_FALSE(input.done());  // nothing can have been read yet
  buf.release();
  EXPECT_EQ(input.join(), "hello printer");
  EXPECT_TRUE(input.done());
  input.wait();  // already there: returns at once
  EXPECT_EQ(input.join(), "hello printer");
}

TEST(AsyncInput, DestructorWaitsForTheLine) {
  GatedBuf buf("x\n");
  CinFrom redirect(&buf);
  std::atomic<bool> destroyed{false};
  std::thread owner([&] {
    { orvix::test::AsyncInput input; }
    destroyed = true;
  });
  std::this_thread::yield();
  EXPECT_FALSE(destroyed);  // the line cannot have come yet
  buf.release();
  owner.join();
  EXPECT_TRUE(destroyed);
}

TEST(AsyncInput, EndOfInputGivesAnEmptyLine) {
  std::istringstream empty("");
  CinFrom redirect(empty.rdbuf());
  orvix::test::AsyncInput input;
  EXPECT_EQ(input.join(), "");
}

// ---- enterIfInteractive --------------------------------------------------------------------------

TEST(EnterIfInteractive, NotInteractiveNeitherPrintsNorReads) {
  std::istringstream typed("one\ntwo\n");
  CinFrom redirect(typed.rdbuf());
  CaptureFd out(1);
  CaptureFd err(2);
  enterIfInteractive(false, "Weiter");
  std::string next;
  std::getline(std::cin, next);
  EXPECT_EQ(next, "one");
  EXPECT_EQ(err.text(), "");
  EXPECT_EQ(out.text(), "");
}

TEST(EnterIfInteractive, InteractivePromptsAndConsumesOneLine) {
  std::istringstream typed("one\ntwo\n");
  CinFrom redirect(typed.rdbuf());
  CaptureFd out(1);
  CaptureFd err(2);
  enterIfInteractive(true, "Druck starten");
  std::string next;
  std::getline(std::cin, next);
  EXPECT_EQ(next, "two");
  EXPECT_EQ(err.text(), "*** Nach ENTER: Druck starten ... > ");
  EXPECT_EQ(out.text(), "");
}
