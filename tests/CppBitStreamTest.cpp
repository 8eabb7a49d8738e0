#include "Orvix/CppBitStream.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.hpp"
#include "models/BitStreamModel.hpp"

namespace {

const char* kUnit = "Orvix/CppBitStream";
// Lines of the checks in Orvix/CppBitStream.cpp.
constexpr int kNormalizeLine = 63;
constexpr int kReadCountLine = 71;
constexpr int kReadDoneBitsLine = 72;
constexpr int kAppendDoneBitsLine = 98;
constexpr int kWriteBitIdxLine = 114;
// Line of the check of bits() in Orvix/CppBits.hpp.
constexpr int kBitsLine = 22;

const char* kRead = "virtual uint32_t BitInputStreamImpl::read(int)";
const char* kWrite = "virtual void BitOutputStreamImpl::write(int, int, uint32_t)";

void expectBitsAssertion(const std::function<void()>& fn) {
  orvix_test::expectAssertion(
      fn, "Orvix/CppBits", kBitsLine, "uint64_t bits(uint64_t, int, int)",
      "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx");
}

std::vector<uint8_t> bytes(std::initializer_list<int> list) {
  std::vector<uint8_t> v;
  for (int b : list) v.push_back(static_cast<uint8_t>(b));
  return v;
}

// A byte source that counts its calls and can run an action on a given call.
class CountingSource : public IByteInputStream {
 public:
  explicit CountingSource(std::vector<uint8_t> b) : inner(std::move(b)) {}
  uint8_t readUint8() override {
    ++calls;
    if (calls == actOnCall && action) action();
    return inner.readUint8();
  }
  VecByteInputStream inner;
  int calls = 0;
  int actOnCall = 0;
  std::function<void()> action;
};

// A byte sink that records every call.
class RecordingSink : public IByteOutputStream {
 public:
  void writeUint8(unsigned char b) override { log += "w" + std::to_string(b) + " "; }
  std::size_t bytesWritten() const override { return 0; }
  void reset() override { log += "reset "; }
  std::string log;
};

// A byte sink that prints every byte on standard output at once.
class PrintingSink : public IByteOutputStream {
 public:
  void writeUint8(unsigned char b) override {
    std::printf("w%d ", b);
    std::fflush(stdout);
  }
  std::size_t bytesWritten() const override { return 0; }
  void reset() override {}
};

// The input stream's doneBits field, found from the documented field order (vtable pointer,
// source reference, current byte, doneBits) and checked against known values before use.
int* doneBitsOf(BitInputStream& in) {
  auto* object = static_cast<char*>(dynamic_cast<void*>(&in));
  return reinterpret_cast<int*>(object + 2 * sizeof(void*) + 4);
}

}  // namespace

// ---- input ---------------------------------------------------------------------------------

TEST(BitInputStream, OneBitThenFifteen) {
  VecByteInputStream src(bytes({0x01, 0x80}));
  auto in = BitInputStream::create(src);
  EXPECT_EQ(in->read(1), 1u);
  EXPECT_EQ(in->read(15), 0x4000u);
}

TEST(BitInputStream, SixteenBitsAreLittleEndian) {
  VecByteInputStream src(bytes({0x01, 0x80}));
  auto in = BitInputStream::create(src);
  EXPECT_EQ(in->read(16), 0x8001u);
}

TEST(BitInputStream, ThirtyTwoBitsFromTheMiddleOfAByte) {
  CountingSource src(bytes({0xAD, 0x12, 0x34, 0x56, 0xF8}));
  auto in = BitInputStream::create(src);
  EXPECT_EQ(in->read(3), 0x5u);  // 0xAD = 10101 101
  EXPECT_EQ(src.calls, 1);
  // The 5 remaining bits of 0xAD, three whole bytes and 3 bits of 0xF8.
  EXPECT_EQ(in->read(32), 0x15u | (0x12u << 5) | (0x34u << 13) | (0x56u << 21) | (0x0u << 29));
  EXPECT_EQ(src.calls, 5);
  EXPECT_EQ(*doneBitsOf(*in), 3);
  EXPECT_EQ(in->read(5), 0x1Fu);  // 0xF8 >> 3
  EXPECT_EQ(src.calls, 5);
}

TEST(BitInputStream, FetchesEachByteOnlyWhenAReadNeedsIt) {
  CountingSource src(bytes({0xFF, 0x00, 0xAA}));
  auto in = BitInputStream::create(src);
  EXPECT_EQ(src.calls, 0);
  EXPECT_EQ(in->read(8), 0xFFu);
  EXPECT_EQ(src.calls, 1);  // the last bit of the byte used: nothing more fetched
  EXPECT_EQ(in->read(1), 0u);
  EXPECT_EQ(src.calls, 2);
  EXPECT_EQ(in->read(7), 0u);
  EXPECT_EQ(src.calls, 2);
  EXPECT_FALSE(in->read());
  EXPECT_EQ(src.calls, 3);
  EXPECT_TRUE(in->read());
  EXPECT_EQ(in->read(6), 0x2Au);
  EXPECT_EQ(src.calls, 3);
}

