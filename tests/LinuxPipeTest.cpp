#include "Orvix/LinuxPipe.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.hpp"

using orvix_test::CaptureFd;
using orvix_test::runInChild;
using util::LinuxPipe;
using util::MyPipe;

// ---- Fault injection -----------------------------------------------------------------------------
// An armed call fails once with the armed errno; otherwise the real function runs.

namespace {

int failFork = 0;
int failPipe2 = 0;
int failExeclp = 0;
bool failPopen = false;

using orvix_test::nextSymbol;
using orvix_test::takeArmed;

}  // namespace

extern "C" {

pid_t fork() __THROWNL {
  static auto real = nextSymbol<pid_t (*)()>("fork");
  if (const int e = takeArmed(failFork)) {
    errno = e;
    return -1;
  }
  return real();
}

int pipe2(int fds[2], int flags) __THROW {
  static auto real = nextSymbol<int (*)(int*, int)>("pipe2");
  if (const int e = takeArmed(failPipe2)) {
    errno = e;
    return -1;
  }
  return real(fds, flags);
}

int execlp(const char* file, const char* arg, ...) __THROW {
  if (const int e = takeArmed(failExeclp)) {
    errno = e;
    return -1;
  }
  std::vector<char*> argv{const_cast<char*>(arg)};
  va_list ap;
  va_start(ap, arg);
  while (char* next = va_arg(ap, char*)) argv.push_back(next);
  va_end(ap);
  argv.push_back(nullptr);
  return execvp(file, argv.data());
}

FILE* popen(const char* command, const char* mode) {
  static auto real = nextSymbol<FILE* (*)(const char*, const char*)>("popen");
  if (failPopen) {
    failPopen = false;
    errno = EMFILE;
    return nullptr;
  }
  return real(command, mode);
}

}  // extern "C"

