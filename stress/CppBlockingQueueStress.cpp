// orvix::BlockingQueue with several producers and one consumer, ended by close or cancel while
// the producers still push.
#include "Orvix/CppBlockingQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "Orvix/CppFastAllocator.hpp"
#include "StressSupport.hpp"

using orvix::BlockingQueueCanceledException;
using orvix::BlockingQueueClosedException;
using orvix_stress::pick;

namespace {

// Every item's destruction is counted by its id, wherever it happens: after the consumer took
// it, in the producer that kept a refused item, or in the queue's destructor.
struct Ledger {
  explicit Ledger(std::size_t n) : destroyed(n) {}
  std::vector<std::atomic<int>> destroyed;
};

struct Token {
  int producer;
  int seq;
  std::size_t id;
};

struct TokenDeleter {
  Ledger* ledger = nullptr;
  void operator()(Token* t) const {
    ++ledger->destroyed[t->id];
    delete t;
  }
};

using Item = std::unique_ptr<Token, TokenDeleter>;
using Queue = orvix::BlockingQueue<Item, orvix::FastAllocator<Item>>;

}  // namespace

// Each round: capacity 1 to 8, 2 to 4 producers pushing 0 to 200 numbered items each, one
// consumer popping until the queue throws. The queue is closed after the producers are done, or
// closed or cancelled at a random moment while they push. Every item is destroyed exactly once;
// from each producer the consumer got a prefix of its accepted items, in order; after a close
// behind the producers it got all of them; it ends with the exception of how the queue ended.
TEST(CppBlockingQueueStress, ProducersConsumerCloseAndCancel) {
  const int baseline = orvix_stress::threadCount();
  orvix_stress::repeat(1000, [&](int round) {
    const std::size_t capacity = static_cast<std::size_t>(pick(1, 8));
    const int producers = pick(2, 4);
    const int ending = pick(0, 2);  // 0: close behind the producers, 1: close, 2: cancel midway
    std::vector<int> counts;
    std::size_t total = 0;
    for (int p = 0; p < producers; ++p) {
      counts.push_back(pick(0, 200));
      total += static_cast<std::size_t>(counts.back());
    }
    const int delay = pick(0, 200000);
    Ledger ledger(total);
    std::vector<std::vector<int>> accepted(static_cast<std::size_t>(producers));
    std::vector<std::vector<int>> consumed(static_cast<std::size_t>(producers));
    int endedBy = -1;  // 1 closed, 2 canceled, 3 anything else; written by the consumer
    {
      Queue queue(capacity, orvix::FastAllocator<Item>(std::make_shared<orvix::SimpleHeap>(4096)));
      std::thread consumer([&] {
        try {
          for (;;) {
            Item item = queue.pop();
            consumed[static_cast<std::size_t>(item->producer)].push_back(item->seq);
          }
        } catch (const BlockingQueueClosedException&) {
          endedBy = 1;
        } catch (const BlockingQueueCanceledException&) {
          endedBy = 2;
        } catch (...) {
          endedBy = 3;
        }
      });
      std::vector<std::thread> pushers;
      std::size_t firstId = 0;
      for (int p = 0; p < producers; ++p) {
        pushers.emplace_back([&, p, firstId] {
          for (int seq = 0; seq < counts[static_cast<std::size_t>(p)]; ++seq) {
            Item item(new Token{p, seq, firstId + static_cast<std::size_t>(seq)},
                      TokenDeleter{&ledger});
            // A refused item stays here and is destroyed at the end of this step.
            if (queue.push(std::move(item))) accepted[static_cast<std::size_t>(p)].push_back(seq);
          }
        });
        firstId += static_cast<std::size_t>(counts[static_cast<std::size_t>(p)]);
      }
      if (ending == 0) {
        for (auto& t : pushers) t.join();
        queue.close();
      } else {
        orvix_stress::spin(delay);
        if (ending == 1)
          queue.close();
        else
          queue.cancel();
        for (auto& t : pushers) t.join();
      }
      consumer.join();
    }  // the queue destroys what it still holds
    ASSERT_EQ(endedBy, ending == 2 ? 2 : 1) << "round " << round;
    for (std::size_t id = 0; id < total; ++id)
      ASSERT_EQ(ledger.destroyed[id].load(), 1) << "round " << round << " item " << id;
    for (int p = 0; p < producers; ++p) {
      const auto& got = consumed[static_cast<std::size_t>(p)];
      const auto& in = accepted[static_cast<std::size_t>(p)];
      ASSERT_LE(got.size(), in.size()) << "round " << round;
      for (std::size_t k = 0; k < got.size(); ++k)
        ASSERT_EQ(got[k], in[k]) << "round " << round << " producer " << p << " item " << k;
      if (ending == 0) {
        ASSERT_EQ(got.size(), in.size()) << "round " << round;
      }
    }
    ASSERT_TRUE(orvix_stress::threadsBackTo(baseline)) << "round " << round;
  });
}
