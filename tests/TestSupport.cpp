#include "TestSupport.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

namespace orvix_test {

bool ChildResult::exited() const { return !timedOut && WIFEXITED(status); }
int ChildResult::exitCode() const { return exited() ? WEXITSTATUS(status) : -1; }
bool ChildResult::signaled() const { return !timedOut && WIFSIGNALED(status); }
int ChildResult::signal() const { return signaled() ? WTERMSIG(status) : 0; }

std::string ChildResult::describe() const {
  std::ostringstream s;
  if (timedOut)
    s << "timed out";
  else if (exited())
    s << "exited " << exitCode();
  else if (signaled())
    s << "killed by signal " << signal();
  s << "\n--- stdout ---\n" << out << "\n--- stderr ---\n" << err;
  return s.str();
}

namespace {

void flushAll() {
  std::cout.flush();
  std::cerr.flush();
  fflush(nullptr);
}

double monotonicSeconds() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

std::string withoutEmulatorLines(const std::string& text) {
  std::string result;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    const std::size_t next = end == std::string::npos ? text.size() : end + 1;
    if (text.compare(pos, 5, "qemu:") != 0) result.append(text, pos, next - pos);
    pos = next;
  }
  return result;
}

ChildResult runInChild(const std::function<void()>& fn, const std::string& stdinText,
                       int timeoutSeconds) {
  int in[2], out[2], err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) {
    perror("pipe");
    abort();
  }
  flushAll();
  const pid_t pid = fork();
  if (pid < 0) {
    perror("fork");
    abort();
  }
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    fn();
    flushAll();
    _exit(0);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  // Standard input is small in every test; write it whole, then close so the child sees EOF.
  signal(SIGPIPE, SIG_IGN);
  std::size_t written = 0;
  while (written < stdinText.size()) {
    const ssize_t n = write(in[1], stdinText.data() + written, stdinText.size() - written);
    if (n <= 0) break;
    written += static_cast<std::size_t>(n);
  }
  close(in[1]);

  ChildResult result;
  std::string errRaw;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  int open = 2;
  const double deadline = monotonicSeconds() + timeoutSeconds;
  while (open > 0) {
    const double left = deadline - monotonicSeconds();
    if (left <= 0) {
      kill(pid, SIGKILL);
      result.timedOut = true;
      break;
    }
    const int r = poll(fds, 2, static_cast<int>(left * 1000) + 1);
    if (r < 0 && errno == EINTR) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? result.out : errRaw).append(buffer, static_cast<std::size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& p : fds)
    if (p.fd >= 0) close(p.fd);
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  result.err = withoutEmulatorLines(errRaw);
  return result;
}

std::string assertionLine(const std::string& file, int line, const std::string& function,
                          const std::string& expression) {
  return std::string(program_invocation_short_name) + ": " + file + ":" + std::to_string(line) +
         ": " + function + ": Assertion `" + expression + "' failed.\n";
}

void expectAssertion(const std::function<void()>& fn, const std::string& file, int line,
                     const std::string& function, const std::string& expression) {
  const ChildResult r = runInChild(fn);
  ASSERT_TRUE(r.signaled()) << r.describe();
  EXPECT_EQ(r.signal(), SIGABRT);
  EXPECT_EQ(r.err, assertionLine(file, line, function, expression));
  EXPECT_EQ(r.out, "");
}

std::string checkedCallFailure(const std::string& funcName, const std::string& file, int line,
                               int err) {
  return funcName + " failed in " + file + ":" + std::to_string(line) + " - (" +
         std::to_string(err) + ") " + errorText(err) + "\n";
}

std::string safeAbortLine() {
  return assertionLine("Orvix/SafeLinuxCalls", 32,
                       "int util::safe(const char*, const char*, int, int, bool)",
                       "linuxFuncResult != -1");
}

std::string safePosixAbortLine() {
  return assertionLine("Orvix/SafeLinuxCalls", 50,
                       "int util::safePosix(const char*, const char*, int, int)",
                       "posixFuncResult == 0");
}

util::TimeSpec deadlineIn(clockid_t clock, int ms) {
  util::TimeSpec t;
  t.initNow(clock);
  util::TimeSpec d;
  d.initFromMs(ms);
  t += d;
  return t;
}

std::string errorText(int err) {
  char buffer[256];
  return strerror_r(err, buffer, sizeof buffer);
}

CaptureFd::CaptureFd(int fd) : fd_(fd) {
  flushAll();
  char name[] = "/tmp/orvix-capture-XXXXXX";
  file_ = mkstemp(name);
  unlink(name);
  saved_ = dup(fd_);
  dup2(file_, fd_);
}

CaptureFd::~CaptureFd() { stop(); }

void CaptureFd::stop() {
  if (stopped_) return;
  stopped_ = true;
  flushAll();
  dup2(saved_, fd_);
  close(saved_);
  lseek(file_, 0, SEEK_SET);
  char buffer[4096];
  ssize_t n;
  while ((n = read(file_, buffer, sizeof buffer)) > 0)
    captured_.append(buffer, static_cast<std::size_t>(n));
  close(file_);
}

std::string CaptureFd::text() {
  stop();
  return captured_;
}

bool canUseRealtime(std::string* reason) {
  sched_param param{};
  param.sched_priority = 1;
  int policy = 0;
  sched_param old{};
  pthread_getschedparam(pthread_self(), &policy, &old);
  const int r = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
  if (r != 0) {
    if (reason) *reason = std::string("SCHED_FIFO not permitted here: ") + errorText(r);
    return false;
  }
  pthread_setschedparam(pthread_self(), policy, &old);
  return true;
}

}  // namespace orvix_test
