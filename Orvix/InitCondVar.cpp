#include "Orvix/InitCondVar.hpp"

#include "Orvix/ThreadSafeStream.hpp"

namespace util {

InitCondVar::InitCondVar(const std::string& name) : initialized(false), name(name) {}

InitCondVar::~InitCondVar() = default;

void InitCondVar::setInitialized() {
  std::unique_lock<std::mutex> lock(mutex);
  initialized = true;
  cond.notify_all();
}

void InitCondVar::waitUntilInitialized(const char* who) {
  std::unique_lock<std::mutex> lock(mutex);
  while (!initialized) {
    {
      // The token holds the console lock until the stream's state is restored: a null who
      // fails this one line only, not every later writer of safeCerr.
      const std::ios::iostate before = safeCerr.target.rdstate();
      tss::Internal line = safeCerr << who;
      line << " is being blocked until " << name << " has been initialized!" << std::endl;
      if (who == nullptr) safeCerr.target.clear(before);
    }
    cond.wait(lock);
  }
}

}  // namespace util