TEST(BitInputStream, SingleBitsComeLeastSignificantFirst) {
  VecByteInputStream src(bytes({0x96}));  // 1001 0110
  auto in = BitInputStream::create(src);
  std::string seen;
  for (int i = 0; i < 8; ++i) seen += in->read() ? '1' : '0';
  EXPECT_EQ(seen, "01101001");
}

TEST(BitInputStream, PastTheEndOfAVectorEverythingIsZero) {
  VecByteInputStream src(bytes({0xFF}));
  auto in = BitInputStream::create(src);
  EXPECT_EQ(in->read(4), 0xFu);
  EXPECT_EQ(in->read(8), 0xFu);
  EXPECT_EQ(in->read(32), 0u);
  EXPECT_FALSE(in->read());
  EXPECT_EQ(in->read(32), 0u);
}

TEST(VecByteInputStream, EmptyGivesZerosAndStaysAtItsEnd) {
  VecByteInputStream src({});
  EXPECT_EQ(src.readUint8(), 0);
  EXPECT_EQ(src.readUint8(), 0);
  VecByteInputStream two(bytes({7, 9}));
  EXPECT_EQ(two.readUint8(), 7);
  EXPECT_EQ(two.readUint8(), 9);
  EXPECT_EQ(two.readUint8(), 0);
  EXPECT_EQ(two.readUint8(), 0);
}

TEST(BitInputStreamDeathTest, ZeroBitReadPassesTheFirstCheckAndAbortsInBits) {
  expectBitsAssertion([] {
    VecByteInputStream src(bytes({1}));
    BitInputStream::create(src)->read(0);
  });
}

TEST(BitInputStreamDeathTest, CountsOutsideZeroTo32Abort) {
  for (int n : {33, -1}) {
    orvix_test::expectAssertion(
        [n] {
          VecByteInputStream src(bytes({1}));
          BitInputStream::create(src)->read(n);
        },
        kUnit, kReadCountLine, kRead, "numBits >= 0 && numBits <= 32");
  }
}

// The consistency checks of doneBits cannot fail through the interface; they are reached here by
// overwriting the field.
TEST(BitInputStreamDeathTest, DoneBitsOutOfRangeAbortsInReadAndInNormalize) {
  VecByteInputStream probeSrc(bytes({0xFF}));
  auto probe = BitInputStream::create(probeSrc);
  ASSERT_EQ(*doneBitsOf(*probe), 8);
  probe->read(3);
  ASSERT_EQ(*doneBitsOf(*probe), 3);
  probe->read(5);
  ASSERT_EQ(*doneBitsOf(*probe), 8);

  orvix_test::expectAssertion(
      [] {
        VecByteInputStream src(bytes({1}));
        auto in = BitInputStream::create(src);
        *doneBitsOf(*in) = 9;
        in->read(1);
      },
      kUnit, kReadDoneBitsLine, kRead, "doneBits >= 0 && doneBits <= 8");
  orvix_test::expectAssertion(
      [] {
        VecByteInputStream src(bytes({1}));
        auto in = BitInputStream::create(src);
        *doneBitsOf(*in) = -1;
        in->read();
      },
      kUnit, kNormalizeLine, "void BitInputStreamImpl::normalize()",
      "doneBits >= 0 && doneBits <= 8");
}

TEST(BitInputStreamDeathTest, DoneBitsChangedDuringAWholeByteFetchAborts) {
  orvix_test::expectAssertion(
      [] {
        CountingSource src(bytes({1, 2, 3, 4}));
        auto in = BitInputStream::create(src);
        int* doneBits = doneBitsOf(*in);
        src.actOnCall = 3;  // a fetch inside the loop over whole bytes
        src.action = [doneBits] { *doneBits = 5; };
        in->read(32);
      },
      kUnit, kAppendDoneBitsLine, "uint32_t BitInputStreamImpl::appendBits(uint32_t, int, int)",
      "doneBits == 0");
}

// ---- output --------------------------------------------------------------------------------

TEST(BitOutputStream, ThreeBitsAndFiveMakeOneByte) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 3, 5);
  out->write(0, 5, 0x1F);
  EXPECT_TRUE(sink.bytes().empty());
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0xFD}));
}

TEST(BitOutputStream, FirstArgumentIsTheLowestSourceBit) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(4, 4, 0xAB);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x0A}));
}

