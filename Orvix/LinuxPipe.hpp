// Running a shell command as a child process, with pipes.
//
// util::MyPipe runs "/bin/sh -c command" with the child's standard input, output and error on
// three pipes the parent holds; util::LinuxPipe wraps popen/pclose for a one-way stream. Both
// trace what they do on the console streams (descriptors and process ids on safeCerr, the popen
// handle on safeCout), and util::dumpStream prints what a child wrote (at most 255 bytes) on
// safeCout.
//
// One object is used by one thread. Failed system calls are reported by util::safe with file
// "Orvix/LinuxPipe" and abort (fork, pipe, dup2, close, execlp, waitpid; a failed exec aborts the
// child, and its report arrives on the child's standard error pipe). A failed read ends a dump
// after its report. A failing pclose prints its error and aborts.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace util {

// A child running "/bin/sh -c command" whose standard streams are pipes of this object.
//
// Trace on safeCerr: the six descriptors, "pid=" in parent and child (the child's line also
// reaches the parent's standard error, in either order with the parent's), "before waitpid" and
// "after waitpid" around the one wait, and "~MyPipe() in process<pid>" on destruction.
//
// The destructor waits for the child before it closes anything: a client whose child reads its
// input to the end closes childStdin() first, and one whose child writes more than a pipe holds
// drains childStdout() and childStderr() first; otherwise the wait never ends. The parent's ends
// are close-on-exec, so children started later (by this process in any way) do not hold them
// open. The descriptors 0, 1 and 2 of the process must be open when a MyPipe is made.
class MyPipe {
 public:
  // Creates the pipes and starts the child; the caller continues at once.
  explicit MyPipe(const std::string& command);
  // waitForChild(), the "~MyPipe() in process" line, then closes the parent's three ends
  // (those the client closed itself are left alone).
  virtual ~MyPipe();
  MyPipe(const MyPipe&) = delete;
  MyPipe& operator=(const MyPipe&) = delete;

  // The parent's ends: writing reaches the child's standard input; reading gives its standard
  // output and standard error. The client may close any of them itself.
  int childStdin() const { return stdinFd[1]; }
  int childStdout() const { return stdoutFd[0]; }
  int childStderr() const { return stderrFd[0]; }

  // Waits for the child once and returns the raw waitpid status (decode it with WIFEXITED and
  // friends); later calls return the same status without waiting.
  int waitForChild();

  // dumpStream of the child's standard output / standard error, titled
  // "DUMP stdout von MyPipe:" / "DUMP stderr von MyPipe:".
  void dumpStdout();
  void dumpStderr();

 private:
  // Identity of an open descriptor, to tell the pipe end it was from whatever reuses its number.
  struct FdIdentity {
    dev_t dev = 0;
    ino_t ino = 0;
  };
  static FdIdentity identityOf(int fd);
  // True while fd is still the pipe end recorded in id.
  static bool stillOwns(int fd, const FdIdentity& id);

  int pid;          // the child; -1 once reaped
  int stdinFd[2];   // the parent keeps [1]
  int stdoutFd[2];  // the parent keeps [0]
  int stderrFd[2];  // the parent keeps [0]
  int status;       // raw wait status; -1 until reaped
  FdIdentity stdinId, stdoutId, stderrId;  // const once the child runs
};

// Prints title and "\n", then up to 255 bytes read from fd (until end of file or a failed
// read) between single quotes, up to the first NUL byte. When 255 bytes arrive the reading stops
// with the line "OUTPUT WAS CUT TO 256 CHARACTERS:" before the quoted text.
void dumpStream(const std::string& title, int fd);

// A popen stream: prints "f=<handle>" on safeCout when opened (the handle is null when popen
// failed); on destruction pcloses a non-null stream and prints "res of pclose: <raw status>" on
// safeCerr, or aborts after "pclose failed: <error>" when pclose fails.
class LinuxPipe {
 public:
  // popen(command, forReading ? "r" : "w").
  LinuxPipe(const std::string& command, bool forReading);
  virtual ~LinuxPipe();
  LinuxPipe(const LinuxPipe&) = delete;
  LinuxPipe& operator=(const LinuxPipe&) = delete;

  // The stream itself, for reading or writing; null when popen failed. A client that pcloses it
  // sets it to null, so that the destructor does not close it again.
  FILE*& go() { return stream; }

 private:
  FILE* stream;  // owned; null when popen failed
};

}  // namespace util
