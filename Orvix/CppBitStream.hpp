// Bit-granular streams over byte streams.
//
// A BitInputStream reads, and a BitOutputStream writes, fields of 1 to 32 bits over a byte source
// or sink the caller owns and keeps alive. Within each byte the least significant bit comes
// first, and a field is assembled least significant bit first, so a field spanning bytes is
// little-endian. VecByteInputStream and VecByteOutputStream are in-memory byte streams.
//
// Value objects for one thread at a time; no locks, no exceptions of their own. A read count
// outside 1..32, a negative write count or one reaching past source bit 63, and writing after a
// flush that left a partial byte are assertion failures that abort (reports name
// "Orvix/CppBitStream", or "Orvix/CppBits" for the field helpers). Running out of input is
// silent: a VecByteInputStream yields zero bytes past its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// A source of bytes.
class IByteInputStream {
 public:
  virtual ~IByteInputStream();
  // The next byte.
  virtual uint8_t readUint8() = 0;
};

// A sink of bytes.
class IByteOutputStream {
 public:
  virtual ~IByteOutputStream();
  // Appends one byte.
  virtual void writeUint8(unsigned char byte) = 0;
  // How many bytes were appended since construction or the last reset(); the bit streams never
  // call it.
  virtual std::size_t bytesWritten() const = 0;
  // Discards everything written.
  virtual void reset() = 0;
};

// Reads fields of bits from a byte source, fetching each byte only when a read needs it.
class BitInputStream {
 public:
  virtual ~BitInputStream();
  // The next numBits bits (1..32), the first bit read in bit 0. A count of 0 passes the first
  // check but still aborts, in bits().
  virtual uint32_t read(int numBits) = 0;
  // The next single bit.
  virtual bool read() = 0;

  // A bit stream over in, which must outlive it.
  static std::shared_ptr<BitInputStream> create(IByteInputStream& in);
};

// Writes fields of bits to a byte sink, four bytes at a time.
class BitOutputStream {
 public:
  virtual ~BitOutputStream();
  // Appends numBits bits of value from bit lowBitIdx upward (bit lowBitIdx goes out first);
  // source bits at index 32 and above read as 0. When the 32 pending bits are full they go to
  // the sink at once, before write returns.
  virtual void write(int lowBitIdx, int numBits, uint32_t value) = 0;
  // write(0, 1, b ? 1 : 0).
  virtual void writeBit(bool b) = 0;
  // Sends all pending bits to the sink, the last byte padded with zero bits at the top. This
  // ends the stream: after a count of bits that is not a multiple of 8, every later write aborts
  // until reset(). Destroying the stream does not flush.
  virtual void flush() = 0;
  // Drops the pending bits and empties the sink.
  virtual void reset() = 0;

  // A bit stream over out, which must outlive it.
  static std::shared_ptr<BitOutputStream> create(IByteOutputStream& out);
};

// A byte source over a vector; past the end it returns 0 for ever and stays there.
class VecByteInputStream : public IByteInputStream {
 public:
  // Reads bytes from the start.
  explicit VecByteInputStream(std::vector<uint8_t> bytes);
  ~VecByteInputStream() override;

  uint8_t readUint8() override;

 private:
  const std::vector<uint8_t> bytes_;
  // Index of the next byte; stops at bytes_.size().
  std::size_t pos_ = 0;
};

// A byte sink into a vector.
class VecByteOutputStream : public IByteOutputStream {
 public:
  VecByteOutputStream();
  ~VecByteOutputStream() override;

  void writeUint8(unsigned char byte) override;
  // bytes().size().
  std::size_t bytesWritten() const override;
  // Empties the vector; its capacity stays.
  void reset() override;

  // Everything written since construction or the last reset().
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};