TEST(BitOutputStream, FullWordGoesOutAtOnce) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 32, 0x12345678);
  EXPECT_EQ(sink.bytes(), bytes({0x78, 0x56, 0x34, 0x12}));
  out->flush();  // nothing pending
  EXPECT_EQ(sink.bytes(), bytes({0x78, 0x56, 0x34, 0x12}));
}

TEST(BitOutputStream, FortyBitsEmitFourBytesAndKeepEightZeroBits) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 40, 1);
  EXPECT_EQ(sink.bytes(), bytes({0x01, 0x00, 0x00, 0x00}));
  out->write(0, 8, 0xEE);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x01, 0x00, 0x00, 0x00, 0x00, 0xEE}));
}

TEST(BitOutputStream, FillingTheWordAcrossCallsEmitsWhenItIsFull) {
  RecordingSink sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 30, 0);
  EXPECT_EQ(sink.log, "");
  out->write(0, 2, 3);
  EXPECT_EQ(sink.log, "w0 w0 w0 w192 ");
  out->write(0, 7, 0x7F);
  out->writeBit(true);
  EXPECT_EQ(sink.log, "w0 w0 w0 w192 ");
  out->flush();
  EXPECT_EQ(sink.log, "w0 w0 w0 w192 w255 ");
}

TEST(BitOutputStream, ZeroBitWriteAddsNothing) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 0, 0xFFFFFFFF);
  out->write(100, 0, 1);  // no bits, so the index is never used
  out->flush();
  EXPECT_TRUE(sink.bytes().empty());
}

TEST(BitOutputStream, SourceBitsAbove31AreZero) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(28, 8, 0xFFFFFFFF);
  out->write(56, 8, 0xFFFFFFFF);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x0F, 0x00}));
}

TEST(BitOutputStream, WriteBitIsOneBitWrite) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  for (bool b : {true, false, true, true, false, false, false, true}) out->writeBit(b);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x8D}));
}

TEST(BitOutputStream, FlushOfWholeBytesKeepsTheStreamUsable) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 16, 0xBEEF);
  out->flush();
  out->write(0, 8, 0x42);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0xEF, 0xBE, 0x42}));
}

TEST(BitOutputStream, FlushWithNothingPendingWritesNothing) {
  RecordingSink sink;
  auto out = BitOutputStream::create(sink);
  out->flush();
  out->write(0, 3, 1);
  out->flush();
  out->flush();  // the partial flush left the count negative: nothing more goes out
  EXPECT_EQ(sink.log, "w1 ");
}

TEST(BitOutputStream, ResetDropsPendingBitsAndEmptiesTheSink) {
  RecordingSink log;
  auto logged = BitOutputStream::create(log);
  logged->write(0, 12, 0xFFF);
  logged->reset();
  logged->flush();
  EXPECT_EQ(log.log, "reset ");

  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 32, 0xFFFFFFFF);
  out->write(0, 5, 0x1F);
  out->reset();
  EXPECT_TRUE(sink.bytes().empty());
  out->write(0, 8, 0x01);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x01}));
}

TEST(BitOutputStream, DestroyingDoesNotFlush) {
  RecordingSink sink;
  {
    auto out = BitOutputStream::create(sink);
    out->write(0, 20, 0xFFFFF);
  }
  EXPECT_EQ(sink.log, "");
}

TEST(BitOutputStream, SixtyFourBitsFromBitZero) {
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 64, 0xA1B2C3D4);
  EXPECT_EQ(sink.bytes(), bytes({0xD4, 0xC3, 0xB2, 0xA1, 0, 0, 0, 0}));
}

TEST(VecByteOutputStream, CountsAndResetsKeepingCapacity) {
  VecByteOutputStream sink;
  EXPECT_EQ(sink.bytesWritten(), 0u);
  for (int i = 0; i < 100; ++i) sink.writeUint8(static_cast<unsigned char>(i));
  EXPECT_EQ(sink.bytesWritten(), 100u);
  EXPECT_EQ(sink.bytes()[99], 99);
  const std::size_t capacity = sink.bytes().capacity();
  sink.reset();
  EXPECT_EQ(sink.bytesWritten(), 0u);
  EXPECT_TRUE(sink.bytes().empty());
  EXPECT_EQ(sink.bytes().capacity(), capacity);
}

TEST(BitOutputStreamDeathTest, WriteAfterAPartialFlushAbortsUntilReset) {
  orvix_test::expectAssertion(
      [] {
        VecByteOutputStream sink;
        auto out = BitOutputStream::create(sink);
        out->write(0, 3, 1);
        out->flush();
        out->write(0, 1, 1);
      },
      kUnit, kWriteBitIdxLine, kWrite, "bitIdx >= 0 && bitIdx < 32");
  orvix_test::expectAssertion(
      [] {
        VecByteOutputStream sink;
        auto out = BitOutputStream::create(sink);
        out->write(0, 9, 1);
        out->flush();
        out->writeBit(false);
      },
      kUnit, kWriteBitIdxLine, kWrite, "bitIdx >= 0 && bitIdx < 32");

  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  out->write(0, 3, 1);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x01}));
  out->reset();
  EXPECT_TRUE(sink.bytes().empty());
  out->write(0, 8, 0x5A);
  out->flush();
  EXPECT_EQ(sink.bytes(), bytes({0x5A}));
}

