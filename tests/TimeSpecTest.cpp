#include "Orvix/TimeSpec.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <climits>
#include <cstdint>
#include <iomanip>
#include <random>
#include <sstream>
#include <type_traits>
#include <vector>

#include "models/TimeSpecModel.hpp"

namespace {

using orvix_model::TimeSpecModel;
using util::TimeSpec;

constexpr int64_t kG = 1000000000;

// The value as a pair, for readable expectations.
std::pair<int64_t, int64_t> fields(const TimeSpec& t) {
  return {static_cast<int64_t>(t.to_c()->tv_sec), static_cast<int64_t>(t.to_c()->tv_nsec)};
}

std::pair<int64_t, int64_t> fields(const timespec& t) {
  return {static_cast<int64_t>(t.tv_sec), static_cast<int64_t>(t.tv_nsec)};
}

TimeSpec make(long sec, long nsec) {
  TimeSpec t;
  t.init(sec, nsec);
  return t;
}

timespec raw(int64_t sec, int64_t nsec) {
  timespec t{};
  t.tv_sec = static_cast<time_t>(sec);
  t.tv_nsec = static_cast<long>(nsec);
  return t;
}

}  // namespace

// ---- Construction and conversions ---------------------------------------------------------------

TEST(TimeSpec, DefaultIsZero) {
  TimeSpec t;
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{0}));
}

TEST(TimeSpec, FieldsAreThirtyTwoBitEverywhere) {
  TimeSpec t;
  static_assert(std::is_same<decltype(t.sec()), int32_t>::value, "seconds are 32-bit");
  static_assert(std::is_same<decltype(t.nsec()), int32_t>::value, "nanoseconds are 32-bit");
  static_assert(std::is_polymorphic<TimeSpec>::value, "virtual destructor");
}

TEST(TimeSpec, InitNormalisesOverflowingNanoseconds) {
  EXPECT_EQ(fields(make(0, 1500000000)), std::make_pair(int64_t{1}, int64_t{500000000}));
  EXPECT_EQ(fields(make(0, 2147483647)), std::make_pair(int64_t{2}, int64_t{147483647}));
  EXPECT_EQ(fields(make(0, -2147483647 - 1)), std::make_pair(int64_t{-2}, int64_t{-147483648}));
  EXPECT_EQ(fields(make(0, 1000000000)), std::make_pair(int64_t{1}, int64_t{0}));
  EXPECT_EQ(fields(make(0, 999999999)), std::make_pair(int64_t{0}, int64_t{999999999}));
  EXPECT_EQ(fields(make(0, -1000000000)), std::make_pair(int64_t{-1}, int64_t{0}));
  EXPECT_EQ(fields(make(0, -999999999)), std::make_pair(int64_t{0}, int64_t{-999999999}));
}

TEST(TimeSpec, InitMakesSignsAgree) {
  EXPECT_EQ(fields(make(1, -1)), std::make_pair(int64_t{0}, int64_t{999999999}));
  EXPECT_EQ(fields(make(-1, 1)), std::make_pair(int64_t{0}, int64_t{-999999999}));
  EXPECT_EQ(fields(make(0, -1)), std::make_pair(int64_t{0}, int64_t{-1}));
  EXPECT_EQ(fields(make(0, -500000000)), std::make_pair(int64_t{0}, int64_t{-500000000}));
  EXPECT_EQ(fields(make(-1, -500000000)), std::make_pair(int64_t{-1}, int64_t{-500000000}));
  EXPECT_EQ(fields(make(5, -1500000000)), std::make_pair(int64_t{3}, int64_t{500000000}));
  EXPECT_EQ(fields(make(-5, 1500000000)), std::make_pair(int64_t{-3}, int64_t{-500000000}));
}

