#include "Orvix/LogGroups.hpp"

#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>


// The logging library's symbols, interposed by this test program so that every call the library
// makes can be observed.
namespace {
struct Call {
  unsigned int id;
  std::string group;
  int a, b, c, d;
  std::string file;
  int line;
  std::string message;
};
std::vector<Call> calls;
int nextReturn = 5;
}  // namespace

extern "C" {
ZuLogGrpCfg gl_psZuLogGrpCfgTable[ZU_LOG_GROUP_COUNT];
int gl_bROLConfigLoaded = 0;

int ZU_Log_Printf(unsigned int grpId, const char* grpName, int a, int b, int c, int d,
                  const char* file, int line, const char* format, ...) {
  char text[256];
  va_list ap;
  va_start(ap, format);
  vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  calls.push_back({grpId, grpName, a, b, c, d, file, line, text});
  return nextReturn;
}
}

using orvix::logGroups::LogUnit;
using orvix::logGroups::logMessage;

namespace {

class LogGroups : public ::testing::Test {
 protected:
  void SetUp() override {
    calls.clear();
    nextReturn = 5;
    gl_bROLConfigLoaded = 0;
    std::memset(gl_psZuLogGrpCfgTable, 0, sizeof gl_psZuLogGrpCfgTable);
  }
  void TearDown() override { SetUp(); }
};

const char* const kTable[16] = {"Noname", "Noname", "Orvix",  "CppCoreDump",
                                "Noname", "Noname", "Noname", "Noname",
                                "Noname", "Noname", "Orvix",  "Noname",
                                "Noname", "Noname", "Orvix",  "Noname"};

}  // namespace

TEST_F(LogGroups, FirstCallUsesUnknownIdAndFixedArguments) {
  LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump"};
  EXPECT_EQ(unit.cachedId, 0xFFFFFFFFu);
  logMessage(unit, 61, "chdir failed: %s\n", "No such file or directory");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].id, 0xFFFFFFFFu);
  EXPECT_EQ(calls[0].group, "CppCoreDump");
  EXPECT_EQ(calls[0].a, 1);
  EXPECT_EQ(calls[0].b, 1);
  EXPECT_EQ(calls[0].c, 1);
  EXPECT_EQ(calls[0].d, 0);
  EXPECT_EQ(calls[0].file, "Orvix/CppCoreDump");
  EXPECT_EQ(calls[0].line, 61);
  EXPECT_EQ(calls[0].message, "chdir failed: No such file or directory\n");
  EXPECT_EQ(unit.cachedId, 5u);
}

TEST_F(LogGroups, ReturnedIdIsCachedAndPassedBack) {
  LogUnit unit{orvix::logGroups::kCppLinuxTimer, "Orvix/CppLinuxTimer"};
  nextReturn = 9;
  logMessage(unit, 1, "a\n");
  nextReturn = 12;
  logMessage(unit, 2, "b\n");
  logMessage(unit, 3, "c\n");
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].id, 0xFFFFFFFFu);
  EXPECT_EQ(calls[1].id, 9u);
  EXPECT_EQ(calls[2].id, 12u);
  EXPECT_EQ(calls[0].group, "Noname");
  EXPECT_EQ(unit.cachedId, 12u);
}

TEST_F(LogGroups, ConfigNotLoadedPassesEveryMessage) {
  LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump", 3};
  gl_bROLConfigLoaded = 0;
  gl_psZuLogGrpCfgTable[3].switchedOn = 0;
  logMessage(unit, 1, "x\n");
  EXPECT_EQ(calls.size(), 1u);
}

TEST_F(LogGroups, LoadedConfigSkipsSwitchedOffGroup) {
  LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump", 3};
  gl_bROLConfigLoaded = 1;
  gl_psZuLogGrpCfgTable[3].switchedOn = 0;
  gl_psZuLogGrpCfgTable[4].switchedOn = 1;
  logMessage(unit, 1, "x\n");
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(unit.cachedId, 3u);  // a skipped message leaves the cache alone
  gl_psZuLogGrpCfgTable[3].switchedOn = 1;
  logMessage(unit, 1, "y\n");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].id, 3u);
}

