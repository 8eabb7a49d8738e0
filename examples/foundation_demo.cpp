// A tour of the library's failure reporting and console output: what a firmware engineer sees
// when a system call fails, when a thrower names an error, and how serialised output keeps whole
// lines from several threads.
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <locale>
#include <thread>
#include <vector>

#include "Orvix/Orvix.hpp"

int main() {
  std::cout << "Orvix foundation demo: runtime errors, checked calls and serialised output.\n\n";

  std::cout << "1. A failed call becomes a GeneralException; its construction leaves a trace "
               "line:\n";
  try {
    util::GeneralExceptionThrower thrower(EINTR);
    thrower.handle(35, "EDEADLK");
    thrower.handle(4, "EINTR");
    thrower.handle(22, "EINVAL");
    thrower.throwNow("in sem_wait of CountingSemaphore::wait");
  } catch (const util::GeneralException& e) {
    std::cout << "   caught: \"" << e.what() << "\"\n";
  }

  std::cout << "\n2. An error number the call site did not list:\n";
  util::GeneralExceptionThrower unexpected(99);
  unexpected.handle(22, "EINVAL");
  unexpected.writeNow(" in pthread_cond_destroy", std::cout);

  std::cout << "\n3. A non-fatal checked call that failed (read on a closed descriptor), on "
               "standard error:\n";
  std::cout.flush();
  const int result = util::safe(__PRETTY_FUNCTION__, "examples/foundation_demo", __LINE__,
                                static_cast<int>(read(-1, nullptr, 0)), false);
  std::cout << "   returned " << result << "\n";

  std::cout << "\n4. Three threads writing whole safeCout chains; every line comes out whole:\n";
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 3; ++i)
        safeCout << "   thread " << t << " line " << i << " of 3" << std::endl;
    });
  for (auto& th : threads) th.join();

  std::cout << "\n5. Report numbers grouped with orvix::MyNumPunct: ";
  std::cout.imbue(std::locale(std::cout.getloc(), new orvix::MyNumPunct));
  std::cout << 1234567 << " ns\n";
  return 0;
}