TEST(TimeSpec, SecondsWrapAtThirtyTwoBits) {
  // INT32_MAX + 1 s wraps to INT32_MIN, whose sign then decides the last step.
  EXPECT_EQ(fields(make(2147483647, 1500000000)),
            std::make_pair(int64_t{-2147483647}, int64_t{-500000000}));
  EXPECT_EQ(fields(make(-2147483647 - 1, -1000000000)),
            std::make_pair(int64_t{2147483647}, int64_t{0}));
}

TEST(TimeSpec, ConstructorFromTimespecNormalises) {
  TimeSpec t(raw(1, -1));
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{999999999}));
  TimeSpec u(raw(0, 1500000000));
  EXPECT_EQ(fields(u), std::make_pair(int64_t{1}, int64_t{500000000}));
}

TEST(TimeSpec, WideFieldsAreCutToThirtyTwoBits) {
  if (sizeof(time_t) == 4) GTEST_SKIP() << "time_t is 32-bit here: nothing to cut";
  // 2^32 + 5 s is 5 s on the controller; 2^31 s is INT32_MIN.
  TimeSpec t(raw(4294967296LL + 5, 7));
  EXPECT_EQ(fields(t), std::make_pair(int64_t{5}, int64_t{7}));
  TimeSpec u(raw(2147483648LL, 0));
  EXPECT_EQ(fields(u), std::make_pair(int64_t{-2147483647 - 1}, int64_t{0}));
  TimeSpec v;
  v.init(static_cast<long>(4294967296LL * 3 - 1), 0);
  EXPECT_EQ(fields(v), std::make_pair(int64_t{-1}, int64_t{0}));
}

TEST(TimeSpec, FromMilliseconds) {
  TimeSpec t;
  t.initFromMs(-1500);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{-1}, int64_t{-500000000}));
  t.initFromMs(999);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{999000000}));
  t.initFromMs(0);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{0}));
  t.initFromMs(1000);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{1}, int64_t{0}));
  t.initFromMs(-1);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{-1000000}));
  t.initFromMs(INT_MAX);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{2147483}, int64_t{647000000}));
  t.initFromMs(INT_MIN);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{-2147483}, int64_t{-648000000}));
}

TEST(TimeSpec, FromTicksOfTenMilliseconds) {
  TimeSpec t;
  t.initFromThreadXTicks(250);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{2}, int64_t{500000000}));
  t.initFromThreadXTicks(99);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{990000000}));
  t.initFromThreadXTicks(-150);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{-1}, int64_t{-500000000}));
  t.initFromThreadXTicks(INT_MAX);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{21474836}, int64_t{470000000}));
  t.initFromThreadXTicks(INT_MIN);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{-21474836}, int64_t{-480000000}));
}

TEST(TimeSpec, InitNowReadsTheGivenClock) {
  for (clockid_t clock : {CLOCK_MONOTONIC, CLOCK_REALTIME}) {
    timespec before{};
    timespec after{};
    TimeSpec t;
    clock_gettime(clock, &before);
    t.initNow(clock);
    clock_gettime(clock, &after);
    EXPECT_FALSE(t < TimeSpec(before)) << "clock " << clock;
    EXPECT_FALSE(TimeSpec(after) < t) << "clock " << clock;
    EXPECT_GE(t.nsec(), 0);
    EXPECT_LE(t.nsec(), 999999999);
  }
}

TEST(TimeSpec, InitNowWithABadClockLeavesTheValue) {
  TimeSpec t = make(12, 34);
  t.initNow(-12345);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{12}, int64_t{34}));
}

TEST(TimeSpec, ToCPointsAtTheMember) {
  TimeSpec t = make(3, 4);
  const timespec* p = t.to_c();
  EXPECT_EQ(p, t.to_c());
  EXPECT_EQ(p->tv_sec, 3);
  EXPECT_EQ(p->tv_nsec, 4);
  t.init(5, 6);
  EXPECT_EQ(p->tv_sec, 5);  // the same object, now changed
  EXPECT_EQ(p->tv_nsec, 6);
}

// ---- Arithmetic and comparison -------------------------------------------------------------------

