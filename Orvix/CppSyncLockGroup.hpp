// Lock groups: the library's monitor. One recursive timed mutex, one condition and an
// interruption flag shared by all data of one "group".
//
// Take a group through a scoped Guard (it can wait, notify and interrupt, and reports slow
// locking) or through lock/unlock (one-second limit, trace lines in util::gl_pWendelLimitedBuffer).
// An Unguard releases the group for a scope. A Guard& parameter is the proof that the caller holds
// a group. Every member may be called from any thread.
//
// Failures: a Guard that waited more than 499 ms for its group, or held it more than 4 ms, prints
// a "[WARN Orvix/CppSyncLockGroup:..." line and dumps the global trace buffer. lock gives up
// after one second with a message and returns without the lock. A failing underlying mutex throws
// std::system_error (terminates in ~Unguard); a null file or a non-positive line at lock/unlock
// aborts; Guard::wait throws InterruptedException once the group has been interrupted.
//
// Kept as built on purpose: the time stamps live in the group, so a nested guard overwrites the
// outer guard's; Guard::wait returns holding the group one level less than before the call.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <string>

namespace orvix {

// Thrown (by value) out of Guard::wait when the group has been interrupted.
class InterruptedException : public std::exception {
 public:
  ~InterruptedException() override;
};

namespace sync {

class Guard;
class Unguard;

namespace intern {
// Nanoseconds since the epoch from the wall clock. Guards read the time only through this
// pointer so that tests can make lock durations exact; set it only while no guard exists.
using WallClockFn = int64_t (*)();
extern WallClockFn gl_wallClockNow;
// The real wall clock (the default of gl_wallClockNow).
int64_t systemClockNow();
}  // namespace intern

class LockGroup {
 public:
  LockGroup();
  // Does not check whether the group is still locked or waited on.
  ~LockGroup();
  LockGroup(const LockGroup&) = delete;
  LockGroup& operator=(const LockGroup&) = delete;

  // A guard on this group for the caller at file:line.
  Guard guard(const char* file, int line);
  // Releases this group (held by the caller) until the returned object dies.
  Unguard unguard(const char* file, int line);

  // Locks with a limit of one second; on time-out prints a message and returns without the lock.
  // Adds "[file:line] LOCK" to the global trace buffer on success.
  void lock(const char* file, int line);
  // Adds "[file:line] UNLOCK" to the global trace buffer, then unlocks once.
  void unlock(const char* file, int line);

  // Read access for diagnostics and tests.
  int64_t requestedAtNs() const { return requestedAt.load(std::memory_order_relaxed); }
  int64_t lockedAtNs() const { return lockedAt.load(std::memory_order_relaxed); }

 private:
  friend class Guard;
  friend class Unguard;

  std::recursive_timed_mutex mutex;
  std::condition_variable_any cond;  // its own internal mutex is taken by notify and wait
  // Set once by Guard::interrupt, never cleared. Relaxed: a waiter sees it through the
  // notification that wakes it.
  std::atomic<bool> interrupted;
  // Wall-clock ns since the epoch. Written by each Guard just before / just after acquiring
  // mutex (requestedAt outside the lock), read by the guard's destructor; relaxed atomics so
  // that the unlocked write is not a data race.
  std::atomic<int64_t> requestedAt;
  std::atomic<int64_t> lockedAt;
};

// Holds a group for its scope and reports slow locking when it ends. [[nodiscard]]: a guard that
// is made and dropped in one statement (ORVIX_GUARD(g); without a name) would lock and unlock at
// once and leave the code after it unguarded, so the build refuses it.
class [[nodiscard]] Guard {
 public:
  // Locks group without time limit. file must not be null (std::logic_error).
  Guard(LockGroup& group, const char* file, int line);
  // Takes over the group; the source is left without one and must not be destroyed then.
  Guard(Guard&& other) noexcept;
  // Swaps the two groups, nothing else.
  Guard& operator=(Guard&& other) noexcept;
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  // Prints the lock-duration warnings, then unlocks once.
  ~Guard();

  // Waits once for a notification (no predicate: a spurious wake-up returns). Returns holding
  // the group one level less than before. Throws InterruptedException if the group has been
  // interrupted by the time it wakes.
  void wait();
  // Wakes every waiter of the group; needs no lock on the group.
  void notifyAll();
  // Marks the group interrupted and wakes every waiter.
  void interrupt();
  bool isInterrupted();

 private:
  LockGroup* group;  // null after a move
  const std::string file;
  const int32_t line;
};

// Releases a held group for its scope and takes it again at the end; [[nodiscard]] as Guard.
class [[nodiscard]] Unguard {
 public:
  // Unlocks group once; file and line are not used.
  Unguard(LockGroup& group, const char* file, int line);
  // Copies the pointer and leaves it in the source too, so both lock again when they die.
  Unguard(Unguard&& other) noexcept;
  Unguard(const Unguard&) = delete;
  Unguard& operator=(const Unguard&) = delete;
  // Locks the group again; a failure terminates the process.
  ~Unguard();

 private:
  LockGroup* const group;
};

// The process-wide group, built when the library is loaded.
extern LockGroup gl_wendelLockGroup;

}  // namespace sync
}  // namespace orvix

// A guard on group for the current source line: auto g = ORVIX_GUARD(someGroup);
#define ORVIX_GUARD(group) (group).guard(__FILE__, __LINE__)
