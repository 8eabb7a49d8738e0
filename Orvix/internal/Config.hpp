// The build-variant checks of the library, written once.
//
// Internal to the library and its tests; not installed. Everything here is a compile-time
// switch or an attribute: nothing runs, nothing fails.
#pragma once

// 1 in the AddressSanitizer and ThreadSanitizer builds, 0 otherwise. Those builds differ in
// what they may lock in memory and in how the tests observe thread stacks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVIX_SANITIZER_BUILD 1
#else
#define ORVIX_SANITIZER_BUILD 0
#endif

// Places a process-wide object at its slot of the start-up order (Orvix/internal/StartupOrder.hpp):
//   LockGroup gl_wendelLockGroup ORVIX_INIT_PRIORITY(ORVIX_INIT_LOCK_GROUP);
#define ORVIX_INIT_PRIORITY(slot) __attribute__((init_priority(slot)))

// Runs a function at its slot of the start-up order. GCC keeps the priority only on a function
// whose first declaration carries it.
#define ORVIX_INIT_FUNCTION(slot) __attribute__((constructor(slot)))

// For functions that must still run on an object whose lifetime has ended (its memory still
// readable): UndefinedBehaviorSanitizer's dynamic-type check would stop them first.
#define ORVIX_NO_SANITIZE_VPTR __attribute__((no_sanitize("vptr")))