TEST(BitOutputStreamDeathTest, NegativeCountAbortsInBits) {
  expectBitsAssertion([] {
    VecByteOutputStream sink;
    BitOutputStream::create(sink)->write(0, -1, 1);
  });
}

TEST(BitOutputStreamDeathTest, NegativeIndexAbortsInBits) {
  expectBitsAssertion([] {
    VecByteOutputStream sink;
    BitOutputStream::create(sink)->write(-1, 4, 1);
  });
}

TEST(BitOutputStreamDeathTest, CountReachingPastBit63AbortsInBits) {
  expectBitsAssertion([] {
    VecByteOutputStream sink;
    BitOutputStream::create(sink)->write(60, 5, 1);
  });
  // The two whole words go out before the write finds bit 64 missing.
  const orvix_test::ChildResult r = orvix_test::runInChild([] {
    PrintingSink sink;
    BitOutputStream::create(sink)->write(0, 65, 0x01020304);
  });
  EXPECT_TRUE(r.signaled());
  EXPECT_EQ(r.out, "w4 w3 w2 w1 w0 w0 w0 w0 ");
  EXPECT_EQ(r.err, orvix_test::assertionLine(
                       "Orvix/CppBits", kBitsLine, "uint64_t bits(uint64_t, int, int)",
                       "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - "
                       "lowBitIdx"));
}

// ---- differential tests against a list of bits (models/BitStreamModel.hpp) ------------------

using orvix_model::OutputModel;

TEST(BitOutputStreamDifferential, RandomWritesFlushesAndResetsMatchABitList) {
  std::mt19937 rng(0xB175);
  for (int round = 0; round < 200; ++round) {
    VecByteOutputStream sink;
    auto out = BitOutputStream::create(sink);
    OutputModel model;
    for (int step = 0; step < 200; ++step) {
      const int kind = static_cast<int>(rng() % 20);
      if (kind == 0) {
        out->flush();
        model.flush();
      } else if (kind == 1) {
        out->reset();
        model.reset();
      } else if (model.ended) {
        // Only a reset revives the stream.
        out->flush();
        model.flush();
      } else if (kind < 6) {
        const bool b = (rng() & 1) != 0;
        out->writeBit(b);
        model.write(0, 1, b ? 1 : 0);
      } else {
        const int numBits = static_cast<int>(rng() % 41);  // up to 40, past a whole word
        const int lowBitIdx = static_cast<int>(rng() % static_cast<unsigned>(65 - numBits));
        const auto value = static_cast<uint32_t>(rng());
        out->write(lowBitIdx, numBits, value);
        model.write(lowBitIdx, numBits, value);
      }
      ASSERT_EQ(sink.bytes(), model.sink) << "round " << round << " step " << step;
    }
  }
}

TEST(BitInputStreamDifferential, RandomReadsMatchABitList) {
  std::mt19937 rng(0x51DE);
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> data(rng() % 40);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    CountingSource src(data);
    auto in = BitInputStream::create(src);
    orvix_model::InputModel model{data};
    for (int step = 0; step < 60; ++step) {
      if (rng() % 4 == 0) {
        ASSERT_EQ(in->read(), model.read()) << "round " << round << " step " << step;
      } else {
        const int n = 1 + static_cast<int>(rng() % 32);
        ASSERT_EQ(in->read(n), model.read(n)) << "round " << round << " step " << step << " n " << n;
      }
      // Exactly the bytes holding the bits read so far have been fetched.
      ASSERT_EQ(static_cast<std::size_t>(src.calls), model.bytesFetched());
    }
  }
}

TEST(BitStreamDifferential, WrittenFieldsReadBackUnchanged) {
  std::mt19937 rng(0xF1E1D);
  VecByteOutputStream sink;
  auto out = BitOutputStream::create(sink);
  std::vector<std::pair<int, uint32_t>> fields;
  for (int i = 0; i < 5000; ++i) {
    const int n = 1 + static_cast<int>(rng() % 32);
    const uint32_t v = static_cast<uint32_t>(rng()) & (n == 32 ? 0xFFFFFFFFu : (1u << n) - 1);
    fields.emplace_back(n, v);
    out->write(0, n, v);
  }
  out->flush();
  VecByteInputStream src(sink.bytes());
  auto in = BitInputStream::create(src);
  for (const auto& f : fields) ASSERT_EQ(in->read(f.first), f.second);
}