namespace {

// Lines of the checked calls in Orvix/LinuxPipe.cpp.
constexpr int kPipeLine = 37;
constexpr int kForkLine = 47;
constexpr int kExecLine = 62;
constexpr int kReadLine = 118;
constexpr int kPcloseAssertLine = 142;

const char kConstructor[] = "util::MyPipe::MyPipe(const std::string&)";
const char kDumpStream[] = "void util::dumpStream(const std::string&, int)";

std::string safeFailure(const std::string& function, int line, int err) {
  return function + " failed in Orvix/LinuxPipe:" + std::to_string(line) + " - (" +
         std::to_string(err) + ") " + orvix_test::errorText(err) + "\n";
}

std::string safeAssertion() {
  return orvix_test::assertionLine("Orvix/SafeLinuxCalls", 32,
                                   "int util::safe(const char*, const char*, int, int, bool)",
                                   "linuxFuncResult != -1");
}

// Child processes that abort on purpose leave no core file behind.
void noCoreFiles() {
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

// The construction trace of a MyPipe, read back from what was written to standard error.
struct Trace {
  bool parsed = false;                   // descriptor and pid lines found, child line once
  int fd[6] = {-1, -1, -1, -1, -1, -1};  // stdinFd[0..1], stdoutFd[0..1], stderrFd[0..1]
  int pid = -1;                          // from the parent's "pid=" line
  std::string text;                      // all of it but the child's "pid=0" line
};

// The child writes "pid=0" to the same standard error at any time before it execs, in one write,
// while the parent writes its own lines piece by piece (std::cerr writes every << on its own): the
// child's line may stand anywhere after the descriptor line, even inside one of the parent's
// lines. It must be there exactly once and is taken out; the rest is compared whole.
Trace parseTrace(const std::string& all) {
  Trace t;
  const std::string childLine = "pid=0\n";
  const std::size_t at = all.find(childLine);
  if (at == std::string::npos || all.find(childLine, at + 1) != std::string::npos) return t;
  t.text = all;
  t.text.erase(at, childLine.size());
  static const std::regex head(
      "stdinFd\\[0\\]=(\\d+), stdinFd\\[1\\]=(\\d+), stdoutFd\\[0\\]=(\\d+), "
      "stdoutFd\\[1\\]=(\\d+), stderrFd\\[0\\]=(\\d+), stderrFd\\[1\\]=(\\d+)\n"
      "pid=(\\d+)\n");
  std::smatch m;
  if (!std::regex_search(t.text, m, head, std::regex_constants::match_continuous)) return t;
  for (int i = 0; i < 6; ++i) t.fd[i] = std::stoi(m[i + 1]);
  t.pid = std::stoi(m[7]);
  t.parsed = t.pid > 0;
  return t;
}

// What the construction trace of t must read, with its numbers.
std::string headOf(const Trace& t) {
  std::ostringstream s;
  s << "stdinFd[0]=" << t.fd[0] << ", stdinFd[1]=" << t.fd[1] << ", stdoutFd[0]=" << t.fd[2]
    << ", stdoutFd[1]=" << t.fd[3] << ", stderrFd[0]=" << t.fd[4] << ", stderrFd[1]=" << t.fd[5]
    << "\npid=" << t.pid << "\n";
  return s.str();
}

const std::string kWaitLines = "before waitpid\nafter waitpid\n";

std::string destructorLine() { return "~MyPipe() in process" + std::to_string(getpid()) + "\n"; }

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A pipe whose write end has received text and is closed; returns the read end.
int pipeHolding(const std::string& text) {
  int fds[2];
  if (pipe(fds) != 0) abort();
  if (!text.empty() && write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    abort();
  close(fds[1]);
  return fds[0];
}

std::string readAll(int fd) {
  std::string text;
  char buffer[512];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  return text;
}

std::string pattern(std::size_t n) {
  std::string s;
  for (std::size_t i = 0; i < n; ++i) s += static_cast<char>('A' + i % 26);
  return s;
}

}  // namespace

// ---- MyPipe --------------------------------------------------------------------------------------

TEST(MyPipe, WholeTraceOfAChildRun) {
  CaptureFd err(2);
  CaptureFd out(1);
  int parentEnds[3];
  int status = 0;
  {
    MyPipe p("echo $$; echo to-stderr >&2");
    parentEnds[0] = p.childStdin();
    parentEnds[1] = p.childStdout();
    parentEnds[2] = p.childStderr();
    p.dumpStdout();
    p.dumpStderr();
    status = p.waitForChild();
  }
  const std::string errText = err.text();
  const std::string outText = out.text();
  const Trace t = parseTrace(errText);
  ASSERT_TRUE(t.parsed) << errText;
  EXPECT_EQ(t.text, headOf(t) + kWaitLines + destructorLine());
  // The descriptors printed are the pipes the parent kept.
  EXPECT_EQ(t.fd[1], parentEnds[0]);
  EXPECT_EQ(t.fd[2], parentEnds[1]);
  EXPECT_EQ(t.fd[4], parentEnds[2]);
  // The shell's $$ is the process the parent printed.
  EXPECT_EQ(outText, "DUMP stdout von MyPipe:\n'" + std::to_string(t.pid) +
                         "\n'\nDUMP stderr von MyPipe:\n'to-stderr\n'\n");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  // The destructor closed the parent's ends; the child's ends were closed at construction.
  for (int fd : t.fd) EXPECT_FALSE(isOpen(fd)) << fd;
}

TEST(MyPipe, ChildEndsAreClosedAndParentEndsCloseOnExec) {
  CaptureFd err(2);
  {
    MyPipe p("true");
    std::vector<int> parentEnds = {p.childStdin(), p.childStdout(), p.childStderr()};
    for (int fd : parentEnds) {
      ASSERT_TRUE(isOpen(fd)) << fd;
      EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
    }
    p.waitForChild();
    const Trace t = parseTrace(err.text());
    ASSERT_TRUE(t.parsed);
    EXPECT_EQ(std::vector<int>({t.fd[1], t.fd[2], t.fd[4]}), parentEnds);
    for (int i : {0, 3, 5}) EXPECT_FALSE(isOpen(t.fd[i])) << t.fd[i];
  }
}

TEST(MyPipe, InputReachesTheChild) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    MyPipe p("tr a-z A-Z");
    const std::string text = "hello pipe";
    ASSERT_EQ(write(p.childStdin(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(p.childStdin());
    p.dumpStdout();
    p.dumpStderr();
  }
  const std::string errText = err.text();
  const Trace t = parseTrace(errText);
  ASSERT_TRUE(t.parsed) << errText;
  // The client closed the input itself: the destructor leaves that descriptor alone, silently.
  EXPECT_EQ(t.text, headOf(t) + kWaitLines + destructorLine());
  EXPECT_EQ(out.text(),
            "DUMP stdout von MyPipe:\n'HELLO PIPE'\nDUMP stderr von MyPipe:\n''\n");
}

TEST(MyPipe, WaitingTwiceWaitsOnce) {
  CaptureFd err(2);
  int first = -2, second = -3, third = -4;
  {
    MyPipe p("exit 7");
    first = p.waitForChild();
    second = p.waitForChild();
    third = p.waitForChild();
  }
  const std::string errText = err.text();
  const Trace t = parseTrace(errText);
  ASSERT_TRUE(t.parsed) << errText;
  EXPECT_EQ(t.text, headOf(t) + kWaitLines + destructorLine());
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, third);
  EXPECT_TRUE(WIFEXITED(first));
  EXPECT_EQ(WEXITSTATUS(first), 7);
}

TEST(MyPipe, ExitStatusIsDecodedByTheCaller) {
  CaptureFd err(2);
  for (int code : {0, 1, 3, 255}) {
    MyPipe p("exit " + std::to_string(code));
    const int status = p.waitForChild();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), code);
    EXPECT_FALSE(WIFSIGNALED(status));
  }
}

