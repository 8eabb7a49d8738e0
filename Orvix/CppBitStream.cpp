#include "Orvix/CppBitStream.hpp"

#include <utility>

#include "Orvix/CppBits.hpp"
#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/CppBitStream";

}  // namespace

// The implementations are the library's own (hidden from the dynamic symbol table), so calls
// among their members bind directly and inline.

// Reads over a byte source, least significant bit first; a byte is fetched only when a read
// needs one of its bits. Derived virtually: the factory hands out the BitInputStream part.
class __attribute__((visibility("hidden"))) BitInputStreamImpl final
    : public virtual BitInputStream {
 public:
  explicit BitInputStreamImpl(IByteInputStream& in) : in(in) {}
  BitInputStreamImpl(const BitInputStreamImpl&) = delete;
  BitInputStreamImpl& operator=(const BitInputStreamImpl&) = delete;

  uint32_t read(int numBits) override;
  bool read() override;

 private:
  // Loads the next byte once the current one is used up.
  inline void normalize();
  // Puts the low numBits bits of the next byte into result at resOff and consumes them; the
  // byte is already loaded and untouched.
  inline uint32_t appendBits(uint32_t result, int resOff, int numBits);

  IByteInputStream& in;
  uint8_t current = 0;
  // Bits of current already consumed; 8 means none is loaded yet.
  int doneBits = 8;
};

// Collects bits into a 32-bit accumulator and hands it to the sink four bytes at a time.
class __attribute__((visibility("hidden"))) BitOutputStreamImpl final : public BitOutputStream {
 public:
  explicit BitOutputStreamImpl(IByteOutputStream& out) : out(out) {}
  BitOutputStreamImpl(const BitOutputStreamImpl&) = delete;
  BitOutputStreamImpl& operator=(const BitOutputStreamImpl&) = delete;

  void write(int lowBitIdx, int numBits, uint32_t value) override;
  void writeBit(bool b) override;
  void flush() override;
  void reset() override;

 private:
  IByteOutputStream& out;
  // Pending bits, the oldest in bit 0; bits at bitIdx and above are always 0.
  uint32_t accumulator = 0;
  // Number of pending bits; negative after a flush that ended in a partial byte.
  int bitIdx = 0;
};

void BitInputStreamImpl::normalize() {
  ORVIX_ASSERT(doneBits >= 0 && doneBits <= 8, "doneBits >= 0 && doneBits <= 8", kUnit, __LINE__);
  if (doneBits == 8) {
    current = in.readUint8();
    doneBits = 0;
  }
}

uint32_t BitInputStreamImpl::read(int numBits) {
  ORVIX_ASSERT(numBits >= 0 && numBits <= 32, "numBits >= 0 && numBits <= 32", kUnit, __LINE__);
  ORVIX_ASSERT(doneBits >= 0 && doneBits <= 8, "doneBits >= 0 && doneBits <= 8", kUnit, __LINE__);
  normalize();
  const int avail = 8 - doneBits;
  if (numBits <= avail) {
    // numBits 0 ends here too, in the check of bits().
    const auto result = static_cast<uint32_t>(bits(current, doneBits, numBits));
    doneBits += numBits;
    return result;
  }
  auto result = static_cast<uint32_t>(bits(current, doneBits, avail));
  int resOff = avail;
  int rest = numBits - avail;
  current = in.readUint8();
  doneBits = 0;
  while (rest > 8) {
    setBits(result, resOff, 8, current);
    current = in.readUint8();
    resOff += 8;
    rest -= 8;
  }
  return appendBits(result, resOff, rest);
}

uint32_t BitInputStreamImpl::appendBits(uint32_t result, int resOff, int numBits) {
  ORVIX_ASSERT(numBits > 0 && numBits <= 8, "numBits > 0 && numBits <= 8", kUnit, __LINE__);
  ORVIX_ASSERT(resOff + numBits <= 32, "resOff + numBits <= 32", kUnit, __LINE__);
  ORVIX_ASSERT(doneBits == 0, "doneBits == 0", kUnit, __LINE__);
  setBits(result, resOff, numBits, static_cast<uint32_t>(bits(current, 0, numBits)));
  doneBits = numBits;
  return result;
}

bool BitInputStreamImpl::read() {
  normalize();
  const bool bit = ((current >> doneBits) & 1) != 0;
  ++doneBits;
  return bit;
}

void BitOutputStreamImpl::write(int lowBitIdx, int numBits, uint32_t value) {
  if (bitIdx == 32) flush();
  // One unsigned comparison, so a negative count left by flush() fails it too.
  ORVIX_ASSERT(static_cast<unsigned>(bitIdx) < 32u, "bitIdx >= 0 && bitIdx < 32", kUnit, __LINE__);
  const int free = 32 - bitIdx;
  int n = numBits;
  int newBitIdx = 0;
  if (numBits > free) {
    n = free;
    newBitIdx = 32;
  } else if (numBits == 0) {
    return;
  } else {
    ORVIX_ASSERT(bitIdx + n <= 32, "bitIdx + n <= 32", kUnit, __LINE__);
    newBitIdx = bitIdx + numBits;
  }
  const uint64_t chunk = bits(value, lowBitIdx, n);
  setBits(accumulator, bitIdx, n, static_cast<uint32_t>(chunk));
  bitIdx = newBitIdx;
  // Also with nothing left: this call empties a full accumulator before the caller goes on.
  write(lowBitIdx + n, numBits - n, value);
}

void BitOutputStreamImpl::writeBit(bool b) { write(0, 1, b ? 1 : 0); }

void BitOutputStreamImpl::flush() {
  if (bitIdx <= 0) return;
  do {
    out.writeUint8(static_cast<unsigned char>(accumulator & 0xFF));
    accumulator >>= 8;
    bitIdx -= 8;
  } while (bitIdx > 0);
}

void BitOutputStreamImpl::reset() {
  out.reset();
  accumulator = 0;
  bitIdx = 0;
}

IByteInputStream::~IByteInputStream() = default;
IByteOutputStream::~IByteOutputStream() = default;
BitInputStream::~BitInputStream() = default;
BitOutputStream::~BitOutputStream() = default;

std::shared_ptr<BitInputStream> BitInputStream::create(IByteInputStream& in) {
  return std::shared_ptr<BitInputStream>(new BitInputStreamImpl(in));
}

std::shared_ptr<BitOutputStream> BitOutputStream::create(IByteOutputStream& out) {
  return std::make_shared<BitOutputStreamImpl>(out);
}

VecByteInputStream::VecByteInputStream(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
VecByteInputStream::~VecByteInputStream() = default;

uint8_t VecByteInputStream::readUint8() {
  if (pos_ == bytes_.size()) return 0;
  return bytes_[pos_++];
}

VecByteOutputStream::VecByteOutputStream() = default;
VecByteOutputStream::~VecByteOutputStream() = default;

void VecByteOutputStream::writeUint8(unsigned char byte) { bytes_.push_back(byte); }

std::size_t VecByteOutputStream::bytesWritten() const { return bytes_.size(); }

void VecByteOutputStream::reset() { bytes_.clear(); }
