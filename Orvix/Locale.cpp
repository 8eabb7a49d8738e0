#include "Orvix/Locale.hpp"

#include <clocale>

char* initLocale() {
  setlocale(LC_ALL, "de_DE.UTF-8");
  return setlocale(LC_NUMERIC, "en_US.UTF-8");
}

namespace orvix {

MyNumPunct::MyNumPunct(std::size_t refs) : std::numpunct<char>(refs) {}

MyNumPunct::~MyNumPunct() = default;

char MyNumPunct::do_thousands_sep() const { return ' '; }

std::string MyNumPunct::do_grouping() const { return "\3"; }

}  // namespace orvix
