// The bit streams against lists of bits: an operation sequence decoded from the input drives a
// BitOutputStream over a VecByteOutputStream (writes of any valid index and count, single bits,
// flushes, resets) and a BitInputStream over a VecByteInputStream of bytes from the input (reads
// of 1 to 32 bits and single bits, past the end included), and calls the field helpers bits and
// setBits. After every step the sink holds what the model says; every read gives the model's
// bits; the input stream has fetched exactly the bytes holding the bits read. Writes after a
// flush that left a partial byte would abort by design and are not made.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.hpp"
#include "Orvix/CppBitStream.hpp"
#include "Orvix/CppBits.hpp"
#include "models/BitStreamModel.hpp"

namespace {

// Counts the bytes the bit stream fetches from a VecByteInputStream.
class CountingSource : public IByteInputStream {
 public:
  explicit CountingSource(std::vector<uint8_t> bytes) : vec_(std::move(bytes)) {}
  uint8_t readUint8() override {
    ++fetched;
    return vec_.readUint8();
  }
  std::size_t fetched = 0;

 private:
  VecByteInputStream vec_;
};

std::string hex(const std::vector<uint8_t>& bytes) {
  static const char* kHex = "0123456789abcdef";
  std::string s;
  for (uint8_t b : bytes) s += std::string{kHex[b >> 4], kHex[b & 15], ' '};
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const std::vector<uint8_t> source =
      in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 48));
  CountingSource src(source);
  const auto reader = BitInputStream::create(src);
  orvix_model::InputModel readModel{source};
  VecByteOutputStream sink;
  const auto writer = BitOutputStream::create(sink);
  orvix_model::OutputModel writeModel;
  int step = 0;
  while (in.remaining_bytes() > 0) {
    switch (in.ConsumeIntegralInRange(0, 8)) {
      case 0:
      case 1: {  // a field from any bit of the value; bits at 32 and above read as 0
        const int lowBitIdx = in.ConsumeIntegralInRange(0, 64);
        const int numBits = in.ConsumeIntegralInRange(0, 64 - lowBitIdx);
        const uint32_t value = in.ConsumeIntegral<uint32_t>();
        if (writeModel.ended) break;
        writer->write(lowBitIdx, numBits, value);
        writeModel.write(lowBitIdx, numBits, value);
        break;
      }
      case 2: {
        const bool b = in.ConsumeBool();
        if (writeModel.ended) break;
        writer->writeBit(b);
        writeModel.write(0, 1, b ? 1 : 0);
        break;
      }
      case 3:
        writer->flush();
        writeModel.flush();
        break;
      case 4:
        if (in.ConsumeIntegralInRange(0, 3) != 0) break;  // seldom: it empties the sink
        writer->reset();
        writeModel.reset();
        break;
      case 5: {
        const int n = in.ConsumeIntegralInRange(1, 32);
        const std::size_t at = readModel.pos;
        const uint32_t got = reader->read(n);
        const uint32_t expected = readModel.read(n);
        FUZZ_REQUIRE(got == expected, "read(" << n << ") at bit " << at << " of " << hex(source)
                                              << "gave " << got << ", model " << expected);
        break;
      }
      case 6: {
        const std::size_t at = readModel.pos;
        const bool got = reader->read();
        FUZZ_REQUIRE(got == readModel.read(), "read() at bit " << at << " of " << hex(source));
        break;
      }
      case 7: {  // bits() on its own
        const uint64_t value = in.ConsumeIntegral<uint64_t>();
        const int low = in.ConsumeIntegralInRange(0, 63);
        const int count = in.ConsumeIntegralInRange(1, 64 - low);
        uint64_t expected = 0;
        for (int i = 0; i < count; ++i) expected |= ((value >> (low + i)) & 1u) << i;
        FUZZ_REQUIRE(bits(value, low, count) == expected,
                     "bits(" << value << ", " << low << ", " << count << ")");
        break;
      }
      case 8: {  // setBits() on its own
        uint32_t target = in.ConsumeIntegral<uint32_t>();
        const uint32_t before = target;
        const int low = in.ConsumeIntegralInRange(0, 31);
        const int count = in.ConsumeIntegralInRange(0, 32 - low);
        const uint32_t value = in.ConsumeIntegral<uint32_t>();
        uint32_t expected = before;
        for (int i = 0; i < count; ++i) {
          const uint32_t bit = 1u << (low + i);
          expected = ((value >> i) & 1u) != 0 ? expected | bit : expected & ~bit;
        }
        setBits(target, low, count, value);
        FUZZ_REQUIRE(target == expected, "setBits(" << before << ", " << low << ", " << count
                                                    << ", " << value << ") gave " << target);
        break;
      }
    }
    FUZZ_REQUIRE(sink.bytes() == writeModel.sink, "step " << step << ": sink " << hex(sink.bytes())
                                                          << "model " << hex(writeModel.sink));
    FUZZ_REQUIRE(sink.bytesWritten() == sink.bytes().size(), "step " << step);
    FUZZ_REQUIRE(src.fetched == readModel.bytesFetched(),
                 "step " << step << ": fetched " << src.fetched << " bytes for " << readModel.pos
                         << " bits");
    ++step;
  }
  return 0;
}
