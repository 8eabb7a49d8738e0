#include "Orvix/CppBits.hpp"

#include <iomanip>
#include <sstream>

namespace {

// One row of the bit table: for each index from high down to low, either the index or the bit,
// three columns wide, with one more blank after every index that starts a new nibble.
void tableRow(std::ostringstream& out, unsigned int value, int high, int low, bool bitValues) {
  for (int i = high; i >= low; --i) {
    out << std::setw(3) << (bitValues ? (value >> i) & 1u : static_cast<unsigned int>(i));
    if (i != low && i % 4 == 0) out << ' ';
  }
}

}  // namespace

std::string formatBits32(unsigned int value) {
  std::ostringstream out;
  out << "\ndec: " << value << "\n";
  out << "hex: " << std::hex << value << std::dec << "\n";
  out << "bin:\n\n";
  tableRow(out, value, 31, 16, false);
  out << "\n";
  tableRow(out, value, 31, 16, true);
  out << "\n\n";
  tableRow(out, value, 15, 0, false);
  out << "\n";
  tableRow(out, value, 15, 0, true);
  return out.str();
}
