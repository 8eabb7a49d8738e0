#include "zufs/DriveVm.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Orvix/Orvix.hpp"

namespace {

using zufs::Drive;
using zufs::DriveVm;
using zufsvm::DrivePathManager;

const std::string kRoot = "/home/user/simulatedPrinter/drives/";

std::string expectedPath(char letter) { return kRoot + letter + "/"; }

// What the library had set up by the time this program's own static objects were built.
struct SeenAtLoad {
  SeenAtLoad() : factory(zufs::ZUFSFactory::I) {
    DriveVm d;
    d.init('C', Drive::TYPE_FLASH, Drive::STATUS_READY, "load", 0);
    rootOfC = d.getRootPath();
  }
  zufs::ZUFSFactory* factory;
  std::string rootOfC;
};
const SeenAtLoad seenAtLoad;

}  // namespace

TEST(DriveVm, FreshDriveHasItsInitialValues) {
  DriveVm d;
  EXPECT_EQ(d.getLetter(), '\0');
  EXPECT_EQ(d.getType(), 0);
  EXPECT_EQ(d.getStatus(), 0);
  EXPECT_EQ(d.getVolumeName(), "");
  EXPECT_EQ(d.getUseFlags(), 0);
  std::string cur = "not touched";
  d.getCurDir(cur);
  EXPECT_EQ(cur, "");
  EXPECT_TRUE(d.isMounted());
  EXPECT_TRUE(d.isFormatted());
  // Letter 0 lies outside the table.
  EXPECT_EQ(d.getRootPath(), "");
}

TEST(DriveVm, InitStoresAllFiveValues) {
  DriveVm d;
  d.init('C', Drive::TYPE_HARD_DISK, Drive::STATUS_READY, "SYSTEM", 0x15);
  EXPECT_EQ(d.getLetter(), 'C');
  EXPECT_EQ(d.getType(), Drive::TYPE_HARD_DISK);
  EXPECT_EQ(d.getStatus(), Drive::STATUS_READY);
  EXPECT_EQ(d.getVolumeName(), "SYSTEM");
  EXPECT_EQ(d.getUseFlags(), 0x15);
  EXPECT_EQ(d.getRootPath(), "/home/user/simulatedPrinter/drives/C/");
}

TEST(DriveVm, InitCopiesTheVolumeName) {
  DriveVm d;
  std::string name = "VOL";
  d.init('D', Drive::TYPE_USB, Drive::STATUS_NOT_READY, name, 1);
  name = "changed";
  EXPECT_EQ(d.getVolumeName(), "VOL");
  // A reference to the stored text: the same object on every call.
  EXPECT_EQ(&d.getVolumeName(), &d.getVolumeName());
}

TEST(DriveVm, ValuesAreStoredUninterpreted) {
  DriveVm d;
  d.init('\xC4', static_cast<Drive::Type>(INT32_MIN), static_cast<Drive::Status>(INT32_MAX),
         std::string("a\0b", 3), INT_MIN);
  EXPECT_EQ(d.getLetter(), '\xC4');
  EXPECT_EQ(static_cast<int32_t>(d.getType()), INT32_MIN);
  EXPECT_EQ(static_cast<int32_t>(d.getStatus()), INT32_MAX);
  EXPECT_EQ(d.getVolumeName(), std::string("a\0b", 3));
  EXPECT_EQ(d.getUseFlags(), INT_MIN);
  d.init('E', static_cast<Drive::Type>(-1), static_cast<Drive::Status>(-7), "", -1);
  EXPECT_EQ(static_cast<int32_t>(d.getType()), -1);
  EXPECT_EQ(static_cast<int32_t>(d.getStatus()), -7);
  EXPECT_EQ(d.getUseFlags(), -1);
}

