#include "Orvix/CppRemovePathDots.hpp"

#include <gtest/gtest.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.hpp"
#include "models/RemovePathDotsModel.hpp"

using orvix_test::assertionLine;
using orvix_test::runInChild;
using orvixRemovePathDots::StatechartImpl;

namespace {

const char* kUnit = "Orvix/CppRemovePathDots";

// Where the assertions stand in Orvix/CppRemovePathDots.cpp; the lines are part of their text.
constexpr int kEndLine = 108;
constexpr int kErrorLine = 115;
constexpr int kReadLine = 135;
constexpr int kWriteLine = 140;
constexpr int kContinueLine = 145;
constexpr int kJEndLine = 151;

const char* kJEnd = "void orvixRemovePathDots::StatechartImpl::jEnd(bool)";
const char* kJContinue = "void orvixRemovePathDots::StatechartImpl::jContinue(char)";

const std::string kAbortInJEnd = assertionLine(kUnit, kJEndLine, kJEnd, "false");
const std::string kAbortOnSlash = assertionLine(kUnit, kContinueLine, kJContinue, "c != '/'");

void expectAssertion(const std::function<void()>& fn, int line, const std::string& function,
                     const std::string& expr) {
  orvix_test::expectAssertion(fn, kUnit, line, function, expr);
}

// ---- the model of the transition table (models/RemovePathDotsModel.hpp) ---------------------

using orvix_model::name;
using orvix_model::PathDotsModeled;
using Outcome = orvix_model::PathDotsOutcome;

// Every string over '/', '.', 'a' of length 0 to maxLength, shorter ones first.
std::vector<std::string> allPaths(std::size_t maxLength) {
  std::vector<std::string> result{""};
  std::size_t levelBegin = 0;
  for (std::size_t length = 1; length <= maxLength; ++length) {
    const std::size_t levelEnd = result.size();
    for (std::size_t i = levelBegin; i < levelEnd; ++i)
      for (char c : {'/', '.', 'a'}) result.push_back(result[i] + c);
    levelBegin = levelEnd;
  }
  return result;
}

// ---- running the library on many inputs in one child ---------------------------------------

// A fork per aborting input costs over a minute under qemu-arm, so one child works through all
// of them: its SIGABRT handler writes the record of the input being worked on and jumps back to
// the loop (glibc's abort lets a handler leave by longjmp). The handler may only use write(2),
// so the record's prefix is formatted beforehand.
char gPrefix[32];
const std::string* gWatched = nullptr;
sigjmp_buf gNextInput;

void writeAll(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(1, data, size);
    if (n <= 0) return;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

extern "C" void reportAtAbort(int) {
  writeAll(gPrefix, strlen(gPrefix));
  writeAll(gWatched->data(), gWatched->size());
  writeAll("\n", 1);
  siglongjmp(gNextInput, 1);
}

// One input in the child: "<index> T|F <string>" on return; at an abort the handler writes
// "<index> A <string>" and the assertion line goes to standard error.
void runOne(std::size_t index, const std::string& input) {
  std::string s = input;
  snprintf(gPrefix, sizeof gPrefix, "%zu A ", index);
  gWatched = &s;
  const bool result = removePathDots(s);
  const std::string line = std::to_string(index) + (result ? " T " : " F ") + s + "\n";
  writeAll(line.data(), line.size());
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

struct Observed {
  Outcome outcome;
  std::string text;
};

// Runs removePathDots on every input in a child. Should a child die all the same (an abort the
// handler could not leave), the next one goes on behind the input it died on.
std::vector<Observed> observeAll(const std::vector<std::string>& inputs, int* children) {
  std::vector<Observed> observed(inputs.size());
  std::size_t next = 0;
  *children = 0;
  while (next < inputs.size()) {
    const std::size_t first = next;
    ++*children;
    const auto r = runInChild([&] {
      struct sigaction action {};
      action.sa_handler = reportAtAbort;
      sigaction(SIGABRT, &action, nullptr);
      for (std::size_t i = first; i < inputs.size(); ++i)
        if (sigsetjmp(gNextInput, 1) == 0) runOne(i, inputs[i]);
    });
    const std::vector<std::string> records = linesOf(r.out);
    const std::vector<std::string> assertions = linesOf(r.err);
    std::size_t aborts = 0;
    bool lastAborted = false;
    for (const std::string& record : records) {
      // "<index> <kind> <text>": the text is everything after the second blank.
      const std::size_t blank = record.find(' ');
      if (blank == std::string::npos || record.size() < blank + 3 ||
          std::stoul(record.substr(0, blank)) != next) {
        ADD_FAILURE() << "unexpected record \"" << record << "\" for input " << next << ": "
                      << r.describe();
        return observed;
      }
      const char kind = record[blank + 1];
      Observed& o = observed[next++];
      o.text = record.substr(blank + 3);
      lastAborted = kind == 'A';
      if (kind == 'T' || kind == 'F') {
        o.outcome = kind == 'T' ? Outcome::kTrue : Outcome::kFalse;
        continue;
      }
      // The assertion lines come in the order of the aborts.
      const std::string line = aborts < assertions.size() ? assertions[aborts] + "\n" : "";
      ++aborts;
      EXPECT_TRUE(line == kAbortInJEnd || line == kAbortOnSlash)
          << "input \"" << inputs[next - 1] << "\": " << line;
      o.outcome = line == kAbortOnSlash ? Outcome::kAbortOnSlash : Outcome::kAbortInJEnd;
    }
    EXPECT_EQ(assertions.size(), aborts) << r.err;
    if (r.exited()) {
      EXPECT_EQ(r.exitCode(), 0);
      EXPECT_EQ(next, inputs.size()) << r.describe();
      break;
    }
    if (!(lastAborted && r.signaled() && r.signal() == SIGABRT)) {
      ADD_FAILURE() << "child ended after input " << next << ": " << r.describe();
      break;
    }
  }
  return observed;
}

}  // namespace

// ---- the listed outcomes ---------------------------------------------------------------------

TEST(RemovePathDots, EmptyPathSucceedsAndStaysEmpty) {
  std::string s;
  EXPECT_TRUE(removePathDots(s));
  EXPECT_EQ(s, "");
}

TEST(RemovePathDots, AbsolutePathAboveItsRootFailsUnchanged) {
  for (const char* path : {"/..", "/a/../b", "/../x", "/./..", "/../", "/a/b/../..", "/../..",
                           "/./../a", "/aa/./../b"}) {
    std::string s = path;
    EXPECT_FALSE(removePathDots(s)) << path;
    EXPECT_EQ(s, path);
  }
}

namespace {

// Runs removePathDots on each path in a child and expects exactly the assertion line err.
void expectAbort(std::initializer_list<const char*> paths, const std::string& err) {
  for (const char* path : paths) {
    const auto r = runInChild([path] {
      std::string s = path;
      removePathDots(s);
    });
    EXPECT_TRUE(r.signaled() && r.signal() == SIGABRT) << path << ": " << r.describe();
    EXPECT_EQ(r.err, err) << path;
    EXPECT_EQ(r.out, "") << path;
  }
}

}  // namespace

TEST(RemovePathDotsDeathTest, EndOfInputInsideAPathFailsInJEnd) {
  expectAbort({"a", ".", "..", "/", "/a", "a/..", "./a", "/.", "/a/", "/a/.", "a/b/..", "...",
               "/...", "/..a", "/.a", "a/../b", "../a", "a/./"},
              kAbortInJEnd);
}

TEST(RemovePathDotsDeathTest, TwoSlashesFailInJContinue) {
  expectAbort({"//", "a//b", "/a//", "///", "a/..//", "a/.//"}, kAbortOnSlash);
}

// ---- the engine's helpers and the final states -----------------------------------------------

TEST(RemovePathDotsDeathTest, ReadPastTheEnd) {
  expectAssertion(
      [] {
        std::string s;
        StatechartImpl chart(s);
        chart.read();
      },
      kReadLine, "char orvixRemovePathDots::StatechartImpl::read()", "readPos != s.end()");
  expectAssertion(
      [] {
        std::string s = "x";
        StatechartImpl chart(s);
        EXPECT_FALSE(chart.eof());
        if (chart.read() != 'x') return;
        if (!chart.eof()) return;
        chart.read();
      },
      kReadLine, "char orvixRemovePathDots::StatechartImpl::read()", "readPos != s.end()");
}

TEST(RemovePathDotsDeathTest, WritePastTheEnd) {
  expectAssertion(
      [] {
        std::string s;
        StatechartImpl chart(s);
        chart.write('/');
      },
      kWriteLine, "void orvixRemovePathDots::StatechartImpl::write(char)", "writePos != s.end()");
  expectAssertion(
      [] {
        std::string s = "ab";
        StatechartImpl chart(s);
        chart.write('x');
        chart.write('y');
        if (s != "xy") return;
        chart.write('z');
      },
      kWriteLine, "void orvixRemovePathDots::StatechartImpl::write(char)", "writePos != s.end()");
}

TEST(RemovePathDotsDeathTest, ContinueWithASlash) {
  expectAssertion(
      [] {
        std::string s = "abc";
        StatechartImpl chart(s);
        chart.jContinue('a');
        chart.jContinue('/');
      },
      kContinueLine, kJContinue, "c != '/'");
}

TEST(RemovePathDotsDeathTest, JEndFailsWhateverItsArgument) {
  for (bool trailingSlash : {true, false}) {
    expectAssertion(
        [trailingSlash] {
          std::string s = "/a";
          StatechartImpl chart(s);
          chart.jEnd(trailingSlash);
        },
        kJEndLine, kJEnd, "false");
  }
}

TEST(RemovePathDotsDeathTest, FinalStatesReadNothing) {
  expectAssertion(
      [] {
        std::string s = "a";
        StatechartImpl chart(s);
        orvixRemovePathDots::End().readAndHandleNext(chart);
      },
      kEndLine,
      "virtual void orvixRemovePathDots::End::readAndHandleNext(orvixRemovePathDots::"
      "StatechartImpl&) const",
      "false");
  expectAssertion(
      [] {
        std::string s = "a";
        StatechartImpl chart(s);
        orvixRemovePathDots::Error().readAndHandleNext(chart);
      },
      kErrorLine,
      "virtual void orvixRemovePathDots::Error::readAndHandleNext(orvixRemovePathDots::"
      "StatechartImpl&) const",
      "false");
}

TEST(RemovePathDots, StatePredicates) {
  using namespace orvixRemovePathDots;
  const Start start;
  const BeginSegment begin;
  const Dot1 dot1;
  const Dot2 dot2;
  const ContinueSegment cont;
  for (const BaseState* s : std::initializer_list<const BaseState*>{&start, &begin, &dot1, &dot2,
                                                                     &cont}) {
    EXPECT_FALSE(s->isEnd());
    EXPECT_FALSE(s->successful());
  }
  const End end;
  const Error error;
  EXPECT_TRUE(end.isEnd());
  EXPECT_TRUE(end.successful());
  EXPECT_TRUE(error.isEnd());
  EXPECT_FALSE(error.successful());
}

TEST(RemovePathDots, EngineStepsByHand) {
  std::string s = "/.a";
  StatechartImpl chart(s);
  EXPECT_FALSE(chart.eof());
  EXPECT_EQ(chart.read(), '/');
  chart.write('x');
  EXPECT_EQ(s, "x.a");
  EXPECT_EQ(chart.read(), '.');
  EXPECT_EQ(chart.read(), 'a');
  EXPECT_TRUE(chart.eof());
}

// ---- every short path against the model ------------------------------------------------------

TEST(RemovePathDotsDeathTest, EveryPathUpToSevenCharactersMatchesTheTable) {
  const std::vector<std::string> inputs = allPaths(7);
  ASSERT_EQ(inputs.size(), 3280u);
  int children = 0;
  const std::vector<Observed> observed = observeAll(inputs, &children);
  int counts[4] = {};
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const PathDotsModeled expected = orvix_model::removePathDotsModel(inputs[i]);
    ++counts[static_cast<int>(expected.outcome)];
    EXPECT_EQ(name(observed[i].outcome), std::string(name(expected.outcome)))
        << "input \"" << inputs[i] << "\"";
    EXPECT_EQ(observed[i].text, expected.text) << "input \"" << inputs[i] << "\"";
  }
  // The table's own claims: the empty path is the only success; both kinds of abort occur.
  EXPECT_EQ(counts[static_cast<int>(Outcome::kTrue)], 1);
  EXPECT_GT(counts[static_cast<int>(Outcome::kFalse)], 0);
  EXPECT_GT(counts[static_cast<int>(Outcome::kAbortOnSlash)], 0);
  std::printf("outcomes: %d true, %d false, %d abort in jEnd, %d abort on a second slash; "
              "%d child process(es)\n",
              counts[0], counts[1], counts[2], counts[3], children);
}
