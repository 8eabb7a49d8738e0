// The thread-specific key of util::Thread (internal to the library and its tests; not installed).
//
// Created at load (after zu::ImplementedFunc's set, before the console streams) with the
// function that ends a thread's bookkeeping as its destructor, and deleted at unload after every
// other object of the library. Creation repeats on EAGAIN for ever, printing
// "repeat pthread_key_create" once per attempt; other failures are printed and leave the key
// unusable (valid stays false). Nothing here throws: it runs during load and unload.
//
// create and remove take the system call as a parameter so that their failure paths can be
// exercised without patching libc.
#pragma once

#include <pthread.h>

namespace util {

struct ThreadKey {
  using CreateFn = int (*)(pthread_key_t*, void (*)(void*));
  using DeleteFn = int (*)(pthread_key_t);

  // On success sets valid; see above for the messages on std::cout and std::cerr.
  void create(void (*destructor)(void*), CreateFn createFn = pthread_key_create);
  // Deletes the key; a failure is printed on std::cerr ("Could not delete threadKey! ...").
  void remove(DeleteFn deleteFn = pthread_key_delete);

  pthread_key_t key;  // written once at load
  bool valid;         // written once at load
};

// The process-wide key (valid once the library is loaded, unless creation failed).
extern ThreadKey gl_threadKey;

// Destructor routine of gl_threadKey: runs in each exiting thread that stored a value.
void threadKeyDestructor(void* value);

}  // namespace util