TEST_F(LogGroups, OnlyTheWordAtOffset24Counts) {
  static_assert(offsetof(ZuLogGrpCfg, switchedOn) == 24, "switched-on word at offset 24");
  static_assert(sizeof(ZuLogGrpCfg) == 48, "48-byte records");
  LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump", 7};
  gl_bROLConfigLoaded = 1;
  std::memset(gl_psZuLogGrpCfgTable[7].head, 0xFF, sizeof gl_psZuLogGrpCfgTable[7].head);
  std::memset(gl_psZuLogGrpCfgTable[7].tail, 0xFF, sizeof gl_psZuLogGrpCfgTable[7].tail);
  logMessage(unit, 1, "x\n");
  EXPECT_TRUE(calls.empty());
}

TEST_F(LogGroups, IdsOf64AndAboveBypassTheTest) {
  gl_bROLConfigLoaded = 1;  // every group in the table is switched off
  for (uint32_t id : {64u, 65u, 1000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    calls.clear();
    LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump", id};
    logMessage(unit, 1, "x\n");
    ASSERT_EQ(calls.size(), 1u) << id;
    EXPECT_EQ(calls[0].id, id);
  }
  LogUnit unit{orvix::logGroups::kCppCoreDump, "Orvix/CppCoreDump", 63};
  calls.clear();
  logMessage(unit, 1, "x\n");
  EXPECT_TRUE(calls.empty());
}

TEST_F(LogGroups, TableNames) {
  for (int i = 0; i < 16; ++i) {
    EXPECT_STREQ(orvix::logGroups::gl_logGroups[i], kTable[i]) << i;
    EXPECT_EQ(orvix::logGroups::gl_logGroups[i], orvix::logGroups::gl_logGroupsA[i]) << i;
  }
}

namespace {

struct Found {
  std::string path;
  ElfW(Addr) base = 0;
};

// The load address and file of the loaded liborvix.
Found findLibrary() {
  Found found;
  dl_iterate_phdr(
      [](dl_phdr_info* i, size_t, void* data) {
        if (i->dlpi_name && std::strstr(i->dlpi_name, "/liborvix.so")) {
          auto* f = static_cast<Found*>(data);
          f->path = i->dlpi_name;
          f->base = i->dlpi_addr;
          return 1;
        }
        return 0;
      },
      &found);
  return found;
}

}  // namespace

// The sections are found the way the logging library finds them: by name in liborvix's file,
// then read in the loaded image, where the entries are relocated pointers to the names.
TEST_F(LogGroups, SectionsOfTheSharedLibrary) {
  const Found lib = findLibrary();
  ASSERT_FALSE(lib.path.empty()) << "liborvix.so is not loaded";
  std::ifstream file(lib.path, std::ios::binary);
  std::vector<char> image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_GT(image.size(), sizeof(ElfW(Ehdr)));
  const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(image.data());
  const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(image.data() + header->e_shoff);
  const char* names = image.data() + sections[header->e_shstrndx].sh_offset;
  int found = 0;
  for (int i = 0; i < header->e_shnum; ++i) {
    const std::string name = names + sections[i].sh_name;
    if (name != "LogGroups" && name != "LogGroupsA") continue;
    ++found;
    SCOPED_TRACE(name);
    EXPECT_EQ(sections[i].sh_size, 16 * sizeof(void*));
    EXPECT_TRUE(sections[i].sh_flags & SHF_WRITE);
    EXPECT_TRUE(sections[i].sh_flags & SHF_ALLOC);
    const auto* entries = reinterpret_cast<const char* const*>(lib.base + sections[i].sh_addr);
    for (int e = 0; e < 16; ++e) EXPECT_STREQ(entries[e], kTable[e]) << "entry " << e;
  }
  EXPECT_EQ(found, 2);
}
