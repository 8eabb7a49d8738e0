// Reference model of util::TimeSpec's arithmetic in 64-bit integers: each field computed exactly
// and then cut to the signed 32 bits the controller holds, wherever the 32-bit fields would wrap.
// A second, independent reading (the value as one count of nanoseconds, divided with truncation)
// must agree with it whenever the seconds do not wrap.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace orvix_model {

// The low 32 bits of v as a signed value (two's complement).
inline int64_t wrap32(int64_t v) {
  const uint32_t low = static_cast<uint32_t>(static_cast<uint64_t>(v));
  return low >= 0x80000000u ? static_cast<int64_t>(low) - 0x100000000LL : low;
}

struct TimeSpecModel {
  int64_t sec = 0;   // always within the signed 32-bit range
  int64_t nsec = 0;  // likewise

  static constexpr int64_t kNsPerSec = 1000000000;

  // Fields cut to 32 bits, then normalised.
  static TimeSpecModel of(int64_t sec, int64_t nsec) {
    TimeSpecModel m{wrap32(sec), wrap32(nsec)};
    m.normalize();
    return m;
  }
  static TimeSpecModel fromMs(int32_t ms) { return {ms / 1000, (ms % 1000) * 1000000LL}; }
  static TimeSpecModel fromTicks(int32_t ticks) {
    return {ticks / 100, (ticks % 100) * 10000000LL};
  }

  // At most two whole seconds out of the nanoseconds (the seconds wrapping), then one step to make
  // the signs agree.
  void normalize() {
    for (int step = 0; step < 2 && nsec >= kNsPerSec; ++step) nsec -= kNsPerSec, sec = wrap32(sec + 1);
    for (int step = 0; step < 2 && nsec <= -kNsPerSec; ++step) nsec += kNsPerSec, sec = wrap32(sec - 1);
    agreeSigns();
  }
  void agreeSigns() {
    if (sec > 0 && nsec < 0) {
      sec -= 1, nsec += kNsPerSec;
    } else if (sec < 0 && nsec > 0) {
      sec += 1, nsec -= kNsPerSec;
    }
  }

  TimeSpecModel plus(const TimeSpecModel& o) const {
    TimeSpecModel m{wrap32(sec + o.sec), wrap32(nsec + o.nsec)};
    m.normalize();
    return m;
  }
  TimeSpecModel minus(const TimeSpecModel& o) const {
    TimeSpecModel m{wrap32(sec - o.sec), wrap32(nsec - o.nsec)};
    m.normalize();
    return m;
  }
  // The wrapping difference of the seconds decides, then the nanoseconds.
  bool less(const TimeSpecModel& o) const {
    const int64_t d = wrap32(sec - o.sec);
    return d != 0 ? d < 0 : nsec < o.nsec;
  }
  // The free subtract(): fields subtracted, then only the sign step.
  TimeSpecModel subtract(const TimeSpecModel& o) const {
    TimeSpecModel m{wrap32(sec - o.sec), wrap32(nsec - o.nsec)};
    m.agreeSigns();
    return m;
  }

  // The value as one count of nanoseconds, cut back into fields by truncating division: the
  // normalised form of {sec, nsec} when neither the seconds given nor those of the result
  // leave 32 bits. False where they do.
  static bool byTotal(int64_t sec, int64_t nsec, TimeSpecModel* out) {
    if (sec != wrap32(sec)) return false;
    const int64_t total = sec * kNsPerSec + nsec;
    const int64_t s = total / kNsPerSec;
    if (s != wrap32(s)) return false;
    *out = {s, total % kNsPerSec};
    return true;
  }

  std::string shortString() const {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(nsec) / 1e9 + static_cast<double>(sec));
    return text;
  }
  std::string printed() const {
    return "TimeSpec(" + std::to_string(sec) + "s; " + std::to_string(nsec) + "ns)";
  }

  bool operator==(const TimeSpecModel& o) const { return sec == o.sec && nsec == o.nsec; }
};

}  // namespace orvix_model
