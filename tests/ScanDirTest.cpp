#include "Orvix/ScanDir.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "TestSupport.hpp"

namespace {

// Line of the "MYINT->dir" assertion in Orvix/ScanDir.cpp.
constexpr int kOpenAssertLine = 21;
const char kConstructor[] = "util::ScanDir::ScanDir(const std::string&)";

// A fresh directory on a tmpfs (readdir of ext4 fails for 32-bit programs under qemu-arm),
// removed with its files at the end of the test.
class TmpDir {
 public:
  TmpDir() {
    char name[] = "/dev/shm/orvix-scandir-XXXXXX";
    if (mkdtemp(name) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    path = name;
  }
  ~TmpDir() {
    for (const auto& f : files) unlink((path + "/" + f).c_str());
    rmdir(path.c_str());
  }
  TmpDir(const TmpDir&) = delete;
  TmpDir& operator=(const TmpDir&) = delete;

  void addFile(const std::string& name) {
    const int fd = open((path + "/" + name).c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0) << name;
    close(fd);
    files.push_back(name);
  }

  std::string path;
  std::vector<std::string> files;
};

// Every name next() yields, in order, and checks the end state.
std::vector<std::string> listAll(util::ScanDir& scan) {
  std::vector<std::string> names;
  while (scan.next()) names.push_back(scan.getLongName());
  EXPECT_EQ(scan.getLongName(), "");
  return names;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

}  // namespace

TEST(ScanDir, TwoFilesGiveFourNamesThenFalseAndAnEmptyName) {
  TmpDir dir;
  dir.addFile("first.txt");
  dir.addFile("second");
  util::ScanDir scan(dir.path);
  EXPECT_EQ(scan.getLongName(), "");
  std::vector<std::string> names;
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(scan.next()) << i;
    names.push_back(scan.getLongName());
  }
  EXPECT_FALSE(scan.next());
  EXPECT_EQ(scan.getLongName(), "");
  EXPECT_EQ(sorted(names), (std::vector<std::string>{".", "..", "first.txt", "second"}));
  // The end stays the end.
  EXPECT_FALSE(scan.next());
  EXPECT_EQ(scan.getLongName(), "");
}

TEST(ScanDir, EmptyDirectoryHasDotAndDotDot) {
  TmpDir dir;
  util::ScanDir scan(dir.path);
  EXPECT_EQ(sorted(listAll(scan)), (std::vector<std::string>{".", ".."}));
}

TEST(ScanDir, NamesComeInReaddirOrderEachOnce) {
  TmpDir dir;
  std::vector<std::string> expected = {".", ".."};
  for (int i = 0; i < 300; ++i) {
    const std::string name = "entry-" + std::to_string(i);
    dir.addFile(name);
    expected.push_back(name);
  }
  dir.addFile("with blank");
  dir.addFile("Gr\xC3\xB6\xC3\x9F" "e");
  expected.push_back("with blank");
  expected.push_back("Gr\xC3\xB6\xC3\x9F" "e");
  util::ScanDir scan(dir.path);
  const std::vector<std::string> names = listAll(scan);
  EXPECT_EQ(sorted(names), sorted(expected));
  // A second scan of the unchanged directory sees the same order.
  util::ScanDir again(dir.path);
  EXPECT_EQ(listAll(again), names);
}

TEST(ScanDir, NameReferenceFollowsTheCurrentEntry) {
  TmpDir dir;
  dir.addFile("only");
  util::ScanDir scan(dir.path);
  const std::string& name = scan.getLongName();
  std::vector<std::string> seen;
  while (scan.next()) seen.push_back(name);
  EXPECT_EQ(sorted(seen), (std::vector<std::string>{".", "..", "only"}));
  EXPECT_EQ(name, "");
}

TEST(ScanDir, SubdirectoriesAreEntriesToo) {
  TmpDir dir;
  const std::string sub = dir.path + "/inner";
  ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
  {
    util::ScanDir scan(dir.path);
    EXPECT_EQ(sorted(listAll(scan)), (std::vector<std::string>{".", "..", "inner"}));
  }
  {
    util::ScanDir scan(sub + "/");
    EXPECT_EQ(sorted(listAll(scan)), (std::vector<std::string>{".", ".."}));
  }
  rmdir(sub.c_str());
}

TEST(ScanDirDeathTest, MissingDirectoryAborts) {
  TmpDir dir;
  const std::string missing = dir.path + "/no-such-dir";
  orvix_test::expectAssertion([&] { util::ScanDir scan(missing); }, "Orvix/ScanDir",
                              kOpenAssertLine, kConstructor, "MYINT->dir");
}

TEST(ScanDirDeathTest, PlainFileAborts) {
  TmpDir dir;
  dir.addFile("plain");
  const std::string file = dir.path + "/plain";
  orvix_test::expectAssertion([&] { util::ScanDir scan(file); }, "Orvix/ScanDir",
                              kOpenAssertLine, kConstructor, "MYINT->dir");
}

TEST(ScanDirDeathTest, EmptyPathAborts) {
  orvix_test::expectAssertion([] { util::ScanDir scan(""); }, "Orvix/ScanDir", kOpenAssertLine,
                              kConstructor, "MYINT->dir");
}
