#include "EasyAsync.hpp"

#include <chrono>
#include <list>
#include <mutex>

namespace orvix {
namespace easyAsyncIntern {
namespace {

class FutureStore {
 public:
  FutureStore(const FutureStore&) = delete;
  FutureStore& operator=(const FutureStore&) = delete;
  FutureStore() = default;

  // Waits for the tasks still running: a task must not outlive the process's statics.
  ~FutureStore() {
    std::lock_guard<std::mutex> hold(mutex_);
    for (auto& f : futures_) f.wait();
  }

  void store(std::future<void>&& f) {
    std::lock_guard<std::mutex> hold(mutex_);
    reapLocked();
    if (f.valid()) futures_.push_back(std::move(f));
  }

  std::size_t count() {
    std::lock_guard<std::mutex> hold(mutex_);
    return futures_.size();
  }

 private:
  void reapLocked() {
    for (auto it = futures_.begin(); it != futures_.end();) {
      if (it->wait_for(std::chrono::seconds(0)) == std::future_status::ready)
        it = futures_.erase(it);
      else
        ++it;
    }
  }

  std::mutex mutex_;
  std::list<std::future<void>> futures_;  // guarded by mutex_
};

FutureStore& theStore() {
  static FutureStore store;
  return store;
}

}  // namespace

void storeFuture(std::future<void>&& future) { theStore().store(std::move(future)); }

std::size_t storedFutureCount() { return theStore().count(); }

}  // namespace easyAsyncIntern
}  // namespace orvix
