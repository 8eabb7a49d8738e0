// Helpers shared by the test programs.
//
// runInChild runs a function in a forked child with standard input, output and error on pipes
// and returns what the child wrote and how it ended; use it wherever the code under test aborts,
// exits or changes process-wide state. Lines the emulator adds to standard error ("qemu: ...")
// are removed, so expectations hold under qemu-arm as on the host.
// CaptureFd captures one of the process's own descriptors (1 or 2) in-process.
//
// Tests of a process that ends (assertion, abort, exit, terminate) live in suites named
// <Something>DeathTest, which GoogleTest runs first, before other tests have started threads.
// Which tool for such a test:
//   expectAssertion  the library's quoted assertions: the exact line __assert_fail prints, and
//                    nothing else on standard error or standard output. The first choice.
//   runInChild       the process ends after printing something of its own (a checked call's
//                    failure line, a "FEHLER: " or "FATAL ERROR: " text), exits with a status,
//                    or the test needs the exact output and the way it ended.
//   EXPECT_DEATH     only a pattern is known (a line number taken from __LINE__), or the test
//                    goes on in-process afterwards with the object that was not destroyed.
//
// Interposing a system call: the test program defines the C symbol itself (test programs
// export their symbols, so the library's calls reach the definition first), reaches the real
// function through nextSymbol, and arms faults with plain counters read once through takeArmed:
//   thread_local int failSemPost = 0;
//   extern "C" int sem_post(sem_t* s) __THROWNL {
//     static auto real = orvix_test::nextSymbol<int (*)(sem_t*)>("sem_post");
//     if (const int r = orvix_test::takeArmed(failSemPost)) return r;
//     return real(s);
//   }
// A thread_local counter arms the calling thread only; a std::atomic<int> arms whichever thread
// calls next.
#pragma once

#include <dlfcn.h>
#include <sys/types.h>
#include <time.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "Orvix/GeneralException.hpp"
#include "Orvix/TimeSpec.hpp"

namespace orvix_test {

struct ChildResult {
  int status = 0;     // as waitpid reports it
  std::string out;    // standard output
  std::string err;    // standard error, emulator lines removed
  bool timedOut = false;

  bool exited() const;
  int exitCode() const;     // -1 unless exited
  bool signaled() const;
  int signal() const;       // 0 unless signaled
  std::string describe() const;  // for failure messages
};

// Runs fn in a forked child. stdinText is written to the child's standard input, which is then
// closed. The child ends with _exit(0) after fn returns (streams flushed). A child that runs
// longer than timeoutSeconds is killed (SIGKILL) and timedOut is set.
ChildResult runInChild(const std::function<void()>& fn, const std::string& stdinText = "",
                       int timeoutSeconds = 120);

// The line __assert_fail prints, with this program's name.
std::string assertionLine(const std::string& file, int line, const std::string& function,
                          const std::string& expression);

// Removes every line that begins with "qemu:" (emulator reports, not the library's).
std::string withoutEmulatorLines(const std::string& text);

// The system's description of an error number (strerror_r).
std::string errorText(int err);

// Captures what this process writes to fd (1 or 2) between construction and text().
class CaptureFd {
 public:
  explicit CaptureFd(int fd);
  ~CaptureFd();
  CaptureFd(const CaptureFd&) = delete;
  CaptureFd& operator=(const CaptureFd&) = delete;

  // Stops capturing (once) and returns everything captured.
  std::string text();

 private:
  void stop();
  int fd_;
  int saved_;
  int file_;
  bool stopped_ = false;
  std::string captured_;
};

// Runs fn in a child and expects it to fail exactly the given assertion and abort, with nothing
// else on standard error and nothing on standard output.
void expectAssertion(const std::function<void()>& fn, const std::string& file, int line,
                     const std::string& function, const std::string& expression);

// For test programs that interpose a system call: returns the armed result once and disarms.
inline int takeArmed(int& armed) {
  const int result = armed;
  armed = 0;
  return result;
}
inline int takeArmed(std::atomic<int>& armed) { return armed.exchange(0); }

// The next definition of name after the test program's own (the real system call). A name
// that is not found ends the program at once rather than by a call through null later.
template <class F>
F nextSymbol(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "nextSymbol: no definition of %s after the test program's\n", name);
    std::abort();
  }
  return reinterpret_cast<F>(symbol);
}

// The same for a symbol glibc keeps in several versions: the definition of exactly that version.
template <class F>
F nextSymbol(const char* name, const char* version) {
  void* const symbol = dlvsym(RTLD_NEXT, name, version);
  if (symbol == nullptr) {
    std::fprintf(stderr, "nextSymbol: no definition of %s@%s after the test program's\n", name,
                 version);
    std::abort();
  }
  return reinterpret_cast<F>(symbol);
}

// The line util::safe and util::safePosix print for a failed call (funcName being the caller's
// signature), before they abort or return.
std::string checkedCallFailure(const std::string& funcName, const std::string& file, int line,
                               int err);
// The assertion line with which util::safe ends the process for a fatal failure.
std::string safeAbortLine();
// The assertion line with which util::safePosix ends the process.
std::string safePosixAbortLine();

// Now on clock plus ms milliseconds (ms may be negative: a point in the past).
util::TimeSpec deadlineIn(clockid_t clock, int ms);

// What a GeneralException prints on standard output when it is constructed, before its message.
inline const std::string kWarn =
    "[WARN Orvix/GeneralException:65]    Constructing GeneralException with msg ";

// Runs fn, expects a GeneralException with exactly msg, and its one warning line on stdout.
template <class F>
void expectGeneralException(F fn, const std::string& msg) {
  CaptureFd out(1);
  std::string what = "<nothing thrown>";
  try {
    fn();
  } catch (const util::GeneralException& e) {
    what = e.what();
  }
  EXPECT_EQ(what, msg);
  EXPECT_EQ(out.text(), kWarn + msg + "\n");
}

// True when the process may use SCHED_FIFO; otherwise reason says why not.
bool canUseRealtime(std::string* reason);

}  // namespace orvix_test