TEST(MyPipe, ChildKilledBySignalIsDecodedByTheCaller) {
  CaptureFd err(2);
  for (int sig : {SIGTERM, SIGKILL, SIGUSR1}) {
    MyPipe p("kill -" + std::to_string(sig) + " $$");
    const int status = p.waitForChild();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), sig);
    EXPECT_FALSE(WIFEXITED(status));
  }
}

TEST(MyPipe, StderrIsDumped) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    MyPipe p("echo only-here >&2; echo second line >&2");
    p.dumpStderr();
    p.dumpStdout();
  }
  err.text();
  EXPECT_EQ(out.text(),
            "DUMP stderr von MyPipe:\n'only-here\nsecond line\n'\nDUMP stdout von MyPipe:\n''\n");
}

TEST(MyPipe, ThreeHundredBytesAreCutTo255) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    MyPipe p("printf '%0300d' 0");
    p.dumpStdout();
  }
  err.text();
  EXPECT_EQ(out.text(), "DUMP stdout von MyPipe:\nOUTPUT WAS CUT TO 256 CHARACTERS:\n'" +
                            std::string(255, '0') + "'\n");
}

TEST(MyPipe, NoOutputGivesTwoQuotes) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    MyPipe p("true");
    p.dumpStdout();
  }
  err.text();
  EXPECT_EQ(out.text(), "DUMP stdout von MyPipe:\n''\n");
}

