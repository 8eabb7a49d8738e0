#include "Orvix/CppPthread.hpp"

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>
#include <utility>

#include "Orvix/OrvixAssert.hpp"
#include "Orvix/SafeLinuxCalls.hpp"

namespace orvix {

namespace {

constexpr const char* kUnit = "Orvix/CppPthread";

constexpr const char* kSigFunc = "orvix::Pthread::Pthread(orvix::Pthread::Func, void*, uint32_t)";
constexpr const char* kSigAlt =
    "orvix::Pthread::Pthread(orvix::Pthread::AlternativeFunc, uint32_t)";
constexpr const char* kSigFuncSched =
    "orvix::Pthread::Pthread(orvix::Pthread::Func, void*, uint32_t, int, int)";
constexpr const char* kSigAltSched =
    "orvix::Pthread::Pthread(orvix::Pthread::AlternativeFunc, uint32_t, int, int)";

// Where each constructor's checks report from.
struct Lines {
  const char* sig;
  int init, stackSize, inherit, policy, param, create, destroy;
};
const Lines kLinesFunc = {kSigFunc, 208, 219, 0, 0, 0, 220, 222};
const Lines kLinesAlt = {kSigAlt, 229, 242, 0, 0, 0, 243, 245};
const Lines kLinesFuncSched = {kSigFuncSched, 257, 268, 270, 271, 275, 276, 278};
const Lines kLinesAltSched = {kSigAltSched, 288, 299, 301, 302, 306, 307, 309};

// At least 16 KiB, else whole pages; 32-bit unsigned arithmetic on every target, so a huge KiB
// count wraps the same way on the controller and on a 64-bit host.
uint32_t stackBytes(uint32_t stackSizeKiB) {
  const uint32_t bytes = stackSizeKiB << 10;
  if (bytes < 16384u) return 16384u;
  const uint32_t page = static_cast<uint32_t>(getpagesize());
  return ((bytes - 1u + page) / page) * page;
}

void checkPolicy(int schedpolicy, const char* sig, int line) {
  ORVIX_ASSERT_AT(static_cast<unsigned>(schedpolicy) <= 2u,
                  "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1", kUnit, line, sig);
}

// Steps 3 to 9 of every starting constructor; sched is null for the plain forms.
pthread_t start(const Lines& l, uint32_t stackSizeKiB, const int* policyAndPriority,
                intern::InternThread* (*makeRecord)(void*), void* ctx) {
  pthread_attr_t attr;
  util::safePosix(l.sig, kUnit, l.init, pthread_attr_init(&attr));
  util::safePosix(l.sig, kUnit, l.stackSize,
                  pthread_attr_setstacksize(&attr, stackBytes(stackSizeKiB)));
  if (policyAndPriority != nullptr) {
    util::safePosix(l.sig, kUnit, l.inherit,
                    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED));
    util::safePosix(l.sig, kUnit, l.policy,
                    pthread_attr_setschedpolicy(&attr, policyAndPriority[0]));
    sched_param param{};
    param.sched_priority = policyAndPriority[1];
    util::safePosix(l.sig, kUnit, l.param, pthread_attr_setschedparam(&attr, &param));
  }
  intern::InternThread* record = makeRecord(ctx);
  pthread_t thread;
  util::safePosix(l.sig, kUnit, l.create, pthread_create(&thread, &attr, &pthreadFunc, record));
  // Renames the constructing thread, not the new one; that is how it has always behaved.
  prctl(PR_SET_NAME, "Pthread", 0, 0, 0);
  util::safePosix(l.sig, kUnit, l.destroy, pthread_attr_destroy(&attr));
  return thread;
}

intern::InternThread* recordOfFunc(void* ctx) {
  auto* fa = static_cast<std::pair<Pthread::Func, void*>*>(ctx);
  return new intern::InternThread(fa->first, fa->second);
}

intern::InternThread* recordOfAlt(void* ctx) {
  // A local copy first; the record is built from it and the local dropped afterwards.
  Pthread::AlternativeFunc copy = *static_cast<Pthread::AlternativeFunc*>(ctx);
  return new intern::InternThread(copy);
}

[[noreturn]] void fatal(const char* text) {
  std::cerr << text << std::endl;
  std::cerr.flush();
  std::terminate();
}

const pthread_t kNoThread = static_cast<pthread_t>(-1);

}  // namespace