TEST(DriveVm, InitTwiceReplacesTheFiveAndKeepsTheCurrentDirectory) {
  DriveVm d;
  d.init('A', Drive::TYPE_RAM, Drive::STATUS_READY, "FIRST", 3);
  d.setCurDir("/jobs/");
  d.init('Z', Drive::TYPE_NETWORK, Drive::STATUS_ERROR, "SECOND", 4);
  EXPECT_EQ(d.getLetter(), 'Z');
  EXPECT_EQ(d.getType(), Drive::TYPE_NETWORK);
  EXPECT_EQ(d.getStatus(), Drive::STATUS_ERROR);
  EXPECT_EQ(d.getVolumeName(), "SECOND");
  EXPECT_EQ(d.getUseFlags(), 4);
  EXPECT_EQ(d.getRootPath(), "/home/user/simulatedPrinter/drives/Z/");
  std::string cur;
  d.getCurDir(cur);
  EXPECT_EQ(cur, "/jobs/");
}

TEST(DriveVm, MountedAndFormattedWhateverTheStatus) {
  for (auto status : {Drive::STATUS_UNKNOWN, Drive::STATUS_READY, Drive::STATUS_NOT_READY,
                      Drive::STATUS_ERROR, static_cast<Drive::Status>(-1)}) {
    DriveVm d;
    d.init('B', Drive::TYPE_USB, status, "", 0);
    EXPECT_TRUE(d.isMounted());
    EXPECT_TRUE(d.isFormatted());
  }
}

TEST(DriveVm, RootPathOfEveryLetter) {
  for (char letter = 'A'; letter <= 'Z'; ++letter) {
    DriveVm d;
    d.init(letter, Drive::TYPE_FLASH, Drive::STATUS_READY, "", 0);
    EXPECT_EQ(d.getRootPath(), expectedPath(letter)) << letter;
    EXPECT_EQ(d.getRootPath().size(), 37u);
    // The path manager's own text: two drives of the same letter share it.
    DriveVm other;
    other.init(letter, Drive::TYPE_RAM, Drive::STATUS_ERROR, "x", 1);
    EXPECT_EQ(&d.getRootPath(), &other.getRootPath()) << letter;
  }
}

TEST(DriveVm, RootPathOutsideTheLettersIsEmpty) {
  for (char letter : {'a', 'z', '@', '[', '0', ' ', '\0', '\xC4'}) {
    DriveVm d;
    d.init(letter, Drive::TYPE_FLASH, Drive::STATUS_READY, "", 0);
    EXPECT_EQ(d.getRootPath(), "") << static_cast<int>(letter);
  }
}

TEST(DriveVm, EveryGetterThroughTheInterface) {
  std::unique_ptr<Drive> d(new DriveVm());
  d->init('K', Drive::TYPE_RAM, Drive::STATUS_NOT_READY, "KVOL", 9);
  EXPECT_EQ(d->getLetter(), 'K');
  EXPECT_EQ(d->getType(), Drive::TYPE_RAM);
  EXPECT_EQ(d->getStatus(), Drive::STATUS_NOT_READY);
  EXPECT_EQ(d->getVolumeName(), "KVOL");
  EXPECT_EQ(d->getRootPath(), expectedPath('K'));
  EXPECT_EQ(d->getUseFlags(), 9);
  EXPECT_TRUE(d->isMounted());
  EXPECT_TRUE(d->isFormatted());
  d->setCurDir("sub");
  std::string cur;
  d->getCurDir(cur);
  EXPECT_EQ(cur, "sub");
}

TEST(DriveVm, CurrentDirectoryIsNeitherCheckedNorNormalised) {
  DriveVm d;
  const std::vector<std::string> dirs = {"", "../x//y/./", "C:\\Jobs",
                                         std::string("nul\0inside", 10), std::string(5000, 'p')};
  for (const std::string& dir : dirs) {
    d.setCurDir(dir);
    std::string out = "previous";
    d.getCurDir(out);
    EXPECT_EQ(out, dir);
  }
}

