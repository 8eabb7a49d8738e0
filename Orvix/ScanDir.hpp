// Listing the entries of one directory, one name at a time.
//
// util::ScanDir opens the directory when it is made and yields every entry in readdir order,
// "." and ".." included. A directory that cannot be opened fails the assertion "MYINT->dir" and
// aborts. An object is for one thread.
#pragma once

#include <memory>
#include <string>

namespace util {

class ScanDir {
 public:
  // Opens path.
  explicit ScanDir(const std::string& path);
  // Closes the directory.
  virtual ~ScanDir();
  ScanDir(const ScanDir&) = delete;
  ScanDir& operator=(const ScanDir&) = delete;

  // Moves to the next entry: true and its name in getLongName(), or false and an empty name at
  // the end (a failing readdir ends the listing too).
  bool next();

  // The current entry's name; stays valid until the next call of next().
  const std::string& getLongName() const;

 private:
  struct Internal;
  std::unique_ptr<Internal> internal;
};

}  // namespace util
