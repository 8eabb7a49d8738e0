// Helpers shared by the test programs.
//
// runInChild runs a function in a forked child with standard input, output and error on pipes
// and returns what the child wrote and how it ended; use it wherever the code under test aborts,
// exits or changes process-wide state. Lines the emulator adds to standard error ("qemu: ...")
// are removed, so expectations hold under qemu-arm as on the host.
// CaptureFd captures one of the process's own descriptors (1 or 2) in-process.
#pragma once

#include <dlfcn.h>
#include <sys/types.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "Orvix/GeneralException.hpp"

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

// The next definition of name after the test program's own (the real system call).
template <class F>
F nextSymbol(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// The same for a symbol glibc keeps in several versions: the definition of exactly that version.
template <class F>
F nextSymbol(const char* name, const char* version) {
  return reinterpret_cast<F>(dlvsym(RTLD_NEXT, name, version));
}

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
