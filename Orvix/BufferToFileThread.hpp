// orvix::BufferToFileThread: the interface of a thread that writes a buffer guarded by a lock
// group to a file. Every operation is empty: it does nothing and returns at once. It exists so
// that clients written against this interface build and link.
//
// Any thread may call anything; nothing fails, prints or blocks.
#pragma once

namespace orvix {

namespace sync {
class LockGroup;
}  // namespace sync

class BufferToFileThread {
 public:
  // Does nothing.
  BufferToFileThread();
  // Does nothing.
  virtual ~BufferToFileThread();
  BufferToFileThread(const BufferToFileThread&) = delete;
  BufferToFileThread& operator=(const BufferToFileThread&) = delete;

  // Does nothing; no argument is read or written.
  void start(int, orvix::sync::LockGroup&, unsigned char*, unsigned int, unsigned char*&,
             unsigned char*&);
  // Does nothing.
  void join();
  // Does nothing.
  void run();
};

}  // namespace orvix
