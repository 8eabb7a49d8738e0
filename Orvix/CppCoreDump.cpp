#include "Orvix/CppCoreDump.hpp"

#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>

#include "EasyAsync.hpp"
#include "Orvix/LogGroups.hpp"
#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"

namespace orvix {
namespace coredump {
namespace {

constexpr const char* kUnit = "Orvix/CppCoreDump";
constexpr const char* kBaseDir = "/data/coreDumps/";

logGroups::LogUnit logUnit{logGroups::kCppCoreDump, kUnit};

// prepare's work; false after its failure was printed.
bool raiseCoreLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_CORE, &limit) != 0) {
    perror("Could not get RLIMIT_CORE\n");
    return false;
  }
  limit.rlim_cur = RLIM_INFINITY;
  limit.rlim_max = RLIM_INFINITY;
  // rlim_t is wider than int on some ABIs; the line shows the unlimited value as -1 on all.
  printf("rlim_max=%d\n", static_cast<int>(limit.rlim_max));
  if (setrlimit(RLIMIT_CORE, &limit) != 0) {
    perror("Could not set RLIMIT_CORE\n");
    return false;
  }
  return true;
}

// The background task of one dump: reaps the dumping child.
void awaitDump(pid_t pid) {
  my_printf("[INFO Orvix/CppCoreDump:86]    CORE DUMP...\n");
  int result;
  do {
    result = waitpid(pid, nullptr, 0);
  } while (result == -1 && errno == EINTR);
  if (result == -1)
    logGroups::logMessage(logUnit, __LINE__, "waitpid() failed: %s\n", strerror(errno));
  else
    my_printf("[INFO Orvix/CppCoreDump:91]    CORE DUMP done.\n");
}

}  // namespace

void prepare() {
  if (!raiseCoreLimit()) exit(1);
}

void run(const char* subdir) {
  // Output written so far comes out before the child's.
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == -1) {
    logGroups::logMessage(logUnit, __LINE__, "fork() failed: %s\n", strerror(errno));
    return;
  }
  if (pid > 0) {
    easyAsyncIntern::storeFuture(std::async(std::launch::async, awaitDump, pid));
    return;
  }

  // The child. Output another thread left in the stdout buffer after the flush is the parent's
  // to write, not to be written twice.
  __fpurge(stdout);
  const bool raised = raiseCoreLimit();
  fflush(stdout);
  // _exit, not exit: the parent's exit handlers and static objects are not the child's to run
  // (some wait for threads that exist only in the parent).
  if (!raised) _exit(1);
  std::string dir = kBaseDir;
  ORVIX_ASSERT(dir.length() > 0 && dir.at(dir.length() - 1) == '/',
               "dir.length() > 0 && dir.at(dir.length() - 1) == '/'", kUnit, __LINE__);
  if (subdir != nullptr) dir += subdir;
  // Not checked: a directory that could not be made shows up as the chdir failure.
  const int made = system(("mkdir -p " + dir).c_str());
  static_cast<void>(made);
  if (chdir(dir.c_str()) != 0)
    logGroups::logMessage(logUnit, __LINE__, "chdir: %s\n", strerror(errno));
  abort();
}

}  // namespace coredump
}  // namespace orvix
