// Reference model of the UTF-8 conversions of tavo2::mystring / tavo2::mywstring under the C.UTF-8
// locale: a decoder and an encoder written from the encoding's rules, independent of
// mbrtowc/wcrtomb. The platform's converter also knows the old five- and six-byte forms, up to
// 0x7FFFFFFF, in both directions; it rejects overlong forms and UTF-16 surrogates.
#pragma once

#include <cstddef>
#include <string>

namespace orvix_model {

// The UTF-8 form of one code point up to 0x7FFFFFFF (the 5- and 6-byte forms only for values
// above U+10FFFF). Empty for what the converter cannot encode: surrogates and values above
// 0x7FFFFFFF.
inline std::string utf8(unsigned long cp) {
  std::string out;
  if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x7FFFFFFFUL) return out;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
    return out;
  }
  const int length =
      cp < 0x800 ? 2 : cp < 0x10000 ? 3 : cp < 0x200000 ? 4 : cp < 0x4000000 ? 5 : 6;
  static const unsigned char kLead[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  out.resize(static_cast<std::size_t>(length));
  for (int i = length - 1; i > 0; --i) {
    out[static_cast<std::size_t>(i)] = static_cast<char>(0x80 | (cp & 0x3F));
    cp >>= 6;
  }
  out[0] = static_cast<char>(kLead[length] | cp);
  return out;
}

// The multibyte form of a wide string: each character encoded, the unencodable ones dropped.
inline std::string utf8(const std::wstring& wide) {
  std::string out;
  for (wchar_t c : wide) out += utf8(static_cast<unsigned long>(static_cast<unsigned int>(c)));
  return out;
}

// How converting UTF-8 bytes to wide characters ends.
enum class Utf8Outcome {
  kComplete,   // every byte converted
  kInvalid,    // an invalid sequence: "mbrtowc: " line, tavo2::Utf8Exception
  kTruncated,  // the bytes end inside a character: "at pos " line, assertion abort
  kNul,        // an embedded NUL byte: assertion abort
};

struct Utf8Decoded {
  Utf8Outcome outcome = Utf8Outcome::kComplete;
  std::wstring wide;      // the characters converted before the end or the failure
  std::size_t stop = 0;   // byte index of the character that failed (its first byte)
};

// Decodes bytes from the start, character by character, as the conversion loop does with all
// remaining bytes available to each step.
inline Utf8Decoded decodeUtf8(const std::string& bytes) {
  Utf8Decoded r;
  std::size_t at = 0;
  while (at < bytes.size()) {
    r.stop = at;
    const unsigned char lead = static_cast<unsigned char>(bytes[at]);
    if (lead == 0) {
      r.outcome = Utf8Outcome::kNul;
      return r;
    }
    std::size_t length;
    unsigned long cp;
    if (lead < 0x80) {
      length = 1, cp = lead;
    } else if (lead < 0xC2) {  // a continuation byte, or the lead of an overlong pair
      r.outcome = Utf8Outcome::kInvalid;
      return r;
    } else if (lead < 0xE0) {
      length = 2, cp = lead & 0x1F;
    } else if (lead < 0xF0) {
      length = 3, cp = lead & 0x0F;
    } else if (lead < 0xF8) {
      length = 4, cp = lead & 0x07;
    } else if (lead < 0xFC) {
      length = 5, cp = lead & 0x03;
    } else if (lead < 0xFE) {
      length = 6, cp = lead & 0x01;
    } else {
      r.outcome = Utf8Outcome::kInvalid;
      return r;
    }
    // The bytes that are there must continue the character, even when some are missing.
    const std::size_t present = std::min(length, bytes.size() - at);
    for (std::size_t k = 1; k < present; ++k) {
      const unsigned char c = static_cast<unsigned char>(bytes[at + k]);
      if ((c & 0xC0) != 0x80) {
        r.outcome = Utf8Outcome::kInvalid;
        return r;
      }
      cp = (cp << 6) | (c & 0x3F);
    }
    if (present < length) {
      r.outcome = Utf8Outcome::kTruncated;
      return r;
    }
    static const unsigned long kMin[] = {0, 0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
    if (cp < kMin[length] || (cp >= 0xD800 && cp <= 0xDFFF)) {
      r.outcome = Utf8Outcome::kInvalid;
      return r;
    }
    r.wide += static_cast<wchar_t>(cp);
    at += length;
  }
  r.stop = at;
  return r;
}

}  // namespace orvix_model
