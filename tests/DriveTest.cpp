#include "zufs/Drive.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using zufs::CurDrive;
using zufs::Drive;

// A drive that only has a letter and counts how often it is asked for it.
class LetterDrive : public Drive {
 public:
  explicit LetterDrive(char l) : letter(l) {}
  void init(char, Type, Status, const std::string&, int) override {}
  char getLetter() const override {
    ++letterCalls;
    return letter;
  }
  Type getType() const override { return TYPE_UNKNOWN; }
  Status getStatus() const override { return STATUS_UNKNOWN; }
  const std::string& getVolumeName() const override { return text; }
  const std::string& getRootPath() const override { return text; }
  int getUseFlags() const override { return 0; }
  bool isMounted() const override { return false; }
  bool isFormatted() const override { return false; }
  void getCurDir(std::string& out) override { out = text; }
  void setCurDir(const std::string&) override {}

  char letter;
  mutable int letterCalls = 0;
  std::string text;
};

// The virtual slot a pointer to a virtual member function names (Itanium C++ ABI; the ARM
// variant keeps the virtual flag in the adjustment instead of the pointer).
template <class M>
std::ptrdiff_t slotOf(M member) {
  struct Rep {
    std::uintptr_t ptr;
    std::ptrdiff_t adj;
  } rep;
  static_assert(sizeof rep == sizeof member, "pointer to member has the ABI's two words");
  std::memcpy(&rep, &member, sizeof rep);
#if defined(__arm__)
  if ((rep.adj & 1) == 0) return -1;
  return static_cast<std::ptrdiff_t>(rep.ptr / sizeof(void*));
#else
  if ((rep.ptr & 1) == 0) return -1;
  return static_cast<std::ptrdiff_t>((rep.ptr - 1) / sizeof(void*));
#endif
}

}  // namespace

TEST(Drive, EnumsAreThirtyTwoBitIntegers) {
  static_assert(std::is_same<std::underlying_type_t<Drive::Type>, int32_t>::value, "Type");
  static_assert(std::is_same<std::underlying_type_t<Drive::Status>, int32_t>::value, "Status");
  EXPECT_EQ(sizeof(Drive::Type), 4u);
  EXPECT_EQ(sizeof(Drive::Status), 4u);
  EXPECT_EQ(Drive::TYPE_UNKNOWN, 0);
  EXPECT_EQ(Drive::STATUS_UNKNOWN, 0);
}

TEST(Drive, VirtualSlotsInOrder) {
  // Slots 0 and 1 are the two destructors.
  EXPECT_EQ(slotOf(&Drive::init), 2);
  EXPECT_EQ(slotOf(&Drive::getLetter), 3);
  EXPECT_EQ(slotOf(&Drive::getType), 4);
  EXPECT_EQ(slotOf(&Drive::getStatus), 5);
  EXPECT_EQ(slotOf(&Drive::getVolumeName), 6);
  EXPECT_EQ(slotOf(&Drive::getRootPath), 7);
  EXPECT_EQ(slotOf(&Drive::getUseFlags), 8);
  EXPECT_EQ(slotOf(&Drive::isMounted), 9);
  EXPECT_EQ(slotOf(&Drive::isFormatted), 10);
  EXPECT_EQ(slotOf(&Drive::getCurDir), 11);
  EXPECT_EQ(slotOf(&Drive::setCurDir), 12);
  EXPECT_EQ(slotOf(&zufs::ZUFSFactory::drive), 2);
  EXPECT_TRUE(std::has_virtual_destructor<Drive>::value);
  EXPECT_TRUE(std::has_virtual_destructor<CurDrive>::value);
  EXPECT_TRUE(std::has_virtual_destructor<zufs::ZUFSFactory>::value);
  EXPECT_TRUE(std::is_abstract<Drive>::value);
  EXPECT_TRUE(std::is_abstract<zufs::ZUFSFactory>::value);
}

TEST(Drive, OrderIsByLetterThroughTheVirtualGetter) {
  LetterDrive a('A'), b('B');
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_EQ(a.letterCalls, 2);
  EXPECT_EQ(b.letterCalls, 2);
  // Called through a reference to the interface as well.
  const Drive& ra = a;
  const Drive& rb = b;
  EXPECT_TRUE(ra < rb);
  EXPECT_EQ(a.letterCalls, 3);
  EXPECT_EQ(b.letterCalls, 3);
}

TEST(Drive, SameLetterIsNotLessEitherWay) {
  LetterDrive c1('C'), c2('C');
  EXPECT_FALSE(c1 < c2);
  EXPECT_FALSE(c2 < c1);
  EXPECT_FALSE(c1 < c1);
}

TEST(Drive, LettersCompareAsUnsignedBytes) {
  // As signed chars 0x80 and 0xFF would come before 'A' and 0.
  LetterDrive zero('\0'), a('A'), high('\x80'), top('\xFF');
  EXPECT_TRUE(zero < a);
  EXPECT_TRUE(a < high);
  EXPECT_TRUE(high < top);
  EXPECT_FALSE(top < high);
  EXPECT_FALSE(high < a);
  EXPECT_FALSE(top < zero);
}

TEST(Drive, OrderAgreesWithUnsignedByteOrderForAllPairs) {
  for (int x = 0; x < 256; x += 5) {
    for (int y = 0; y < 256; y += 3) {
      LetterDrive dx(static_cast<char>(x)), dy(static_cast<char>(y));
      EXPECT_EQ(dx < dy, x < y) << x << " " << y;
    }
  }
}

TEST(CurDrive, NewReportsA) {
  CurDrive cur;
  EXPECT_EQ(cur.getStdDrive(), 'A');
}

TEST(CurDrive, StoresAnyLetter) {
  CurDrive cur;
  for (char letter : {'C', 'Z', 'a', '\0', '\xFF', 'A'}) {
    cur.setStdDrive(letter);
    EXPECT_EQ(cur.getStdDrive(), letter);
  }
}

TEST(CurDrive, SeveralThreadsSetAndGet) {
  CurDrive cur;
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::vector<std::thread> threads;
  std::vector<int> bad(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&cur, &bad, t] {
      const char mine = static_cast<char>('B' + t);
      for (int i = 0; i < kRounds; ++i) {
        cur.setStdDrive(mine);
        const char seen = cur.getStdDrive();
        // Whatever thread wrote last, the value is one that some thread wrote whole.
        if (seen < 'B' || seen >= 'B' + kThreads) ++bad[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(bad[t], 0);
  const char last = cur.getStdDrive();
  EXPECT_TRUE(last >= 'B' && last < 'B' + kThreads) << last;
  cur.setStdDrive('Q');
  EXPECT_EQ(cur.getStdDrive(), 'Q');
}
