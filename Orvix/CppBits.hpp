// Bit-field helpers and a diagnostic rendering of a 32-bit word.
//
// bits and setBits cut a field out of a word and put one into a word; the bit streams use them
// for every field, so they are defined here, inline. formatBits32 renders a word as decimal,
// hexadecimal and a numbered bit table for diagnostics.
//
// Plain functions of their arguments: callable from any thread. A count or index out of range
// is an assertion failure that aborts; the report names the unit "Orvix/CppBits" and the line of
// the check in this header.
#pragma once

#include <cstdint>
#include <string>

#include "Orvix/OrvixAssert.hpp"

// value shifted right by lowBitIdx, cut to its low bitCount bits (1..64 - lowBitIdx); a count of
// 64 keeps the whole shifted value.
inline uint64_t bits(uint64_t value, int lowBitIdx, int bitCount) {
  ORVIX_ASSERT(lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx,
               "lowBitIdx >= 0 && lowBitIdx < 64 && bitCount > 0 && bitCount <= 64 - lowBitIdx",
               "Orvix/CppBits", __LINE__);
  const uint64_t shifted = value >> lowBitIdx;
  // A shift by 64 is undefined, so the full-width count keeps the value as it is.
  return bitCount == 64 ? shifted : shifted & ((uint64_t{1} << bitCount) - 1);
}

// Replaces bits lowBitIdx .. lowBitIdx + bitCount - 1 of target by the low bitCount bits of
// value; higher bits of value are ignored and a count of 0 changes nothing.
inline void setBits(uint32_t& target, int lowBitIdx, int bitCount, uint32_t value) {
  ORVIX_ASSERT(lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx,
               "lowBitIdx >= 0 && lowBitIdx < 32 && bitCount >= 0 && bitCount <= 32 - lowBitIdx",
               "Orvix/CppBits", __LINE__);
  // Built in 64 bits so that a count of 32 needs no special case.
  const uint32_t mask = static_cast<uint32_t>(((uint64_t{1} << bitCount) - 1) << lowBitIdx);
  target = (target & ~mask) | ((value << lowBitIdx) & mask);
}

// "\ndec: <decimal>\nhex: <hex>\nbin:\n\n" and two tables of bit numbers over bit values
// (31..16, then 15..0), each entry right-aligned in three columns, a further blank between
// nibbles; the text ends after bit 0 without a newline.
std::string formatBits32(unsigned int value);
