// A registry of the names of implemented functions, kept for the library's clients.
//
// The library never adds to or reads allImplemented; clients register names through their own
// code and hold mu while they touch the set.
#pragma once

#include <mutex>
#include <set>
#include <string>

namespace zu {

class ImplementedFunc {
 public:
  ImplementedFunc() = default;
  virtual ~ImplementedFunc();
  ImplementedFunc(const ImplementedFunc&) = delete;
  ImplementedFunc& operator=(const ImplementedFunc&) = delete;

  static std::set<std::string> allImplemented;  // guarded by mu
  static std::mutex mu;
};

}  // namespace zu
