#include "Orvix/TimeSpec.hpp"

#include <iomanip>
#include <sstream>

namespace {

constexpr int32_t kNsPerSec = 1000000000;
constexpr int32_t kNsMax = 999999999;

// Two's-complement wrapping, done in unsigned arithmetic where overflow is defined.
int32_t wrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t wrapSub(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// Cuts a field of any width to the 32-bit value the controller would hold.
template <class T>
int32_t low32(T v) {
  return static_cast<int32_t>(static_cast<uint32_t>(v));
}

// One step that gives the nanoseconds the sign of the seconds, borrowing or carrying one second.
// The seconds move towards zero, so the step cannot overflow.
void agreeSigns(int32_t& sec, int32_t& nsec) {
  if (sec > 0 && nsec < 0) {
    sec -= 1;
    nsec += kNsPerSec;
  } else if (sec < 0 && nsec > 0) {
    sec += 1;
    nsec -= kNsPerSec;
  }
}

}  // namespace

namespace util {

TimeSpec::TimeSpec() : ts{} {}

TimeSpec::TimeSpec(timespec t) : ts{} {
  set(low32(t.tv_sec), low32(t.tv_nsec));
  normalize();
}

TimeSpec::~TimeSpec() = default;

void TimeSpec::set(int32_t sec, int32_t nsec) {
  ts.tv_sec = sec;
  ts.tv_nsec = nsec;
}

void TimeSpec::init(long sec, long nsec) {
  set(low32(sec), low32(nsec));
  normalize();
}

void TimeSpec::initNow(int clock) {
  timespec now = ts;
  clock_gettime(static_cast<clockid_t>(clock), &now);
  set(low32(now.tv_sec), low32(now.tv_nsec));
}

void TimeSpec::initFromMs(int ms) {
  const int32_t m = ms;
  set(m / 1000, (m % 1000) * 1000000);
}

void TimeSpec::initFromThreadXTicks(int ticks) {
  const int32_t t = ticks;
  set(t / 100, (t % 100) * 10000000);
}

void TimeSpec::normalize() {
  int32_t s = sec();
  int32_t ns = nsec();
  // Two steps always suffice: a 32-bit value is less than three seconds of nanoseconds.
  if (ns > kNsMax) {
    ns -= kNsPerSec;
    s = wrapAdd(s, 1);
    if (ns > kNsMax) {
      ns -= kNsPerSec;
      s = wrapAdd(s, 1);
    }
  } else if (ns < -kNsMax) {
    ns += kNsPerSec;
    s = wrapSub(s, 1);
    if (ns < -kNsMax) {
      ns += kNsPerSec;
      s = wrapSub(s, 1);
    }
  }
  agreeSigns(s, ns);
  set(s, ns);
}

TimeSpec& TimeSpec::operator+=(const TimeSpec& o) {
  set(wrapAdd(sec(), o.sec()), wrapAdd(nsec(), o.nsec()));
  normalize();
  return *this;
}

TimeSpec& TimeSpec::operator-=(const TimeSpec& o) {
  set(wrapSub(sec(), o.sec()), wrapSub(nsec(), o.nsec()));
  normalize();
  return *this;
}

bool TimeSpec::operator<(const TimeSpec& o) const {
  const int32_t d = wrapSub(sec(), o.sec());
  if (d < 0) return true;
  if (d > 0) return false;
  return nsec() < o.nsec();
}

std::string TimeSpec::toShortString() const {
  std::ostringstream out;
  out << std::fixed << std::setprecision(3) << (nsec() / 1e9 + sec());
  return out.str();
}

std::ostream& operator<<(std::ostream& os, const TimeSpec& t) {
  // Written as the 32-bit values, so hexadecimal output is the same on every ABI.
  return os << "TimeSpec(" << t.sec() << "s; " << t.nsec() << "ns)";
}

}  // namespace util

std::ostream& operator<<(std::ostream& os, const timespec& t) {
  os << std::dec << t.tv_sec << "s " << t.tv_nsec << "ns";
  return os;
}

timespec subtract(timespec a, timespec b) {
  int32_t sec = wrapSub(low32(a.tv_sec), low32(b.tv_sec));
  int32_t nsec = wrapSub(low32(a.tv_nsec), low32(b.tv_nsec));
  agreeSigns(sec, nsec);
  timespec r{};
  r.tv_sec = sec;
  r.tv_nsec = nsec;
  return r;
}
