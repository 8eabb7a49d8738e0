#include "Orvix/BufferToFileThread.hpp"

namespace orvix {

BufferToFileThread::BufferToFileThread() = default;

BufferToFileThread::~BufferToFileThread() = default;

void BufferToFileThread::start(int, orvix::sync::LockGroup&, unsigned char*, unsigned int,
                               unsigned char*&, unsigned char*&) {}

void BufferToFileThread::join() {}

void BufferToFileThread::run() {}

}  // namespace orvix
