#include "Orvix/ScanDir.hpp"

#include <dirent.h>

#include "Orvix/OrvixAssert.hpp"

namespace util {
namespace {

constexpr const char* kUnit = "Orvix/ScanDir";

}  // namespace

struct ScanDir::Internal {
  DIR* dir = nullptr;
  std::string name;  // the current entry's
};

ScanDir::ScanDir(const std::string& path) : internal(new Internal) {
  internal->dir = opendir(path.c_str());
  ORVIX_ASSERT(internal->dir != nullptr, "MYINT->dir", kUnit, __LINE__);
}

ScanDir::~ScanDir() { closedir(internal->dir); }

bool ScanDir::next() {
  const dirent* entry = readdir(internal->dir);
  if (entry == nullptr) {
    internal->name.clear();
    return false;
  }
  internal->name = entry->d_name;
  return true;
}

const std::string& ScanDir::getLongName() const { return internal->name; }

}  // namespace util
