#include "Orvix/CppCoreDump.hpp"

#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "EasyAsync.hpp"
#include "TestSupport.hpp"
#include "ZuLog.h"

using orvix_test::runInChild;

// ---- Interposed calls ----------------------------------------------------------------------------
// An armed call fails once with the armed errno (waitpid first reaps the child, so nothing is
// left behind); otherwise the real function runs. Armed counters set before a fork hold in the
// child too, which is where the dump's own calls run. The logging library is replaced whole: each
// message becomes one "LOG ..." line on standard error.

namespace {

int failFork = 0;
int failWaitpid = 0;
int failChdir = 0;
int failGetrlimit = 0;
int failSetrlimit = 0;
bool traceChdir = false;  // write "chdir(<path>) = <result>" on standard error
std::atomic<int> lastWaitStatus{-1};  // of the last waitpid that reaped a process
unsigned int nextLogId = 5;

using orvix_test::nextSymbol;
using orvix_test::takeArmed;

void writeStderr(const std::string& text) {
  if (write(2, text.data(), text.size()) < 0) abort();
}

}  // namespace

extern "C" {

ZuLogGrpCfg gl_psZuLogGrpCfgTable[ZU_LOG_GROUP_COUNT];
int gl_bROLConfigLoaded = 0;

int ZU_Log_Printf(unsigned int grpId, const char* grpName, int a, int b, int c, int d,
                  const char* file, int line, const char* format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  writeStderr("LOG " + std::to_string(grpId) + " " + grpName + " " + std::to_string(a) + " " +
              std::to_string(b) + " " + std::to_string(c) + " " + std::to_string(d) + " " +
              file + ":" + std::to_string(line) + ": " + text);
  return static_cast<int>(nextLogId);
}

pid_t fork() __THROWNL {
  static auto real = nextSymbol<pid_t (*)()>("fork");
  if (const int e = takeArmed(failFork)) {
    errno = e;
    return -1;
  }
  return real();
}

// Several dump tasks may wait at once; only tests with one task arm a failure.
pid_t waitpid(pid_t pid, int* status, int options) {
  static auto real = nextSymbol<pid_t (*)(pid_t, int*, int)>("waitpid");
  int st = 0;
  const pid_t result = real(pid, &st, options);
  if (result > 0) lastWaitStatus = st;
  if (status != nullptr) *status = st;
  if (const int e = failWaitpid != 0 ? takeArmed(failWaitpid) : 0) {
    errno = e;
    return -1;
  }
  return result;
}

int chdir(const char* path) __THROW {
  static auto real = nextSymbol<int (*)(const char*)>("chdir");
  int result = -1;
  if (const int e = takeArmed(failChdir))
    errno = e;
  else
    result = real(path);
  if (traceChdir)
    writeStderr(std::string("chdir(") + path + ") = " + std::to_string(result) + "\n");
  return result;
}

// The sanitizer runtimes call these two while they start, before their own checks can run: the
// two are left uninstrumented and call nothing that is (hence no takeArmed and no nextSymbol;
// prlimit on this process does what the real calls do).
#define UNINSTRUMENTED __attribute__((no_sanitize("address", "undefined", "thread")))

UNINSTRUMENTED int getrlimit(__rlimit_resource_t resource, struct rlimit* limit) __THROW {
  if (failGetrlimit != 0) {
    errno = failGetrlimit;
    failGetrlimit = 0;
    return -1;
  }
  return prlimit(0, static_cast<__rlimit_resource>(resource), nullptr, limit);
}

UNINSTRUMENTED int setrlimit(__rlimit_resource_t resource, const struct rlimit* limit) __THROW {
  if (failSetrlimit != 0) {
    errno = failSetrlimit;
    failSetrlimit = 0;
    return -1;
  }
  return prlimit(0, static_cast<__rlimit_resource>(resource), limit, nullptr);
}

}  // extern "C"

