// Points in time and durations as seconds and nanoseconds.
//
// util::TimeSpec wraps a timespec and keeps it normalised: the nanoseconds lie strictly between
// minus and plus one second, and the two fields never have opposite signs (minus half a second
// is 0 s and -500000000 ns). Both fields behave as signed 32-bit values on every ABI, so
// arithmetic on the seconds wraps at 2^32 exactly as it does on the controller; on ABIs with a
// wider time_t the fields still hold only sign-extended 32-bit values, and to_c() hands the
// timespec itself to system calls.
//
// A TimeSpec is a plain value: no locking, no failures. Use one object from one thread at a
// time, like an int.
#pragma once

#include <time.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace util {

// A time value of seconds and nanoseconds (see above).
class TimeSpec {
 public:
  // Zero.
  TimeSpec();
  // Copies t (each field cut to 32 bits), then normalises.
  TimeSpec(timespec t);  // NOLINT: converting on purpose, system calls hand out timespecs
  virtual ~TimeSpec();
  TimeSpec(const TimeSpec&) = default;
  TimeSpec& operator=(const TimeSpec&) = default;

  // Sets both fields (each cut to 32 bits), then normalises.
  void init(long sec, long nsec);
  // clock_gettime(clock, ...); the result of the call is not checked, so a bad clock id leaves
  // the value as it was. Not normalised (the clock's value already is).
  void initNow(int clock);
  // ms / 1000 seconds and the remainder as nanoseconds, truncating; not normalised.
  void initFromMs(int ms);
  // Ticks of 10 ms: ticks / 100 seconds and the remainder as nanoseconds; not normalised.
  void initFromThreadXTicks(int ticks);
  // Brings the nanoseconds into range and the signs into agreement.
  void normalize();

  // Field by field with wrapping 32-bit arithmetic, then normalised.
  TimeSpec& operator+=(const TimeSpec& o);
  TimeSpec& operator-=(const TimeSpec& o);

  // Seconds by their wrapping 32-bit difference, then nanoseconds: right across a wrap of the
  // seconds counter for points less than about 68 years apart.
  bool operator<(const TimeSpec& o) const;

  // The value itself, for system calls.
  const timespec* to_c() const { return &ts; }

  // Seconds with exactly three decimals ("1.500", "-0.500").
  std::string toShortString() const;

  // The fields as the 32-bit values they are.
  int32_t sec() const { return static_cast<int32_t>(ts.tv_sec); }
  int32_t nsec() const { return static_cast<int32_t>(ts.tv_nsec); }

 private:
  // Stores both fields as sign-extended 32-bit values.
  void set(int32_t sec, int32_t nsec);

  timespec ts;
};

// "TimeSpec(<sec>s; <nsec>ns)", the numbers in os's current format.
std::ostream& operator<<(std::ostream& os, const TimeSpec& t);

}  // namespace util

// Sets os to decimal (and leaves it so), then writes "<sec>s <nsec>ns".
std::ostream& operator<<(std::ostream& os, const timespec& t);

// a - b for normalised values: fields subtracted (seconds wrapping at 32 bits), then one step
// to make the signs agree.
timespec subtract(timespec a, timespec b);