TEST(MyPipe, ClientClosesInputOfAReadingChildBeforeDestruction) {
  const auto r = runInChild(
      [] {
        {
          MyPipe p("cat");
          const std::string text = "line for cat\n";
          if (write(p.childStdin(), text.data(), text.size()) !=
              static_cast<ssize_t>(text.size()))
            abort();
          close(p.childStdin());
          // The destructor's wait ends because the child sees the end of its input.
        }
        printf("%d\n", static_cast<int>(getpid()));
      },
      "", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  const Trace t = parseTrace(r.err);
  ASSERT_TRUE(t.parsed) << r.err;
  ASSERT_FALSE(r.out.empty());
  EXPECT_EQ(t.text, headOf(t) + kWaitLines + "~MyPipe() in process" + r.out);
}

TEST(MyPipe, ANumberReusedAfterTheClientClosedItIsNotClosed) {
  CaptureFd err(2);
  int reused = -1;
  {
    MyPipe p("cat >/dev/null");
    reused = p.childStdin();
    close(reused);
    // What a later open in another thread may do: the number now names another file.
    const int other = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(other, reused), reused);
    close(other);
  }
  struct stat st {};
  ASSERT_EQ(fstat(reused, &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  close(reused);
  const Trace t = parseTrace(err.text());
  ASSERT_TRUE(t.parsed);
  EXPECT_EQ(t.text, headOf(t) + kWaitLines + destructorLine());
}

TEST(MyPipe, LaterChildrenDoNotHoldAnEarlierChildsInput) {
  const auto r = runInChild(
      [] {
        MyPipe b("cat");  // kept running while a ends
        {
          MyPipe a("cat");
          MyPipe c("cat");
          close(a.childStdin());
          close(c.childStdin());
          // Destroying c, then a: neither wait may depend on b, which still holds its input.
        }
        close(b.childStdin());
      },
      "", 60);
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
}

TEST(MyPipeDeathTest, FailedForkIsReportedAndAborts) {
  const auto r = runInChild([] {
    noCoreFiles();
    failFork = EAGAIN;
    MyPipe p("true");
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  const std::size_t headEnd = r.err.find('\n') + 1;
  EXPECT_TRUE(std::regex_match(r.err.substr(0, headEnd),
                               std::regex("stdinFd\\[0\\]=\\d+, stdinFd\\[1\\]=\\d+, "
                                          "stdoutFd\\[0\\]=\\d+, stdoutFd\\[1\\]=\\d+, "
                                          "stderrFd\\[0\\]=\\d+, stderrFd\\[1\\]=\\d+\n")))
      << r.err;
  EXPECT_EQ(r.err.substr(headEnd), safeFailure(kConstructor, kForkLine, EAGAIN) + safeAssertion());
  EXPECT_EQ(r.out, "");
}

TEST(MyPipeDeathTest, FailedPipeIsReportedAndAborts) {
  const auto r = runInChild([] {
    noCoreFiles();
    failPipe2 = EMFILE;
    MyPipe p("true");
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, safeFailure(kConstructor, kPipeLine, EMFILE) + safeAssertion());
  EXPECT_EQ(r.out, "");
}

TEST(MyPipeDeathTest, FailedExecIsReportedByTheChild) {
  const auto r = runInChild([] {
    noCoreFiles();
    failExeclp = ENOENT;  // inherited by the child, which is where execlp runs
    MyPipe p("true");
    const std::string childErr = readAll(p.childStderr());
    const std::string childOut = readAll(p.childStdout());
    const int status = p.waitForChild();
    printf("%s|%s|%d|%d\n", orvix_test::withoutEmulatorLines(childErr).c_str(), childOut.c_str(),
           WIFSIGNALED(status) ? 1 : 0, WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, safeFailure(kConstructor, kExecLine, ENOENT) + safeAssertion() + "||1|" +
                       std::to_string(SIGABRT) + "\n");
}

// ---- dumpStream ----------------------------------------------------------------------------------

class DumpStreamSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(DumpStreamSizes, KeepsAtMost255BytesAndCutsAtExactly255) {
  const std::size_t n = GetParam();
  const std::string text = pattern(n);
  const int fd = pipeHolding(text);
  CaptureFd out(1);
  util::dumpStream("Titel:", fd);
  const std::string printed = out.text();
  const std::size_t kept = n < 255 ? n : 255;
  const std::string cut = n >= 255 ? "OUTPUT WAS CUT TO 256 CHARACTERS:\n" : "";
  EXPECT_EQ(printed, "Titel:\n" + cut + "'" + text.substr(0, kept) + "'\n");
  // Reading stopped right after the 255th byte.
  EXPECT_EQ(readAll(fd), text.substr(kept));
  close(fd);
}

INSTANTIATE_TEST_SUITE_P(Sizes, DumpStreamSizes,
                         ::testing::Values(0u, 1u, 254u, 255u, 256u, 300u, 4096u));

TEST(DumpStream, JoinsPartialReads) {
  for (const std::size_t chunk : {50u, 100u}) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string text = pattern(3 * chunk);
    // Each chunk is written only after the reader took the previous one, so every read is
    // partial.
    std::thread writer([&] {
      for (int i = 0; i < 3; ++i) {
        if (write(fds[1], text.data() + i * chunk, chunk) != static_cast<ssize_t>(chunk)) abort();
        if (i == 2) break;  // the last chunk may be read only in part
        int pending = 1;
        while (pending > 0 && ioctl(fds[1], FIONREAD, &pending) == 0) usleep(1000);
      }
      close(fds[1]);
    });
    CaptureFd out(1);
    util::dumpStream("T", fds[0]);
    const std::string printed = out.text();
    writer.join();
    const std::size_t kept = text.size() < 255 ? text.size() : 255;
    const std::string cut = text.size() >= 255 ? "OUTPUT WAS CUT TO 256 CHARACTERS:\n" : "";
    EXPECT_EQ(printed, "T\n" + cut + "'" + text.substr(0, kept) + "'\n") << chunk;
    close(fds[0]);
  }
}

TEST(DumpStream, TextEndsAtTheFirstNul) {
  const int fd = pipeHolding(std::string("ab\0cd", 5));
  CaptureFd out(1);
  util::dumpStream("", fd);
  EXPECT_EQ(out.text(), "\n'ab'\n");
  close(fd);
}

TEST(DumpStream, FailedReadIsReportedAndEndsTheDump) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  CaptureFd err(2);
  CaptureFd out(1);
  util::dumpStream("T", fds[1]);  // the write end cannot be read
  EXPECT_EQ(out.text(), "T\n''\n");
  EXPECT_EQ(err.text(), safeFailure(kDumpStream, kReadLine, EBADF));
  close(fds[0]);
  close(fds[1]);
}

// ---- LinuxPipe -----------------------------------------------------------------------------------

namespace {

std::string pointerText(const void* p) {
  std::ostringstream s;
  s << p;
  return s.str();
}

}  // namespace

TEST(LinuxPipe, SucceedingCommandWithoutOutput) {
  CaptureFd err(2);
  CaptureFd out(1);
  std::string handle;
  {
    LinuxPipe lp("true", true);
    ASSERT_NE(lp.go(), nullptr);
    handle = pointerText(lp.go());
    EXPECT_EQ(fgetc(lp.go()), EOF);
  }
  EXPECT_EQ(out.text(), "f=" + handle + "\n");
  EXPECT_EQ(err.text(), "res of pclose: 0\n");
  EXPECT_EQ(handle.substr(0, 2), "0x");
}

TEST(LinuxPipe, ReadsTheCommandsOutput) {
  CaptureFd err(2);
  CaptureFd out(1);
  std::string handle, line;
  {
    LinuxPipe lp("echo from the command", true);
    handle = pointerText(lp.go());
    char buffer[64] = {};
    ASSERT_NE(fgets(buffer, sizeof buffer, lp.go()), nullptr);
    line = buffer;
  }
  EXPECT_EQ(line, "from the command\n");
  EXPECT_EQ(out.text(), "f=" + handle + "\n");
  EXPECT_EQ(err.text(), "res of pclose: 0\n");
}

TEST(LinuxPipe, WritesToTheCommand) {
  char name[] = "/dev/shm/orvix-linuxpipe-XXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  CaptureFd err(2);
  CaptureFd out(1);
  {
    LinuxPipe lp(std::string("cat > ") + name, false);
    ASSERT_NE(lp.go(), nullptr);
    fputs("written through the pipe\n", lp.go());
  }
  EXPECT_EQ(err.text(), "res of pclose: 0\n");
  out.text();
  EXPECT_EQ(readAll(fd), "written through the pipe\n");
  close(fd);
  unlink(name);
}

TEST(LinuxPipe, RawStatusOfPclose) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    LinuxPipe lp("exit 3", true);
  }
  {
    LinuxPipe lp("kill -TERM $$", true);
  }
  out.text();
  EXPECT_EQ(err.text(), "res of pclose: " + std::to_string(3 << 8) + "\nres of pclose: " +
                            std::to_string(SIGTERM) + "\n");
}

TEST(LinuxPipe, GoGivesTheFieldItself) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    LinuxPipe lp("true", true);
    FILE*& stream = lp.go();
    EXPECT_EQ(&stream, &lp.go());
    // A client that closes the stream itself clears the field; the destructor then does nothing.
    EXPECT_EQ(pclose(stream), 0);
    stream = nullptr;
    EXPECT_EQ(lp.go(), nullptr);
  }
  EXPECT_EQ(err.text(), "");
  out.text();
}

TEST(LinuxPipe, FailedPopenPrintsANullHandleAndIsSkipped) {
  CaptureFd err(2);
  CaptureFd out(1);
  {
    failPopen = true;
    LinuxPipe lp("true", true);
    EXPECT_EQ(lp.go(), nullptr);
  }
  EXPECT_EQ(out.text(), "f=" + pointerText(nullptr) + "\n");
  EXPECT_EQ(err.text(), "");
}

TEST(LinuxPipeDeathTest, FailingPcloseAborts) {
  const auto r = runInChild([] {
    noCoreFiles();
    // Children are reaped by the kernel, so pclose finds none to wait for.
    signal(SIGCHLD, SIG_IGN);
    LinuxPipe lp("true", true);
  });
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("f=0x[0-9a-f]+\n"))) << r.out;
  EXPECT_EQ(r.err, "res of pclose: -1\npclose failed: " + orvix_test::errorText(ECHILD) + "\n" +
                       orvix_test::assertionLine("Orvix/LinuxPipe", kPcloseAssertLine,
                                                 "virtual util::LinuxPipe::~LinuxPipe()",
                                                 "-1 != res"));
}