namespace {

// Lines of the logged failures in Orvix/CppCoreDump.cpp.
constexpr int kWaitpidLogLine = 56;
constexpr int kForkLogLine = 72;
constexpr int kChdirLogLine = 96;

const std::string kBase = "/data/coreDumps/";
const std::string kInfoStart = "[INFO Orvix/CppCoreDump:86]    CORE DUMP...\n";
const std::string kInfoDone = "[INFO Orvix/CppCoreDump:91]    CORE DUMP done.\n";

std::string logLine(unsigned int id, int line, const std::string& message) {
  return "LOG " + std::to_string(id) + " CppCoreDump 1 1 1 0 Orvix/CppCoreDump:" +
         std::to_string(line) + ": " + message + "\n";
}

// Keeps the dumps of the tests small: only the notes and headers of the child's memory are
// written (the emulator's own dump of a 32-bit program does not look at this).
void smallCores() {
  std::ofstream("/proc/self/coredump_filter") << "0";
}

// Waits until every dump task of this process has reaped its child.
void awaitDumpTasks() {
  for (;;) {
    orvix::easyAsyncIntern::storeFuture(std::future<void>());  // drops finished tasks
    if (orvix::easyAsyncIntern::storedFutureCount() == 0) return;
    usleep(1000);
  }
}

std::string describe(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

// In the test's child: a dump into subdir, waited for, then how the dumping child ended.
void dumpAndReport(const std::string& subdir) {
  smallCores();
  traceChdir = true;
  orvix::coredump::run(subdir.c_str());
  awaitDumpTasks();
  printf("dump child: %s\n", describe(lastWaitStatus).c_str());
}

bool isDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string corePattern() {
  std::ifstream in("/proc/sys/kernel/core_pattern");
  std::string pattern;
  std::getline(in, pattern);
  return pattern;
}

// The ELF machine of the core file at path; -1 when it is no ELF core file.
int coreMachine(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char h[20] = {};
  in.read(reinterpret_cast<char*>(h), sizeof h);
  if (!in || std::memcmp(h, ELFMAG, SELFMAG) != 0) return -1;
  if ((h[16] | h[17] << 8) != ET_CORE) return -1;
  return h[18] | h[19] << 8;
}

#if defined(__arm__)
constexpr int kThisMachine = EM_ARM;
#elif defined(__x86_64__)
constexpr int kThisMachine = EM_X86_64;
#endif

// Takes CAP_SYS_RESOURCE out of this process's effective set, so that no hard limit may be
// raised any more (always permitted, root or not).
void dropResourceCapability() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) perror("capget");
  data[CAP_TO_INDEX(CAP_SYS_RESOURCE)].effective &= ~CAP_TO_MASK(CAP_SYS_RESOURCE);
  if (syscall(SYS_capset, &header, data) != 0) perror("capset");
}

// Whether this process may raise a hard limit, tried in a child.
bool mayRaiseHardLimits() {
  const auto r = runInChild([] {
    rlimit limit{0, 4096};
    setrlimit(RLIMIT_CORE, &limit);
    limit.rlim_max = 8192;
    printf("%s", setrlimit(RLIMIT_CORE, &limit) == 0 ? "yes" : "no");
  });
  return r.out == "yes";
}

// Dumps go into /data/coreDumps/, shared by every test program of the machine: each test takes
// a machine-wide lock (on /tmp itself, so that no lock file stays behind), dumps into a
// directory of its own, and removes what it made, /data/coreDumps/ and /data included when they
// were not there before.
class CoreDump : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0 && access(kBase.c_str(), W_OK) != 0)
      GTEST_SKIP() << "needs root (or a writable " << kBase << ") to make its dump directories";
    lockFd = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(lockFd, 0);
    ASSERT_EQ(flock(lockFd, LOCK_EX), 0);
    hadData = isDirectory("/data");
    hadBase = isDirectory(kBase);
    subdir = "orvix-test-" + std::to_string(getpid()) + "/";
    dir = kBase + subdir;
  }

  void TearDown() override {
    if (lockFd < 0) return;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    for (const auto& extra : extraDirs) std::filesystem::remove_all(extra, ec);
    if (!hadBase) rmdir(kBase.c_str());
    if (!hadData) rmdir("/data");
    close(lockFd);
  }

  int lockFd = -1;
  bool hadData = false;
  bool hadBase = false;
  std::string subdir;
  std::string dir;
  std::vector<std::string> extraDirs;
};

}  // namespace

