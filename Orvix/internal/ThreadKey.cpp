#include "Orvix/internal/ThreadKey.hpp"

#include <cerrno>
#include <iostream>

#include "Orvix/Thread.hpp"
#include "Orvix/internal/StartupOrder.hpp"

namespace util {

// Plain data, never destroyed: the deleter below reads it after every object has gone.
ThreadKey gl_threadKey = {};

void ThreadKey::create(void (*destructor)(void*), CreateFn createFn) {
  int result;
  while ((result = createFn(&key, destructor)) == EAGAIN) {
    std::cout << "repeat pthread_key_create" << std::endl;
  }
  if (result != 0) {
    // The line break before ")" is part of the message as it has always been written.
    std::cerr << "Could not create threadKey! (error: ";
    if (result == ENOMEM)
      std::cerr << "ENOMEM" << std::endl << ")" << std::endl;
    else
      std::cerr << result << ")" << std::endl;
    return;
  }
  valid = true;
}

void ThreadKey::remove(DeleteFn deleteFn) {
  const int result = deleteFn(key);
  if (result == 0) return;
  std::cerr << "Could not delete threadKey! (error: ";
  if (result == EINVAL)
    std::cerr << "EINVAL" << std::endl << ")" << std::endl;
  else
    std::cerr << result << ")" << std::endl;
}

// Records the end of a util::Thread, whether its body returned or it was cancelled.
void threadKeyDestructor(void* value) { static_cast<ThreadInternals*>(value)->runFinished(); }

namespace {

struct ThreadKeyCreator {
  ThreadKeyCreator() { gl_threadKey.create(&threadKeyDestructor); }
};

// Built early, destroyed last: the key outlives every other object of the library.
struct ThreadKeyDeleter {
  ~ThreadKeyDeleter() {
    if (gl_threadKey.valid) gl_threadKey.remove();
  }
};

ThreadKeyDeleter threadKeyDeleter ORVIX_INIT_PRIORITY(ORVIX_INIT_STREAMS);
ThreadKeyCreator threadKeyCreator ORVIX_INIT_PRIORITY(ORVIX_INIT_THREAD_KEY);

}  // namespace
}  // namespace util
