#include "Orvix/CppRemovePathDots.hpp"

#include <cstdlib>

#include "Orvix/OrvixAssert.hpp"

namespace {

constexpr const char* kUnit = "Orvix/CppRemovePathDots";

}  // namespace

bool removePathDots(std::string& path) {
  orvixRemovePathDots::StatechartImpl chart(path);
  return chart.run();
}

namespace orvixRemovePathDots {

BaseState::~BaseState() = default;
bool BaseState::isEnd() const { return false; }
bool BaseState::successful() const { return false; }

void Start::readAndHandleNext(StatechartImpl& chart) const {
  if (chart.eof()) {
    chart.state = &chart.end;
    return;
  }
  const char c = chart.read();
  if (c == '/') {
    chart.absolute = true;
    chart.write('/');
    chart.state = &chart.beginSegment;
  } else {
    chart.jContinue(c);
  }
}

void BeginSegment::readAndHandleNext(StatechartImpl& chart) const {
  if (chart.eof()) chart.jEnd(true);
  const char c = chart.read();
  if (c == '.')
    chart.state = &chart.dot1;
  else
    chart.jContinue(c);  // a second slash fails here
}

void Dot1::readAndHandleNext(StatechartImpl& chart) const {
  if (chart.eof()) chart.jEnd(true);
  const char c = chart.read();
  if (c == '.') {
    chart.state = &chart.dot2;
  } else if (c == '/') {
    chart.state = &chart.beginSegment;  // "." is dropped
  } else {
    // An ordinary segment after all; nothing reads its text before jEnd.
    chart.segment.assign(1, '.').push_back(c);
    chart.state = &chart.continueSegment;
  }
}

void Dot2::readAndHandleNext(StatechartImpl& chart) const {
  if (chart.eof()) {
    if (!chart.segments.empty()) {
      chart.segments.pop_back();  // ".." takes back the segment before it
      chart.jEnd(false);
    }
    if (chart.absolute) {
      chart.state = &chart.error;
    } else {
      chart.write('.');
      chart.write('.');
      chart.state = &chart.end;
    }
    return;
  }
  const char c = chart.read();
  if (c == '/') {
    if (chart.absolute) {
      chart.state = &chart.error;
    } else {
      chart.write('.');
      chart.write('.');
      chart.write('/');
      chart.state = &chart.beginSegment;
    }
  } else {
    chart.segment.assign(2, '.').push_back(c);
    chart.state = &chart.continueSegment;
  }
}

void ContinueSegment::readAndHandleNext(StatechartImpl& chart) const {
  if (chart.eof()) {
    chart.segments.push_back(chart.segment);
    chart.jEnd(false);
  }
  const char c = chart.read();
  if (c == '/') {
    chart.segments.push_back(chart.segment);
    chart.state = &chart.beginSegment;
  } else {
    chart.segment.push_back(c);
  }
}

void End::readAndHandleNext(StatechartImpl&) const {
  ORVIX_ASSERT(false, "false", kUnit, __LINE__);
  std::abort();
}
bool End::isEnd() const { return true; }
bool End::successful() const { return true; }

void Error::readAndHandleNext(StatechartImpl&) const {
  ORVIX_ASSERT(false, "false", kUnit, __LINE__);
  std::abort();
}
bool Error::isEnd() const { return true; }

StatechartImpl::StatechartImpl(std::string& s)
    : s(s), readPos(s.begin()), writePos(s.begin()), absolute(false), state(&start) {}

StatechartImpl::~StatechartImpl() = default;

bool StatechartImpl::run() {
  while (!state->isEnd()) state->readAndHandleNext(*this);
  const bool ok = state->successful();
  if (ok) s.erase(writePos, s.end());
  return ok;
}

bool StatechartImpl::eof() const { return readPos == s.end(); }

char StatechartImpl::read() {
  ORVIX_ASSERT(readPos != s.end(), "readPos != s.end()", kUnit, __LINE__);
  return *readPos++;
}

void StatechartImpl::write(char c) {
  ORVIX_ASSERT(writePos != s.end(), "writePos != s.end()", kUnit, __LINE__);
  *writePos++ = c;
}

void StatechartImpl::jContinue(char c) {
  ORVIX_ASSERT(c != '/', "c != '/'", kUnit, __LINE__);
  segment.assign(1, c);
  state = &continueSegment;
}

void StatechartImpl::jEnd(bool) {
  ORVIX_ASSERT(false, "false", kUnit, __LINE__);
  std::abort();
}

}  // namespace orvixRemovePathDots
