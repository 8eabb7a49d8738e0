// util::TimeSpec against the 64-bit model: a sequence of operations on four values, decoded from
// the input, each value compared field by field with its model after every step; comparisons,
// subtract() and the printed forms are compared as they are made.
#include <fuzzer/FuzzedDataProvider.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <ios>
#include <sstream>
#include <string>

#include "FuzzSupport.hpp"
#include "Orvix/TimeSpec.hpp"
#include "models/TimeSpecModel.hpp"

using orvix_model::TimeSpecModel;

namespace {

constexpr int kSlots = 4;

std::string show(const util::TimeSpec& t) {
  return std::to_string(t.sec()) + "s " + std::to_string(t.nsec()) + "ns";
}
std::string show(const TimeSpecModel& m) {
  return std::to_string(m.sec) + "s " + std::to_string(m.nsec) + "ns";
}

bool same(const util::TimeSpec& t, const TimeSpecModel& m) {
  return t.sec() == m.sec && t.nsec() == m.nsec;
}

// The model's normalised form agrees with the plain division of the total wherever the seconds
// did not wrap, neither field by field nor in the result: a check of the model itself.
void checkTotal(int64_t sec, int64_t nsec, const TimeSpecModel& stepped) {
  TimeSpecModel byTotal;
  if (TimeSpecModel::byTotal(sec, nsec, &byTotal))
    FUZZ_REQUIRE(byTotal == stepped, sec << "s " << nsec << "ns stepped to " << show(stepped)
                                          << ", by the total " << show(byTotal));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  util::TimeSpec values[kSlots];
  TimeSpecModel models[kSlots];
  while (in.remaining_bytes() > 0) {
    const int op = in.ConsumeIntegralInRange(0, 10);
    const int a = in.ConsumeIntegralInRange(0, kSlots - 1);
    const int b = in.ConsumeIntegralInRange(0, kSlots - 1);
    switch (op) {
      case 0: {  // init, each field cut to 32 bits
        const int64_t sec = in.ConsumeIntegral<int64_t>();
        const int64_t nsec = in.ConsumeIntegral<int64_t>();
        values[a].init(static_cast<long>(sec), static_cast<long>(nsec));
        const int64_t s = static_cast<int64_t>(static_cast<long>(sec));
        const int64_t ns = static_cast<int64_t>(static_cast<long>(nsec));
        models[a] = TimeSpecModel::of(s, ns);
        checkTotal(orvix_model::wrap32(s), orvix_model::wrap32(ns), models[a]);
        break;
      }
      case 1: {  // from a timespec
        timespec t{};
        t.tv_sec = static_cast<time_t>(in.ConsumeIntegral<int32_t>());
        t.tv_nsec = static_cast<long>(in.ConsumeIntegral<int32_t>());
        values[a] = util::TimeSpec(t);
        models[a] = TimeSpecModel::of(t.tv_sec, t.tv_nsec);
        checkTotal(t.tv_sec, t.tv_nsec, models[a]);
        break;
      }
      case 2: {
        const int32_t ms = in.ConsumeIntegral<int32_t>();
        values[a].initFromMs(ms);
        models[a] = TimeSpecModel::fromMs(ms);
        break;
      }
      case 3: {
        const int32_t ticks = in.ConsumeIntegral<int32_t>();
        values[a].initFromThreadXTicks(ticks);
        models[a] = TimeSpecModel::fromTicks(ticks);
        break;
      }
      case 4: {
        const TimeSpecModel before = models[a], other = models[b];  // a and b may be one slot
        values[a] += values[b];
        models[a] = before.plus(other);
        checkTotal(before.sec + other.sec, before.nsec + other.nsec, models[a]);
        break;
      }
      case 5: {
        const TimeSpecModel before = models[a], other = models[b];
        values[a] -= values[b];
        models[a] = before.minus(other);
        checkTotal(before.sec - other.sec, before.nsec - other.nsec, models[a]);
        break;
      }
      case 6:
        FUZZ_REQUIRE((values[a] < values[b]) == models[a].less(models[b]),
                     show(values[a]) << " < " << show(values[b]));
        break;
      case 7: {
        const timespec d = subtract(*values[a].to_c(), *values[b].to_c());
        const TimeSpecModel expected = models[a].subtract(models[b]);
        FUZZ_REQUIRE(d.tv_sec == expected.sec && d.tv_nsec == expected.nsec,
                     show(values[a]) << " - " << show(values[b]) << " gave " << d.tv_sec << "s "
                                     << d.tv_nsec << "ns, model " << show(expected));
        break;
      }
      case 8:
        FUZZ_REQUIRE(values[a].toShortString() == models[a].shortString(),
                     show(values[a]) << " as " << values[a].toShortString());
        break;
      case 9: {
        std::ostringstream os;
        os << values[a];
        FUZZ_REQUIRE(os.str() == models[a].printed(), os.str());
        // The plain timespec form switches a hexadecimal stream to decimal and leaves it so.
        std::ostringstream plain;
        plain << std::hex << *values[a].to_c() << ' ' << 255;
        FUZZ_REQUIRE(plain.str() == std::to_string(models[a].sec) + "s " +
                                        std::to_string(models[a].nsec) + "ns 255",
                     plain.str());
        break;
      }
      case 10:  // normalising a normalised (or freshly converted) value changes nothing
        values[a].normalize();
        models[a].normalize();
        break;
    }
    for (int k = 0; k < kSlots; ++k)
      FUZZ_REQUIRE(same(values[k], models[k]), "slot " << k << " after op " << op << ": "
                                                       << show(values[k]) << ", model "
                                                       << show(models[k]));
  }
  return 0;
}
