#include "Orvix/CppSyncLockGroup.hpp"

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "Orvix/CppLimitedBuffer.hpp"
#include "Orvix/OrvixAssert.hpp"
#include "Orvix/ThreadSafeStream.hpp"
#include "Orvix/internal/StartupOrder.hpp"

namespace orvix {

InterruptedException::~InterruptedException() = default;

namespace sync {

namespace intern {

int64_t systemClockNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

WallClockFn gl_wallClockNow = &systemClockNow;

}  // namespace intern

namespace {

constexpr const char* kUnit = "Orvix/CppSyncLockGroup";

// Both reports dump the global trace buffer and end with a flushed newline.
void reportSlowLocking(const char* format, const std::string& text) {
  my_printf(format, text.c_str());
  if (util::gl_pWendelLimitedBuffer) util::gl_pWendelLimitedBuffer->print(std::cout);
  std::cout << std::endl;
}

}  // namespace

LockGroup gl_wendelLockGroup ORVIX_INIT_PRIORITY(ORVIX_INIT_LOCK_GROUP);

LockGroup::LockGroup() : interrupted(false), requestedAt(0), lockedAt(0) {}

LockGroup::~LockGroup() = default;

Guard LockGroup::guard(const char* file, int line) { return Guard(*this, file, line); }

Unguard LockGroup::unguard(const char* file, int line) { return Unguard(*this, file, line); }

void LockGroup::lock(const char* file, int line) {
  ORVIX_ASSERT(file, "file", kUnit, 136);
  ORVIX_ASSERT(line > 0, "line > 0", kUnit, 137);
  // The one-second limit is measured on the monotonic clock and handed to the timed lock as a
  // wall-clock instant.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  const auto wallDeadline =
      (deadline - std::chrono::steady_clock::now()) + std::chrono::system_clock::now();
  if (!mutex.try_lock_until(wallDeadline)) {
    // The caller goes on without the lock; nothing is thrown.
    std::cout << "LockGroup::lock failed in " << file << ":" << line << " for 1sec!\n";
    if (util::gl_pWendelLimitedBuffer) util::gl_pWendelLimitedBuffer->print(std::cout);
    std::cout.flush();
    return;
  }
  if (util::gl_pWendelLimitedBuffer) util::gl_pWendelLimitedBuffer->addf("[%s:%d] LOCK\n", file, line);
}

void LockGroup::unlock(const char* file, int line) {
  ORVIX_ASSERT(file, "file", kUnit, 150);
  ORVIX_ASSERT(line > 0, "line > 0", kUnit, 151);
  if (util::gl_pWendelLimitedBuffer)
    util::gl_pWendelLimitedBuffer->addf("[%s:%d] UNLOCK\n", file, line);
  mutex.unlock();
}

namespace {
// The message callers know for a null file name.
std::string fileName(const char* file) {
  if (!file) throw std::logic_error("basic_string::_M_construct null not valid");
  return std::string(file);
}
}  // namespace

Guard::Guard(LockGroup& group, const char* file, int line)
    : group(&group), file(fileName(file)), line(line) {
  group.requestedAt.store(intern::gl_wallClockNow(), std::memory_order_relaxed);
  group.mutex.lock();
  group.lockedAt.store(intern::gl_wallClockNow(), std::memory_order_relaxed);
}

Guard::Guard(Guard&& other) noexcept : group(other.group), file(), line(0) {
  other.group = nullptr;
}

Guard& Guard::operator=(Guard&& other) noexcept {
  std::swap(group, other.group);
  return *this;
}

Guard::~Guard() {
  const int64_t now = intern::gl_wallClockNow();
  const int64_t lockedAt = group->lockedAt.load(std::memory_order_relaxed);
  const int64_t lockDuration = lockedAt - group->requestedAt.load(std::memory_order_relaxed);
  const int64_t lockedDuration = now - lockedAt;
  // Waiting for the group may take almost half a second before it is worth a report, holding it
  // only 4 ms.
  if (lockDuration > 499000000) {
    reportSlowLocking("[WARN Orvix/CppSyncLockGroup:81]    %s",
                      "[" + file + ":" + std::to_string(line) + "] " + "lockDuration: " +
                          std::to_string(lockDuration / 1000) + "us\n");
  }
  if (lockedDuration > 4000000) {
    reportSlowLocking("[WARN Orvix/CppSyncLockGroup:90]    %s",
                      "[" + file + ":" + std::to_string(line) + "] " + "lockedDuration: " +
                          std::to_string(lockedDuration / 1000) + "us\n");
  }
  // After a wait() this unlock finds the group no longer held and fails without effect.
  group->mutex.unlock();
}

void Guard::wait() {
  // The group is adopted, released for the wait and taken again; leaving this scope then
  // releases it once more, so the caller ends up one level short.
  std::unique_lock<std::recursive_timed_mutex> held(group->mutex, std::adopt_lock);
  group->cond.wait(held);
  if (group->interrupted.load(std::memory_order_relaxed)) throw InterruptedException();
}

void Guard::notifyAll() { group->cond.notify_all(); }

void Guard::interrupt() {
  group->interrupted.store(true, std::memory_order_relaxed);
  group->cond.notify_all();
}

bool Guard::isInterrupted() { return group->interrupted.load(std::memory_order_relaxed); }

Unguard::Unguard(LockGroup& group, const char* /*file*/, int /*line*/) : group(&group) {
  group.mutex.unlock();
}

Unguard::Unguard(Unguard&& other) noexcept : group(other.group) {}

Unguard::~Unguard() { group->mutex.lock(); }

}  // namespace sync
}  // namespace orvix
