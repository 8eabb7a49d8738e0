#include "Orvix/LinuxPipe.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/SafeLinuxCalls.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace util {
namespace {

constexpr const char* kUnit = "Orvix/LinuxPipe";

// A signal that interrupts a wait or a read is no failure of the child or of its pipe.
template <class Call>
auto retryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace

// Pipes are made close-on-exec: the child's copies become its standard streams through dup2
// (which clears the flag), and no other child of this process inherits a parent's end, which
// would keep this child's input open or its output unfinished.
MyPipe::MyPipe(const std::string& command) : pid(-1), status(-1) {
  const char* const self = __PRETTY_FUNCTION__;
  safe(self, kUnit, __LINE__, pipe2(stdinFd, O_CLOEXEC), true);
  safe(self, kUnit, __LINE__, pipe2(stdoutFd, O_CLOEXEC), true);
  safe(self, kUnit, __LINE__, pipe2(stderrFd, O_CLOEXEC), true);
  safeCerr << "stdinFd[0]=" << stdinFd[0] << ", stdinFd[1]=" << stdinFd[1]
           << ", stdoutFd[0]=" << stdoutFd[0] << ", stdoutFd[1]=" << stdoutFd[1]
           << ", stderrFd[0]=" << stderrFd[0] << ", stderrFd[1]=" << stderrFd[1] << std::endl;
  stdinId = identityOf(stdinFd[1]);
  stdoutId = identityOf(stdoutFd[0]);
  stderrId = identityOf(stderrFd[0]);

  const int forked = safe(self, kUnit, __LINE__, fork(), true);
  // Parent and child write this line at the same time to the same standard error: one piece
  // each, so that the two lines cannot mix (std::cerr writes every << on its own).
  safeCerr << ("pid=" + std::to_string(forked) + "\n") << std::flush;
  if (forked == 0) {
    safe(self, kUnit, __LINE__, close(stdinFd[1]), true);
    safe(self, kUnit, __LINE__, close(stdoutFd[0]), true);
    safe(self, kUnit, __LINE__, close(stderrFd[0]), true);
    safe(self, kUnit, __LINE__, dup2(stdinFd[0], 0), true);
    safe(self, kUnit, __LINE__, close(stdinFd[0]), true);
    safe(self, kUnit, __LINE__, dup2(stdoutFd[1], 1), true);
    safe(self, kUnit, __LINE__, close(stdoutFd[1]), true);
    safe(self, kUnit, __LINE__, dup2(stderrFd[1], 2), true);
    safe(self, kUnit, __LINE__, close(stderrFd[1]), true);
    // Returns only on failure, which safe turns into the child's abort.
    safe(self, kUnit, __LINE__,
         execlp("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr)), true);
  }
  pid = forked;
  ORVIX_ASSERT(pid != -1, "pid != -1", kUnit, __LINE__);
  safe(self, kUnit, __LINE__, close(stdinFd[0]), true);
  safe(self, kUnit, __LINE__, close(stdoutFd[1]), true);
  safe(self, kUnit, __LINE__, close(stderrFd[1]), true);
}

MyPipe::~MyPipe() {
  waitForChild();
  safeCerr << "~MyPipe() in process" << getpid() << std::endl;
  // A client that closed an end itself, as it must for a child that reads its input to the end,
  // may have got the number back from a later open: that descriptor is not ours to close.
  if (stillOwns(stdinFd[1], stdinId))
    safe(__PRETTY_FUNCTION__, kUnit, __LINE__, close(stdinFd[1]), true);
  if (stillOwns(stdoutFd[0], stdoutId))
    safe(__PRETTY_FUNCTION__, kUnit, __LINE__, close(stdoutFd[0]), true);
  if (stillOwns(stderrFd[0], stderrId))
    safe(__PRETTY_FUNCTION__, kUnit, __LINE__, close(stderrFd[0]), true);
}

MyPipe::FdIdentity MyPipe::identityOf(int fd) {
  struct stat st {};
  if (fstat(fd, &st) != 0) return FdIdentity{};
  return FdIdentity{st.st_dev, st.st_ino};
}

bool MyPipe::stillOwns(int fd, const FdIdentity& id) {
  struct stat st {};
  return fstat(fd, &st) == 0 && st.st_dev == id.dev && st.st_ino == id.ino;
}

int MyPipe::waitForChild() {
  if (pid < 1) return status;
  safeCerr << "before waitpid" << std::endl;
  safe(__PRETTY_FUNCTION__, kUnit, __LINE__,
       retryInterrupted([this] { return waitpid(pid, &status, 0); }), true);
  safeCerr << "after waitpid" << std::endl;
  pid = -1;
  return status;
}

void MyPipe::dumpStdout() { dumpStream("DUMP stdout von MyPipe:", childStdout()); }

void MyPipe::dumpStderr() { dumpStream("DUMP stderr von MyPipe:", childStderr()); }

void dumpStream(const std::string& title, int fd) {
  safeCout << title << "\n";
  char bufStdout[256];
  char* pBuf = bufStdout;
  std::size_t room = 255;
  while (room > 0) {
    const ssize_t got = retryInterrupted([&] { return read(fd, pBuf, room); });
    // A failed read is reported and ends the dump like the end of the stream.
    if (safe(__PRETTY_FUNCTION__, kUnit, __LINE__, static_cast<int>(got), false) <= 0) break;
    pBuf += got;
    room -= static_cast<std::size_t>(got);
    if (room == 0) safeCout << "OUTPUT WAS CUT TO 256 CHARACTERS:\n";
  }
  ORVIX_ASSERT(pBuf < bufStdout + 256, "pBuf < bufStdout + 256", kUnit, __LINE__);
  *pBuf = '\0';
  safeCout << "'" << bufStdout << "'" << std::endl;
}

// The "e" keeps the stream's descriptor out of children started later, as with MyPipe.
LinuxPipe::LinuxPipe(const std::string& command, bool forReading)
    : stream(popen(command.c_str(), forReading ? "re" : "we")) {
  safeCout << "f=" << static_cast<const void*>(stream) << std::endl;
}

LinuxPipe::~LinuxPipe() {
  if (stream == nullptr) return;
  const int res = pclose(stream);
  const int err = errno;
  safeCerr << "res of pclose: " << res << std::endl;
  if (res == -1) {
    char buffer[256];
    safeCerr << "pclose failed: " << strerror_r(err, buffer, sizeof buffer) << std::endl;
    ORVIX_ASSERT(-1 != res, "-1 != res", kUnit, __LINE__);
  }
}

}  // namespace util
