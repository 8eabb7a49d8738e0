// Locale set-up and number punctuation for reports.
//
// initLocale sets the process locale (German texts, English number format); call it once at
// start-up, before other threads run, since setlocale is process-wide. MyNumPunct groups digits
// in threes with a blank: install it with std::locale(base, new orvix::MyNumPunct) and 1234567
// prints as "1 234 567".
#pragma once

#include <locale>
#include <string>

// setlocale(LC_ALL, "de_DE.UTF-8"), then setlocale(LC_NUMERIC, "en_US.UTF-8"); returns the
// result of the second call (null when that locale is not installed).
char* initLocale();

namespace orvix {

class MyNumPunct : public std::numpunct<char> {
 public:
  explicit MyNumPunct(std::size_t refs = 0);
  ~MyNumPunct() override;

 protected:
  char do_thousands_sep() const override;
  std::string do_grouping() const override;
};

}  // namespace orvix