TEST(DriveVm, CurrentDirectoryFromSeveralThreads) {
  DriveVm d;
  d.init('F', Drive::TYPE_FLASH, Drive::STATUS_READY, "", 0);
  constexpr int kThreads = 4;
  std::vector<std::string> dirs;
  for (int t = 0; t < kThreads; ++t) dirs.push_back("/dir-" + std::string(40 + t, 'a' + t));
  std::vector<int> bad(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::string out;
      for (int i = 0; i < 2000; ++i) {
        d.setCurDir(dirs[t]);
        d.getCurDir(out);
        if (std::find(dirs.begin(), dirs.end(), out) == dirs.end()) ++bad[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(bad[t], 0);
}

TEST(DriveVm, DrivesSortByLetter) {
  std::vector<std::unique_ptr<DriveVm>> drives;
  for (char letter : {'Q', 'C', 'Z', 'A', 'M', 'C'}) {
    drives.emplace_back(new DriveVm());
    drives.back()->init(letter, Drive::TYPE_FLASH, Drive::STATUS_READY, "", 0);
  }
  std::stable_sort(drives.begin(), drives.end(),
                   [](const std::unique_ptr<DriveVm>& a, const std::unique_ptr<DriveVm>& b) {
                     return *a < *b;
                   });
  std::string order;
  for (const auto& d : drives) order += d->getLetter();
  EXPECT_EQ(order, "ACCMQZ");
}

TEST(DrivePathManager, MapsEveryLetter) {
  DrivePathManager m;
  for (char letter = 'A'; letter <= 'Z'; ++letter) {
    EXPECT_EQ(m.path(letter), expectedPath(letter)) << letter;
    EXPECT_EQ(&m.path(letter), &m.path(letter));
  }
  EXPECT_EQ(kRoot.size(), 35u);
}

TEST(DrivePathManager, LettersOutsideGiveAnEmptyText) {
  DrivePathManager m;
  for (int c = -128; c < 128; ++c) {
    const char letter = static_cast<char>(c);
    if (letter >= 'A' && letter <= 'Z') continue;
    EXPECT_EQ(m.path(letter), "") << c;
  }
}

TEST(ZUFSFactory, SimulatedFactoryExistsAtLoad) {
  ASSERT_NE(seenAtLoad.factory, nullptr);
  EXPECT_NE(dynamic_cast<zufs::ZUFSFactoryVm*>(seenAtLoad.factory), nullptr);
  EXPECT_EQ(zufs::ZUFSFactory::I, seenAtLoad.factory);
  // The path manager was built by then too.
  EXPECT_EQ(seenAtLoad.rootOfC, "/home/user/simulatedPrinter/drives/C/");
}

TEST(ZUFSFactory, MakesFreshSimulatedDrives) {
  std::unique_ptr<Drive> first(zufs::ZUFSFactory::I->drive());
  ASSERT_NE(dynamic_cast<DriveVm*>(first.get()), nullptr);
  first->init('G', Drive::TYPE_USB, Drive::STATUS_READY, "USED", 7);
  first->setCurDir("/used");
  std::unique_ptr<Drive> second(zufs::ZUFSFactory::I->drive());
  ASSERT_NE(dynamic_cast<DriveVm*>(second.get()), nullptr);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(second->getLetter(), '\0');
  EXPECT_EQ(second->getType(), 0);
  EXPECT_EQ(second->getStatus(), 0);
  EXPECT_EQ(second->getVolumeName(), "");
  EXPECT_EQ(second->getUseFlags(), 0);
  std::string cur = "x";
  second->getCurDir(cur);
  EXPECT_EQ(cur, "");
}

TEST(ZUFSFactory, SimulatedFactoryOfItsOwn) {
  zufs::ZUFSFactoryVm factory;
  std::unique_ptr<Drive> d(factory.drive());
  EXPECT_NE(dynamic_cast<DriveVm*>(d.get()), nullptr);
  EXPECT_EQ(d->getLetter(), '\0');
}
