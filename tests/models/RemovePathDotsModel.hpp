// Reference model of removePathDots: the transition table of its state chart stepped one
// character at a time, with the outcome (true, false, or which assertion aborts) and the string as
// it stands when the call returns or aborts.
#pragma once

#include <cstddef>
#include <string>

namespace orvix_model {

enum class PathDotsOutcome { kTrue, kFalse, kAbortInJEnd, kAbortOnSlash };

inline const char* name(PathDotsOutcome o) {
  switch (o) {
    case PathDotsOutcome::kTrue: return "true";
    case PathDotsOutcome::kFalse: return "false";
    case PathDotsOutcome::kAbortInJEnd: return "abort in jEnd";
    case PathDotsOutcome::kAbortOnSlash: return "abort on c != '/'";
  }
  return "?";
}

struct PathDotsModeled {
  PathDotsOutcome outcome;
  std::string text;  // the string when the call returns or aborts
};

// Steps the table one character at a time. Only the number of completed segments matters for
// the outcome; their content is never read.
inline PathDotsModeled removePathDotsModel(std::string s) {
  enum { kStart, kBegin, kDot1, kDot2, kContinue, kEnd, kError } state = kStart;
  std::size_t readPos = 0, writePos = 0;
  int segments = 0;
  bool absolute = false;
  auto write = [&](const char* text) {
    for (; *text; ++text) s[writePos++] = *text;
  };
  for (;;) {
    if (state == kEnd) return {PathDotsOutcome::kTrue, s.substr(0, writePos)};
    if (state == kError) return {PathDotsOutcome::kFalse, s};
    const bool end = readPos == s.size();
    const char c = end ? '\0' : s[readPos++];
    switch (state) {
      case kStart:
        if (end) {
          state = kEnd;
        } else if (c == '/') {
          absolute = true;
          write("/");
          state = kBegin;
        } else {
          state = kContinue;
        }
        break;
      case kBegin:
        if (end) return {PathDotsOutcome::kAbortInJEnd, s};
        if (c == '/') return {PathDotsOutcome::kAbortOnSlash, s};
        state = c == '.' ? kDot1 : kContinue;
        break;
      case kDot1:
        if (end) return {PathDotsOutcome::kAbortInJEnd, s};
        state = c == '.' ? kDot2 : c == '/' ? kBegin : kContinue;
        break;
      case kDot2:
        if (end) {
          if (segments > 0) return {PathDotsOutcome::kAbortInJEnd, s};
          if (absolute) {
            state = kError;
          } else {
            write("..");
            state = kEnd;
          }
        } else if (c == '/') {
          if (absolute) {
            state = kError;
          } else {
            write("../");
            state = kBegin;
          }
        } else {
          state = kContinue;
        }
        break;
      case kContinue:
        if (end) return {PathDotsOutcome::kAbortInJEnd, s};
        if (c == '/') {
          ++segments;
          state = kBegin;
        }
        break;
      case kEnd:
      case kError:
        break;
    }
  }
}

}  // namespace orvix_model
