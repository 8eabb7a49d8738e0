// A one-shot latch for "wait until that component has been initialised".
//
// util::InitCondVar blocks threads that depend on a named component until the component calls
// setInitialized, and tells on the console who waits for whom: before each wait a waiting
// thread writes "<who> is being blocked until <name> has been initialized!" on safeCerr. Once
// set, the latch stays set and every later wait returns at once without a word.
//
// Any thread may wait or set, in any order. The line is written while the latch's mutex is
// held, so the console lock is taken inside it. A failure to lock throws std::system_error.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

namespace util {

// A latch that tells who is blocked on it (see above).
class InitCondVar {
 public:
  // name: the component whose initialisation is awaited.
  explicit InitCondVar(const std::string& name);
  virtual ~InitCondVar();
  InitCondVar(const InitCondVar&) = delete;
  InitCondVar& operator=(const InitCondVar&) = delete;

  // Sets the latch and wakes every waiter; further calls change nothing.
  void setInitialized();

  // Returns once the latch is set, writing the line above before every wait (a spurious
  // wake-up writes it again). A null who puts safeCerr's stream into its failed state for that
  // one chain.
  void waitUntilInitialized(const char* who);

 private:
  std::mutex mutex;
  std::condition_variable_any cond;  // waited on with a lock of mutex
  bool initialized;                  // guarded by mutex
  const std::string name;
};

}  // namespace util