void* pthreadFunc(void* p) {
  auto* t = static_cast<intern::InternThread*>(p);
  Pthread::Func f = t->f;
  void* arg = t->arg;
  Pthread::AlternativeFunc f2;
  if (f == nullptr) {
    ORVIX_ASSERT(static_cast<bool>(t->alternativeF), "t->alternativeF", kUnit, 181);
    f2 = t->alternativeF;
  }
  // The record goes before the body runs: a body that never returns must not keep it alive.
  delete t;
  if (f != nullptr) return f(arg);
  // Holds after the check above; the contract keeps the second check all the same.
  ORVIX_ASSERT(static_cast<bool>(f2), "f2", kUnit, 191);
  return f2();
}

Pthread::Pthread() : state(EMPTY), thread(kNoThread) {}

Pthread::Pthread(Func f, void* arg, uint32_t stackSizeKiB) : state(RUNNING), thread(kNoThread) {
  std::pair<Func, void*> fa(f, arg);
  thread = start(kLinesFunc, stackSizeKiB, nullptr, &recordOfFunc, &fa);
}

Pthread::Pthread(AlternativeFunc f, uint32_t stackSizeKiB) : state(RUNNING), thread(kNoThread) {
  thread = start(kLinesAlt, stackSizeKiB, nullptr, &recordOfAlt, &f);
}

Pthread::Pthread(Func f, void* arg, uint32_t stackSizeKiB, int schedpolicy, int priority)
    : state(RUNNING), thread(kNoThread) {
  checkPolicy(schedpolicy, kSigFuncSched, 253);
  const int sched[2] = {schedpolicy, priority};
  std::pair<Func, void*> fa(f, arg);
  thread = start(kLinesFuncSched, stackSizeKiB, sched, &recordOfFunc, &fa);
}

Pthread::Pthread(AlternativeFunc f, uint32_t stackSizeKiB, int schedpolicy, int priority)
    : state(RUNNING), thread(kNoThread) {
  checkPolicy(schedpolicy, kSigAltSched, 284);
  const int sched[2] = {schedpolicy, priority};
  thread = start(kLinesAltSched, stackSizeKiB, sched, &recordOfAlt, &f);
}

// A new object owns nothing, so unlike the assignment this cannot end the process.
Pthread::Pthread(Pthread&& other) noexcept : state(other.state), thread(other.thread) {
  other.state = EMPTY;
  other.thread = kNoThread;
}

Pthread& Pthread::operator=(Pthread&& other) {
  if (state == RUNNING) {
    fatal("FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!");
  }
  state = other.state;
  thread = other.thread;
  other.state = EMPTY;
  other.thread = kNoThread;
  return *this;
}

Pthread::~Pthread() {
  if (state == RUNNING) {
    fatal(
        "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! Erst join() oder "
        "detach() aufrufen!!");
  }
}

void* Pthread::join() {
  if (state != RUNNING) throw std::system_error(ESRCH, std::generic_category());
  if (pthread_equal(pthread_self(), thread)) {
    throw std::system_error(EDEADLK, std::generic_category());
  }
  void* result = nullptr;
  util::safePosix("void* orvix::Pthread::join()", kUnit, 345, pthread_join(thread, &result));
  state = JOINED;
  return result;
}

void Pthread::detach() {
  if (state != RUNNING) throw std::system_error(EINVAL, std::generic_category());
  util::safePosix("void orvix::Pthread::detach()", kUnit, 355, pthread_detach(thread));
  state = EMPTY;
  thread = kNoThread;
}

namespace intern {

InternThread::InternThread(Pthread::Func f, void* arg) : f(f), arg(arg), alternativeF() {}

InternThread::InternThread(Pthread::AlternativeFunc af) : f(nullptr), arg(nullptr), alternativeF(af) {}

InternThread::~InternThread() = default;

}  // namespace intern
}  // namespace orvix
