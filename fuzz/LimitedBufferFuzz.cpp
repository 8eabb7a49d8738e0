// util::LimitedBuffer against the history and byte-ring model: a ring size, a state value list
// size and a sequence of add, addf, addStateValueList and print decoded from the input. After
// every step the ring's bytes, write position, valid size and list count must be the model's;
// every print must be the model's text. Pieces the buffer would refuse by assertion (not shorter
// than the ring) are not passed.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>

#include "FuzzSupport.hpp"
#include "Orvix/CppLimitedBuffer.hpp"
#include "models/LimitedBufferModel.hpp"

using orvix_fuzz::quoted;
using util::LimitedBuffer;

namespace {

// addf keeps at most this many characters of its output.
constexpr std::size_t kAddfLimit = 511;

std::string printed(LimitedBuffer& lb) {
  std::ostringstream os;
  lb.print(os);
  return os.str();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LimitedBuffer::setEnabled(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  // Rings beyond addf's limit occur too, so that its cut is reached.
  const std::size_t cap = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::size_t>(2, 64)
                                           : in.ConsumeIntegralInRange<std::size_t>(2, 700);
  const int listBytes = in.ConsumeIntegralInRange(1, 4);
  const auto format = [listBytes](std::ostream& os, const char* values) {
    os << '<';
    for (int i = 0; i < listBytes; ++i) {
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(values[i]));
      os << hex;
    }
    os << '>';
  };
  LimitedBuffer lb(cap, listBytes, format);
  orvix_model::LimitedBufferModel model(cap);
  int step = 0;
  while (in.remaining_bytes() > 0) {
    const int op = in.ConsumeIntegralInRange(0, 4);
    switch (op) {
      case 0: {  // raw bytes, NULs included
        const std::string piece =
            in.ConsumeBytesAsString(in.ConsumeIntegralInRange<std::size_t>(0, cap - 1));
        model.add(piece);
        lb.add(piece.data(), piece.size());
        break;
      }
      case 1: {  // a line of text through %s, possibly beyond the cut
        const std::string text = in.ConsumeRandomLengthString(2 * kAddfLimit);
        const std::string piece = std::string(text.c_str()).substr(0, kAddfLimit);  // %s ends at a NUL
        if (!model.fits(piece.size())) break;
        model.add(piece);
        lb.addf("%s", text.c_str());
        break;
      }
      case 2: {  // numbers and text through a format
        const int n = in.ConsumeIntegral<int>();
        const unsigned u = in.ConsumeIntegral<unsigned>();
        const int width = in.ConsumeIntegralInRange(0, 600);
        const std::string text = in.ConsumeRandomLengthString(64);
        char formatted[2048];
        const int length =
            std::snprintf(formatted, sizeof formatted, "[%d|%x|%*s]\n", n, u, width, text.c_str());
        const std::string piece(formatted, std::min<std::size_t>(length, kAddfLimit));
        if (!model.fits(piece.size())) break;
        model.add(piece);
        lb.addf("[%d|%x|%*s]\n", n, u, width, text.c_str());
        break;
      }
      case 3: {
        std::string record = in.ConsumeBytesAsString(static_cast<std::size_t>(listBytes));
        record.resize(static_cast<std::size_t>(listBytes), '\0');
        model.addList(record);
        lb.addStateValueList(record.data(), listBytes);
        break;
      }
      case 4: {
        const std::string text = printed(lb);
        const std::string expected = model.printed(format);
        FUZZ_REQUIRE(text == expected, "ring " << cap << ", step " << step << ": printed "
                                               << quoted(text) << ", model " << quoted(expected));
        break;
      }
    }
    const std::size_t written = model.writtenBytes();
    FUZZ_REQUIRE(std::string(lb.ringBegin(), written) == model.ring().substr(0, written),
                 "ring " << cap << ", step " << step << ": "
                         << quoted(std::string(lb.ringBegin(), written)) << ", model "
                         << quoted(model.ring().substr(0, written)));
    FUZZ_REQUIRE(lb.validSize() == model.validSize(), "step " << step);
    FUZZ_REQUIRE(static_cast<std::size_t>(lb.writePos() - lb.ringBegin()) == model.writeOffset(),
                 "step " << step);
    FUZZ_REQUIRE(static_cast<std::size_t>(lb.stateValueLists().getCount()) == model.listCount(),
                 "step " << step << ": " << lb.stateValueLists().getCount() << " lists, model "
                         << model.listCount());
    ++step;
  }
  const std::string text = printed(lb);
  FUZZ_REQUIRE(text == model.printed(format), "at the end: " << quoted(text));
  return 0;
}