TEST(TimeSpec, AddCarriesAndNormalises) {
  TimeSpec t = make(1, 600000000);
  t += make(2, 700000000);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{4}, int64_t{300000000}));
  TimeSpec u = make(1, 0);
  u += make(0, -1);
  EXPECT_EQ(fields(u), std::make_pair(int64_t{0}, int64_t{999999999}));
  TimeSpec w = make(2147483647, 999999999);
  w += make(0, 1);
  EXPECT_EQ(fields(w), std::make_pair(int64_t{-2147483647 - 1}, int64_t{0}));
}

TEST(TimeSpec, AddReturnsItself) {
  TimeSpec t;
  TimeSpec& r = (t += make(1, 0));
  EXPECT_EQ(&r, &t);
  TimeSpec& q = (t -= make(1, 0));
  EXPECT_EQ(&q, &t);
}

TEST(TimeSpec, SubtractFieldByField) {
  TimeSpec t = make(1, 0);
  t -= make(0, 1);
  EXPECT_EQ(fields(t), std::make_pair(int64_t{0}, int64_t{999999999}));
  TimeSpec u = make(0, 1);
  u -= make(1, 0);
  EXPECT_EQ(fields(u), std::make_pair(int64_t{0}, int64_t{-999999999}));
  TimeSpec w = make(-2147483647 - 1, 0);
  w -= make(1, 0);
  EXPECT_EQ(fields(w), std::make_pair(int64_t{2147483647}, int64_t{0}));
}

TEST(TimeSpec, LessComparesSecondsThenNanoseconds) {
  EXPECT_TRUE(make(1, 5) < make(1, 6));
  EXPECT_FALSE(make(1, 6) < make(1, 5));
  EXPECT_FALSE(make(1, 5) < make(1, 5));
  EXPECT_TRUE(make(1, 999999999) < make(2, 0));
  EXPECT_FALSE(make(2, 0) < make(1, 999999999));
  EXPECT_TRUE(make(0, -5) < make(0, -4));
  EXPECT_TRUE(make(-1, 0) < make(0, 0));
  for (const TimeSpec& t : {make(0, 0), make(-3, -7), make(2147483647, 999999999)})
    EXPECT_FALSE(t < t);
}

TEST(TimeSpec, LessIsRightAcrossTheWrap) {
  // INT32_MAX s and the value one second later (wrapped to INT32_MIN).
  const TimeSpec late = make(-2147483647 - 1, 0);
  const TimeSpec early = make(2147483647, 0);
  EXPECT_TRUE(early < late);
  EXPECT_FALSE(late < early);
  // Values more than 2^31 s apart are misordered on purpose.
  EXPECT_FALSE(make(-2000000000, 0) < make(2000000000, 0));
  EXPECT_TRUE(make(2000000000, 0) < make(-2000000000, 0));
}

TEST(Subtract, Examples) {
  EXPECT_EQ(fields(subtract(raw(1, 0), raw(0, 1))),
            std::make_pair(int64_t{0}, int64_t{999999999}));
  EXPECT_EQ(fields(subtract(raw(0, 1), raw(1, 0))),
            std::make_pair(int64_t{0}, int64_t{-999999999}));
  EXPECT_EQ(fields(subtract(raw(5, 300), raw(2, 100))), std::make_pair(int64_t{3}, int64_t{200}));
  EXPECT_EQ(fields(subtract(raw(2, 100), raw(5, 300))),
            std::make_pair(int64_t{-3}, int64_t{-200}));
  EXPECT_EQ(fields(subtract(raw(7, 7), raw(7, 7))), std::make_pair(int64_t{0}, int64_t{0}));
}

TEST(Subtract, TakesOnlyOneStep) {
  // Not normalised input: the nanoseconds stay out of range.
  EXPECT_EQ(fields(subtract(raw(3, 0), raw(0, 1999999999))),
            std::make_pair(int64_t{2}, int64_t{-999999999}));
  // 0 s with negative nanoseconds is left alone.
  EXPECT_EQ(fields(subtract(raw(1, 0), raw(1, 1))), std::make_pair(int64_t{0}, int64_t{-1}));
}

