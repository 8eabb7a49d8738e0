// Stand-in for the controller's asynchronous-task helper.
//
// storeFuture takes over the future of a task started with std::async so that the caller can
// return without blocking in the future's destructor. The store keeps every future until its
// task has finished: each call first drops the futures whose tasks are done, and at process
// exit the store waits for the ones still running. Any thread may call it.
#pragma once

#include <cstddef>
#include <future>

namespace orvix {
namespace easyAsyncIntern {

void storeFuture(std::future<void>&& future);

// Number of futures held right now (finished ones not yet reaped included).
std::size_t storedFutureCount();

}  // namespace easyAsyncIntern
}  // namespace orvix
