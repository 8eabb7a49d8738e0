// Reference model of util::LimitedBuffer: the whole history of appended text and, for each
// surviving state value list, the history offset at which it was recorded, beside a plain byte
// ring written piece by piece. What print shows is derived from the history alone; the ring bytes
// model the buffer's memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>

namespace orvix_model {

class LimitedBufferModel {
 public:
  static constexpr const char* kHeader = "\n\n======== LIMITED BUFFER CONTENT ========\n\n";
  static constexpr const char* kFooter = "\n==============\n\n";
  // The most lists the buffer keeps; older ones are replaced.
  static constexpr std::size_t kMaxLists = 128;

  explicit LimitedBufferModel(std::size_t capacity) : cap_(capacity), ring_(capacity, '\0') {}

  // Whether a piece of len bytes may be appended (strictly shorter than the ring).
  bool fits(std::size_t len) const { return len < cap_; }

  // Appends piece (fits() must hold). Newest first, the first list whose ring offset the piece
  // covers goes, with all older ones; a list just before the new text survives. An empty piece
  // counts as a whole turn of the ring (its start and end offsets are equal) and drops every list.
  void add(const std::string& piece) {
    const std::size_t len = piece.size();
    const std::size_t from = history_.size() % cap_;
    if (len == 0) lists_.clear();
    for (std::size_t i = lists_.size(); i-- > 0;) {
      const std::size_t pos = lists_[i].first % cap_;
      if ((pos + cap_ - from - 1) % cap_ < len) {
        lists_.erase(lists_.begin(), lists_.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        break;
      }
    }
    for (std::size_t i = 0; i < len; ++i) ring_[(history_.size() + i) % cap_] = piece[i];
    history_ += piece;
  }

  // Records a state value list at the current end of the text.
  void addList(const std::string& record) {
    lists_.emplace_back(history_.size(), record);
    if (lists_.size() > kMaxLists) lists_.pop_front();
  }

  // What print writes, each list rendered by format.
  std::string printed(const std::function<void(std::ostream&, const char*)>& format) const {
    const std::size_t first = history_.size() - validSize();
    std::ostringstream os;
    os << kHeader;
    std::size_t at = first;
    for (const auto& l : lists_) {
      os << history_.substr(at, l.first - at);
      at = l.first;
      format(os, l.second.data());
    }
    os << history_.substr(at) << kFooter;
    return os.str();
  }

  // The ring's bytes; only the first min(history, capacity) have been written.
  const std::string& ring() const { return ring_; }
  std::size_t writtenBytes() const { return std::min(history_.size(), cap_); }
  std::size_t validSize() const { return std::min(history_.size(), cap_); }
  std::size_t writeOffset() const { return history_.size() % cap_; }
  std::size_t listCount() const { return lists_.size(); }
  // The history offset of every surviving list, oldest first.
  const std::deque<std::pair<std::size_t, std::string>>& lists() const { return lists_; }
  std::size_t historySize() const { return history_.size(); }

 private:
  const std::size_t cap_;
  std::string history_;
  std::string ring_;
  std::deque<std::pair<std::size_t, std::string>> lists_;  // (history offset, record)
};

}  // namespace orvix_model