TEST(Subtract, ZeroSecondsKeepWholeSecondsOfNanoseconds) {
  // Two normalised values whose nanoseconds differ by more than a second: the one step does not
  // touch a result of 0 s, so it keeps 1.8 s as nanoseconds.
  EXPECT_EQ(fields(subtract(raw(0, 900000000), raw(0, -900000000))),
            std::make_pair(int64_t{0}, int64_t{1800000000}));
}

TEST(Subtract, SecondsWrap) {
  EXPECT_EQ(fields(subtract(raw(-2147483647 - 1, 0), raw(1, 0))),
            std::make_pair(int64_t{2147483647}, int64_t{0}));
}

// ---- Text ----------------------------------------------------------------------------------------

TEST(TimeSpec, ShortString) {
  EXPECT_EQ(make(1, 500000000).toShortString(), "1.500");
  EXPECT_EQ(make(0, 1234567).toShortString(), "0.001");
  EXPECT_EQ(make(0, -500000000).toShortString(), "-0.500");
  EXPECT_EQ(make(0, 0).toShortString(), "0.000");
  EXPECT_EQ(make(0, 999999999).toShortString(), "1.000");
  EXPECT_EQ(make(-1, -500000000).toShortString(), "-1.500");
  EXPECT_EQ(make(12, 345678901).toShortString(), "12.346");
  EXPECT_EQ(make(2147483647, 0).toShortString(), "2147483647.000");
}

TEST(TimeSpec, OutputOperator) {
  std::ostringstream out;
  out << make(2, 500000000);
  EXPECT_EQ(out.str(), "TimeSpec(2s; 500000000ns)");
  std::ostringstream neg;
  neg << make(-1, -5);
  EXPECT_EQ(neg.str(), "TimeSpec(-1s; -5ns)");
}

TEST(TimeSpec, OutputOperatorUsesTheStreamsFormat) {
  std::ostringstream out;
  out << std::hex << make(26, 255) << " " << 255;
  EXPECT_EQ(out.str(), "TimeSpec(1as; ffns) ff");  // the stream stays hexadecimal
  std::ostringstream neg;
  neg << std::hex << make(-1, 0);
  EXPECT_EQ(neg.str(), "TimeSpec(ffffffffs; 0ns)");  // 32 bits on every ABI
  std::ostringstream wide;
  wide << std::setw(12) << std::setfill('*') << make(1, 2);
  EXPECT_EQ(wide.str(), "***TimeSpec(1s; 2ns)");  // the width applies to the first item only
}

TEST(TimespecOutput, SwitchesToDecimalAndStaysSo) {
  std::ostringstream out;
  out << std::hex << raw(2, 500000000) << " " << 255;
  EXPECT_EQ(out.str(), "2s 500000000ns 255");
  EXPECT_EQ(out.flags() & std::ios::basefield, std::ios::dec);
  std::ostringstream oct;
  oct << std::oct << raw(8, 8);
  EXPECT_EQ(oct.str(), "8s 8ns");
  std::ostringstream neg;
  neg << raw(-1, -2);
  EXPECT_EQ(neg.str(), "-1s -2ns");
}

// ---- Randomized differential test against the reference model ------------------------------------

