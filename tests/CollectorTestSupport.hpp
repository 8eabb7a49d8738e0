// Output streams for the time collector tests: the dump thread writes, the test waits for text.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <streambuf>
#include <string>

namespace orvix_test {

// Records what is written; a test waits until a text has arrived. While held, the first write
// blocks until release() (to keep the dump thread busy with one collector).
class SyncBuf : public std::streambuf {
 public:
  void hold() {
    std::lock_guard<std::mutex> l(m_);
    held_ = true;
  }
  void release() {
    {
      std::lock_guard<std::mutex> l(m_);
      held_ = false;
    }
    cv_.notify_all();
  }
  // True when the writer is blocked in a held write.
  bool waitBlocked(int seconds = 120) {
    std::unique_lock<std::mutex> l(m_);
    return cv_.wait_for(l, std::chrono::seconds(seconds), [&] { return blocked_; });
  }
  // Waits until the recorded text contains part `count` times.
  bool waitFor(const std::string& part, int count = 1, int seconds = 120) {
    std::unique_lock<std::mutex> l(m_);
    return cv_.wait_for(l, std::chrono::seconds(seconds), [&] { return occurrences(part) >= count; });
  }
  std::string text() {
    std::lock_guard<std::mutex> l(m_);
    return text_;
  }

 protected:
  int_type overflow(int_type c) override {
    if (c == traits_type::eof()) return traits_type::not_eof(c);
    char ch = static_cast<char>(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::unique_lock<std::mutex> l(m_);
    if (held_) {
      blocked_ = true;
      cv_.notify_all();
      cv_.wait(l, [&] { return !held_; });
      blocked_ = false;
    }
    text_.append(s, static_cast<size_t>(n));
    cv_.notify_all();
    return n;
  }

 private:
  int occurrences(const std::string& part) const {
    int n = 0;
    for (size_t p = text_.find(part); p != std::string::npos; p = text_.find(part, p + 1)) ++n;
    return n;
  }
  std::mutex m_;
  std::condition_variable cv_;
  std::string text_;  // guarded by m_
  bool held_ = false;     // guarded by m_
  bool blocked_ = false;  // guarded by m_
};

}  // namespace orvix_test