// ---- prepare -------------------------------------------------------------------------------------

TEST(CoreDumpPrepare, RaisesBothLimitsToUnlimited) {
  rlimit start{};
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &start), 0);
  if (start.rlim_max != RLIM_INFINITY && !mayRaiseHardLimits())
    GTEST_SKIP() << "the hard core-size limit is finite here and this process may not raise it";
  const auto r = runInChild([] {
    rlimit low{};
    getrlimit(RLIMIT_CORE, &low);
    low.rlim_cur = 0;
    if (setrlimit(RLIMIT_CORE, &low) != 0) perror("lowering the limit");
    orvix::coredump::prepare();
    rlimit now{};
    getrlimit(RLIMIT_CORE, &now);
    printf("soft %s, hard %s\n", now.rlim_cur == RLIM_INFINITY ? "unlimited" : "limited",
           now.rlim_max == RLIM_INFINITY ? "unlimited" : "limited");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.out, "rlim_max=-1\nsoft unlimited, hard unlimited\n");
  EXPECT_EQ(r.err, "");
}

TEST(CoreDumpPrepareDeathTest, AboveAFiniteHardLimitWithoutTheCapabilityExitsWithOne) {
  const auto r = runInChild([] {
    rlimit low{0, 4096};
    if (setrlimit(RLIMIT_CORE, &low) != 0) perror("lowering the limit");
    dropResourceCapability();
    orvix::coredump::prepare();
    printf("not reached\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 1);
  EXPECT_EQ(r.out, "rlim_max=-1\n");
  EXPECT_EQ(r.err, "Could not set RLIMIT_CORE\n: " + orvix_test::errorText(EPERM) + "\n");
}

TEST(CoreDumpPrepareDeathTest, FailedGetExitsWithOne) {
  const auto r = runInChild([] {
    failGetrlimit = EFAULT;
    orvix::coredump::prepare();
    printf("not reached\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Could not get RLIMIT_CORE\n: " + orvix_test::errorText(EFAULT) + "\n");
}

TEST(CoreDumpPrepareDeathTest, FailedSetExitsWithOne) {
  const auto r = runInChild([] {
    failSetrlimit = EPERM;
    orvix::coredump::prepare();
    printf("not reached\n");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 1);
  EXPECT_EQ(r.out, "rlim_max=-1\n");
  EXPECT_EQ(r.err, "Could not set RLIMIT_CORE\n: " + orvix_test::errorText(EPERM) + "\n");
}

// ---- run -----------------------------------------------------------------------------------------

TEST_F(CoreDump, ChildAbortsInTheDumpDirectoryAndBothLinesFollow) {
  const auto r = runInChild([&] { dumpAndReport(subdir); });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.out, "rlim_max=-1\n" + kInfoStart + kInfoDone + "dump child: signal 6\n");
  EXPECT_EQ(r.err, "chdir(" + dir + ") = 0\n");
  EXPECT_TRUE(isDirectory(dir)) << dir;
}

TEST_F(CoreDump, CoreFileLandsInTheDumpDirectory) {
  const auto r = runInChild([&] { dumpAndReport(subdir); });
  ASSERT_TRUE(r.exited()) << r.describe();
  ASSERT_TRUE(isDirectory(dir));
  // Under qemu-arm the emulator writes the program's core itself, as
  // qemu_<program>_<time>_<pid>.core in the working directory whatever the kernel's pattern
  // says; the kernel may then add a core of the emulator process.
  std::vector<std::string> emulatorCores, kernelCores;
  for (const auto& f : filesIn(dir)) {
    const bool byEmulator = f.rfind("qemu_", 0) == 0 && f.size() > 5 &&
                            f.compare(f.size() - 5, 5, ".core") == 0;
    (byEmulator ? emulatorCores : kernelCores).push_back(f);
    std::cout << "core file " << f << ": " << std::filesystem::file_size(dir + f) << " bytes\n";
  }
  const bool emulated = !emulatorCores.empty();
  if (emulated) {
    ASSERT_EQ(emulatorCores.size(), 1u);
    EXPECT_EQ(coreMachine(dir + emulatorCores[0]), kThisMachine) << emulatorCores[0];
  }
  const std::string pattern = corePattern();
  std::string whyNoKernelCore;
  if (!pattern.empty() && pattern[0] == '|')
    whyNoKernelCore = "this machine pipes cores to a handler (core_pattern " + pattern + ")";
  else if (pattern.find('/') != std::string::npos)
    whyNoKernelCore = "this machine writes cores to a fixed place (core_pattern " + pattern + ")";
  if (!whyNoKernelCore.empty()) {
    EXPECT_TRUE(kernelCores.empty());
    if (!emulated) GTEST_SKIP() << whyNoKernelCore << ", so no core file can appear in " << dir;
    std::cout << "note: " << whyNoKernelCore << "; only the emulator's core was checked\n";
    return;
  }
  ASSERT_EQ(kernelCores.size(), 1u) << "core_pattern " << pattern;
  const std::string prefix = pattern.substr(0, pattern.find('%'));
  EXPECT_EQ(kernelCores[0].rfind(prefix, 0), 0u) << kernelCores[0] << " for " << pattern;
  // Natively the kernel's core is this program's; under emulation it is the emulator's.
  const int machine = coreMachine(dir + kernelCores[0]);
  if (emulated)
    EXPECT_NE(machine, -1) << kernelCores[0];
  else
    EXPECT_EQ(machine, kThisMachine) << kernelCores[0];
}

TEST_F(CoreDump, SubdirectoriesAreMadeAsNeeded) {
  const std::string nested = subdir + "deeper/still/";
  const auto r = runInChild([&] { dumpAndReport(nested); });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "rlim_max=-1\n" + kInfoStart + kInfoDone + "dump child: signal 6\n");
  EXPECT_EQ(r.err, "chdir(" + kBase + nested + ") = 0\n");
  EXPECT_TRUE(isDirectory(kBase + nested));
}

TEST_F(CoreDump, SeveralDumpsAtOnce) {
  const std::string second = "orvix-test-" + std::to_string(getpid()) + "-second/";
  extraDirs.push_back(kBase + second);
  const auto r = runInChild([&] {
    smallCores();
    orvix::coredump::run(subdir.c_str());
    orvix::coredump::run(second.c_str());
    awaitDumpTasks();
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  // Which task prints first is open; each prints its start before its end.
  std::string out = r.out;
  std::vector<std::string> lines;
  for (std::size_t pos = 0; pos < out.size();) {
    const std::size_t end = out.find('\n', pos);
    lines.push_back(out.substr(pos, end + 1 - pos));
    pos = end + 1;
  }
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{kInfoStart, kInfoStart, kInfoDone, kInfoDone,
                                             "rlim_max=-1\n", "rlim_max=-1\n"}))
      << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(isDirectory(dir));
  EXPECT_TRUE(isDirectory(kBase + second));
}

TEST_F(CoreDump, FailedLimitEndsOnlyTheChild) {
  const auto r = runInChild([&] {
    failSetrlimit = EPERM;
    dumpAndReport(subdir);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.out, "rlim_max=-1\n" + kInfoStart + kInfoDone + "dump child: exit 1\n");
  EXPECT_EQ(r.err, "Could not set RLIMIT_CORE\n: " + orvix_test::errorText(EPERM) + "\n");
  EXPECT_FALSE(isDirectory(dir));
}

TEST_F(CoreDump, OutputNotYetWrittenIsWrittenOnce) {
  const auto r = runInChild([&] {
    printf("before the dump, ");
    dumpAndReport(subdir);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out,
            "before the dump, rlim_max=-1\n" + kInfoStart + kInfoDone + "dump child: signal 6\n");
}

// ---- failures ------------------------------------------------------------------------------------

TEST_F(CoreDump, FailedForkIsLoggedAndNothingStarts) {
  const auto r = runInChild([&] {
    failFork = EAGAIN;
    orvix::coredump::run(subdir.c_str());
    printf("stored futures: %u\n",
           static_cast<unsigned>(orvix::easyAsyncIntern::storedFutureCount()));
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "stored futures: 0\n");
  EXPECT_EQ(r.err, logLine(0xFFFFFFFFu, kForkLogLine,
                           "fork() failed: " + orvix_test::errorText(EAGAIN)));
  EXPECT_FALSE(isDirectory(dir));
}

TEST_F(CoreDump, FailedWaitpidIsLoggedInsteadOfTheDoneLine) {
  const auto r = runInChild([&] {
    failWaitpid = ECHILD;
    dumpAndReport(subdir);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "rlim_max=-1\n" + kInfoStart + "dump child: signal 6\n");
  EXPECT_EQ(r.err, "chdir(" + dir + ") = 0\n" +
                       logLine(0xFFFFFFFFu, kWaitpidLogLine,
                               "waitpid() failed: " + orvix_test::errorText(ECHILD)));
}

TEST_F(CoreDump, FailedChdirIsLoggedAndTheChildAbortsWhereItIs) {
  char here[] = "/dev/shm/orvix-coredump-XXXXXX";
  ASSERT_NE(mkdtemp(here), nullptr);
  extraDirs.push_back(here);
  const auto r = runInChild([&] {
    if (chdir(here) != 0) abort();
    failChdir = EACCES;
    dumpAndReport(subdir);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "rlim_max=-1\n" + kInfoStart + kInfoDone + "dump child: signal 6\n");
  EXPECT_EQ(r.err, "chdir(" + dir + ") = -1\n" +
                       logLine(0xFFFFFFFFu, kChdirLogLine,
                               "chdir: " + orvix_test::errorText(EACCES)));
  // mkdir -p ran before the failed chdir.
  EXPECT_TRUE(isDirectory(dir));
  EXPECT_TRUE(filesIn(dir).empty());
}

TEST_F(CoreDump, LogLinesFollowTheGroupSwitch) {
  const auto r = runInChild([&] {
    auto failOnce = [&] {
      failFork = EAGAIN;
      orvix::coredump::run(subdir.c_str());
    };
    nextLogId = 5;
    failOnce();  // unknown id: logged, the group's id is 5 from now on
    gl_bROLConfigLoaded = 1;
    gl_psZuLogGrpCfgTable[5].switchedOn = 0;
    failOnce();  // switched off: dropped
    gl_psZuLogGrpCfgTable[5].switchedOn = 1;
    failOnce();  // switched on: logged with id 5
    gl_psZuLogGrpCfgTable[5].switchedOn = 0;
    gl_bROLConfigLoaded = 0;
    nextLogId = 70;
    failOnce();  // no configuration loaded: logged whatever the table says
    gl_bROLConfigLoaded = 1;
    failOnce();  // id 70 lies outside the table: logged
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  const std::string text = "fork() failed: " + orvix_test::errorText(EAGAIN);
  EXPECT_EQ(r.err, logLine(0xFFFFFFFFu, kForkLogLine, text) + logLine(5, kForkLogLine, text) +
                       logLine(5, kForkLogLine, text) + logLine(70, kForkLogLine, text));
  EXPECT_EQ(r.out, "");
}
