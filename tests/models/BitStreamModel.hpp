// Reference models of the bit streams as lists of bits: what a BitOutputStream's sink must hold
// after writes, flushes and resets, and the bits a BitInputStream reads from a byte vector
// (least significant bit of each byte first, zero bits past the end).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace orvix_model {

// What the sink must hold: flushed bytes, least significant bit first, plus the pending bits.
struct OutputModel {
  std::vector<uint8_t> sink;
  std::deque<bool> pending;
  bool ended = false;  // a flush left a partial byte: writes would abort

  void emit(int count) {
    uint8_t byte = 0;
    for (int i = 0; i < count; ++i) {
      if (!pending.empty()) {
        if (pending.front()) byte = static_cast<uint8_t>(byte | (1u << (i % 8)));
        pending.pop_front();
      }
      if (i % 8 == 7) {
        sink.push_back(byte);
        byte = 0;
      }
    }
  }
  void write(int lowBitIdx, int numBits, uint32_t value) {
    for (int i = 0; i < numBits; ++i) {
      const int idx = lowBitIdx + i;
      pending.push_back(idx < 32 && ((value >> idx) & 1u) != 0);
    }
    // A full word never stays pending after a write.
    while (pending.size() >= 32) emit(32);
  }
  void flush() {
    if (pending.empty()) return;
    const int count = static_cast<int>(pending.size());
    emit((count + 7) / 8 * 8);
    if (count % 8 != 0) ended = true;
  }
  void reset() {
    sink.clear();
    pending.clear();
    ended = false;
  }
};

// The bits of a byte vector read in order, with zero bits for ever past its end.
struct InputModel {
  std::vector<uint8_t> bytes;
  std::size_t pos = 0;  // bits read so far

  bool bitAt(std::size_t i) const {
    return i / 8 < bytes.size() && ((bytes[i / 8] >> (i % 8)) & 1) != 0;
  }
  bool read() { return bitAt(pos++); }
  // numBits bits (1..32), the first read in bit 0.
  uint32_t read(int numBits) {
    uint32_t value = 0;
    for (int i = 0; i < numBits; ++i)
      if (bitAt(pos + static_cast<std::size_t>(i))) value |= 1u << i;
    pos += static_cast<std::size_t>(numBits);
    return value;
  }
  // Bytes the stream has fetched: exactly those holding the bits read.
  std::size_t bytesFetched() const { return (pos + 7) / 8; }
};

}  // namespace orvix_model
