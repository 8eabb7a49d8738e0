#include "Orvix/Locale.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

#include "TestSupport.hpp"

TEST(MyNumPunct, GroupsDigitsInThreesWithABlank) {
  std::ostringstream s;
  s.imbue(std::locale(std::locale::classic(), new orvix::MyNumPunct));
  s << 1234567 << ' ' << 999 << ' ' << 1000 << ' ' << -1234567 << ' ' << 0 << ' '
    << 12345678901LL;
  EXPECT_EQ(s.str(), "1 234 567 999 1 000 -1 234 567 0 12 345 678 901");
}

TEST(MyNumPunct, FacetValues) {
  orvix::MyNumPunct p(1);  // refs 1: the stack owns it
  const std::numpunct<char>& base = p;
  EXPECT_EQ(base.thousands_sep(), ' ');
  EXPECT_EQ(base.grouping(), std::string(1, '\3'));
  EXPECT_EQ(base.decimal_point(), '.');
}

TEST(InitLocale, SetsGermanThenEnglishNumbers) {
  auto r = orvix_test::runInChild([] {
    const char* result = initLocale();
    const char* all = setlocale(LC_MESSAGES, nullptr);
    printf("%s|%s|%s\n", result ? result : "(null)", setlocale(LC_NUMERIC, nullptr),
           all ? all : "(null)");
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "en_US.UTF-8|en_US.UTF-8|de_DE.UTF-8\n")
      << "(./run generates both locales; a machine without them gives (null) here)";
}