namespace {

int64_t pickSeconds(std::mt19937& rng) {
  static const std::vector<int64_t> edges = {-2147483647LL - 1, -2147483647LL, -2147483646LL,
                                             -2, -1, 0, 1, 2, 2147483645LL, 2147483646LL,
                                             2147483647LL};
  switch (rng() % 4) {
    case 0:
      return edges[rng() % edges.size()];
    case 1:  // near the limits
      return (rng() % 2 ? 2147483647LL : -2147483647LL - 1) + (rng() % 2 ? -1 : 1) *
                                                                   static_cast<int64_t>(rng() % 5);
    case 2:
      return static_cast<int32_t>(rng());
    default:
      return static_cast<int64_t>(rng() % 2001) - 1000;
  }
}

int64_t pickNanos(std::mt19937& rng, bool anyInt32) {
  static const std::vector<int64_t> edges = {-2147483647LL - 1, -2000000000, -1999999999,
                                             -1000000000, -999999999, -1, 0, 1, 999999999,
                                             1000000000, 1999999999, 2000000000, 2147483647};
  if (rng() % 3 == 0) {
    const int64_t e = edges[rng() % edges.size()];
    if (anyInt32 || (e > -kG && e < kG)) return e;
  }
  if (anyInt32) return static_cast<int32_t>(rng());
  return static_cast<int64_t>(rng() % 1999999999u) - 999999999;
}

TimeSpecModel modelOf(const TimeSpec& t) { return TimeSpecModel{t.sec(), t.nsec()}; }

std::pair<int64_t, int64_t> fields(const TimeSpecModel& m) { return {m.sec, m.nsec}; }

}  // namespace

TEST(TimeSpecDifferential, AgainstReferenceModel) {
  std::mt19937 rng(20260422);
  for (int i = 0; i < 20000; ++i) {
    // normalize through init, from any 32-bit pair.
    const int64_t s = pickSeconds(rng);
    const int64_t ns = pickNanos(rng, true);
    const TimeSpec t = make(static_cast<long>(s), static_cast<long>(ns));
    ASSERT_EQ(fields(t), fields(TimeSpecModel::of(s, ns))) << "init(" << s << ", " << ns << ")";
    ASSERT_GT(t.nsec(), -kG);
    ASSERT_LT(t.nsec(), kG);
    ASSERT_FALSE(t.sec() > 0 && t.nsec() < 0);
    ASSERT_FALSE(t.sec() < 0 && t.nsec() > 0);
    // Away from the wrap the result is the truncating split of the total.
    TimeSpecModel split;
    if (TimeSpecModel::byTotal(s, ns, &split)) {
      ASSERT_EQ(fields(t), fields(split)) << s << " " << ns;
    }

    // Arithmetic, comparison and subtract on normalised operands.
    const TimeSpec a = make(static_cast<long>(pickSeconds(rng)),
                            static_cast<long>(pickNanos(rng, false)));
    const TimeSpec b = make(static_cast<long>(pickSeconds(rng)),
                            static_cast<long>(pickNanos(rng, false)));
    const TimeSpecModel ma = modelOf(a);
    const TimeSpecModel mb = modelOf(b);

    TimeSpec sum = a;
    sum += b;
    ASSERT_EQ(fields(sum), fields(ma.plus(mb))) << a << " + " << b;

    TimeSpec diff = a;
    diff -= b;
    ASSERT_EQ(fields(diff), fields(ma.minus(mb))) << a << " - " << b;
    if (TimeSpecModel::byTotal(ma.sec - mb.sec, ma.nsec - mb.nsec, &split)) {
      ASSERT_EQ(fields(diff), fields(split)) << a << " - " << b;
    }

    ASSERT_EQ(a < b, ma.less(mb)) << a << " < " << b;
    ASSERT_EQ(b < a, mb.less(ma)) << b << " < " << a;
    ASSERT_FALSE(a < a);
    if (ma.sec - mb.sec < 2147483648LL && mb.sec - ma.sec < 2147483648LL) {
      // Less than 2^31 s apart: the order of the real totals.
      ASSERT_EQ(a < b, ma.sec * kG + ma.nsec < mb.sec * kG + mb.nsec) << a << " < " << b;
    }

    const timespec sub = subtract(*a.to_c(), *b.to_c());
    ASSERT_EQ(fields(sub), fields(ma.subtract(mb))) << a << " minus " << b;
  }
}
