#include "zufs/Drive.hpp"

namespace zufs {

Drive::~Drive() = default;

bool Drive::operator<(const Drive& other) const {
  return static_cast<uint8_t>(getLetter()) < static_cast<uint8_t>(other.getLetter());
}

CurDrive::CurDrive() : stdDrive('A') {}

CurDrive::~CurDrive() = default;

void CurDrive::setStdDrive(char letter) {
  std::lock_guard<std::mutex> hold(mutex);
  stdDrive = letter;
}

char CurDrive::getStdDrive() {
  std::lock_guard<std::mutex> hold(mutex);
  return stdDrive;
}

ZUFSFactory::~ZUFSFactory() = default;

// Constant-initialised; the simulated factory is put here at load (zufs/DriveVm.cpp).
ZUFSFactory* ZUFSFactory::I = nullptr;

}  // namespace zufs
