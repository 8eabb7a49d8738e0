#include "Orvix/CppBlockingQueue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Orvix/CppFastAllocator.hpp"
#include "TestSupport.hpp"

using orvix::BlockingQueueCanceledException;
using orvix::BlockingQueueClosedException;
using orvix::FastAllocator;
using orvix::SimpleHeap;

namespace {

using Item = std::unique_ptr<int>;
using Queue = orvix::BlockingQueue<Item, FastAllocator<Item>>;

FastAllocator<Item> heapAlloc(size_t bytes = 4096) {
  return FastAllocator<Item>(std::make_shared<SimpleHeap>(bytes));
}

Item item(int v) { return Item(new int(v)); }

}  // namespace

TEST(BlockingQueue, SlotsComeFromTheAllocator) {
  auto alloc = heapAlloc();
  auto* heap = static_cast<SimpleHeap*>(alloc.getHeap().get());
  {
    Queue q(5, alloc);
    EXPECT_EQ(heap->base.sumAllocated, 6 * sizeof(Item));
  }
}

TEST(BlockingQueue, CapacityOneHoldsOneAndDropsTheSecond) {
  Queue q(1, heapAlloc());
  Item a = item(1), b = item(2);
  EXPECT_TRUE(q.push(std::move(a)));
  EXPECT_EQ(a, nullptr);
  EXPECT_FALSE(q.push(std::move(b)));
  ASSERT_NE(b, nullptr);  // stays with the caller
  EXPECT_EQ(*b, 2);
  EXPECT_EQ(*q.pop(), 1);
  EXPECT_TRUE(q.push(std::move(b)));
  EXPECT_EQ(*q.pop(), 2);
}

TEST(BlockingQueue, RingWrapsWithCapacityThree) {
  Queue q(3, heapAlloc());
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(q.push(item(i)));
    ASSERT_EQ(*q.pop(), i);
  }
  // Fill, drain half, refill over the seam.
  int pushed = 0, popped = 0;
  for (int round = 0; round < 20; ++round) {
    while (q.push(item(pushed))) ++pushed;
    ASSERT_EQ(pushed - popped, 3);
    for (int k = 0; k < 2; ++k) ASSERT_EQ(*q.pop(), popped++);
  }
}

TEST(BlockingQueueDeathTest, NextWrapsAndChecksItsArgument) {
  Queue q(2, heapAlloc());
  Item* a = nullptr;
  EXPECT_DEATH(q.next(a), "Orvix/CppBlockingQueue.hpp:136: .*next.*Assertion `p >= array && p <= "
                          "array \\+ capacity' failed");
}

TEST(BlockingQueue, ClosedEmptyQueueThrowsAtOnce) {
  Queue q(2, heapAlloc());
  q.close();
  try {
    q.pop();
    FAIL();
  } catch (const BlockingQueueClosedException& e) {
    EXPECT_STREQ(e.what(), "BlockingQueue closed");
    const std::underflow_error& base = e;
    (void)base;
  }
}

TEST(BlockingQueue, ClosedQueueDrainsFirst) {
  Queue q(3, heapAlloc());
  q.push(item(1));
  q.push(item(2));
  q.close();
  EXPECT_EQ(*q.pop(), 1);
  EXPECT_EQ(*q.pop(), 2);
  EXPECT_THROW(q.pop(), BlockingQueueClosedException);
  // Pushing is still accepted after close, and drained again.
  EXPECT_TRUE(q.push(item(3)));
  EXPECT_EQ(*q.pop(), 3);
}

TEST(BlockingQueue, CancelWinsOverQueuedItems) {
  Queue q(3, heapAlloc());
  q.push(item(1));
  q.close();
  q.cancel();
  try {
    q.pop();
    FAIL();
  } catch (const BlockingQueueCanceledException& e) {
    EXPECT_STREQ(e.what(), "BlockingQueue canceled");
  }
}

TEST(BlockingQueue, WaitingConsumerWakesOnPushCloseAndCancel) {
  {
    Queue q(2, heapAlloc());
    auto f = std::async(std::launch::async, [&] { return *q.pop(); });
    q.push(item(7));
    EXPECT_EQ(f.get(), 7);
  }
  {
    Queue q(2, heapAlloc());
    auto f = std::async(std::launch::async, [&] { q.pop(); });
    q.close();
    EXPECT_THROW(f.get(), BlockingQueueClosedException);
  }
  {
    Queue q(2, heapAlloc());
    auto f = std::async(std::launch::async, [&] { q.pop(); });
    q.cancel();
    EXPECT_THROW(f.get(), BlockingQueueCanceledException);
  }
}

TEST(BlockingQueue, DestructorDestroysQueuedItems) {
  struct Counted {
    explicit Counted(std::atomic<int>* c) : c(c) {}
    ~Counted() { ++*c; }
    std::atomic<int>* c;
  };
  using P = std::unique_ptr<Counted>;
  std::atomic<int> destroyed{0};
  {
    orvix::BlockingQueue<P, FastAllocator<P>> q(3, FastAllocator<P>(std::make_shared<SimpleHeap>(256)));
    q.push(P(new Counted(&destroyed)));
    q.push(P(new Counted(&destroyed)));
    q.pop();  // destroyed here
    EXPECT_EQ(destroyed, 1);
    q.push(P(new Counted(&destroyed)));
    q.push(P(new Counted(&destroyed)));  // wraps
  }
  EXPECT_EQ(destroyed, 4);
}

TEST(BlockingQueue, ManyProducersOneConsumer) {
  const int producers = 4, perProducer = 2000;
  Queue q(16, heapAlloc());
  std::atomic<int> dropped{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      for (int i = 0; i < perProducer; ++i) {
        Item it = item(p * perProducer + i);
        // Never blocks; a dropped item is retried, so every item arrives once.
        while (!q.push(std::move(it))) {
          ++dropped;
          std::this_thread::yield();
        }
      }
    });
  }
  std::vector<int> lastOf(producers, -1);
  std::vector<char> seen(producers * perProducer, 0);
  for (int n = 0; n < producers * perProducer; ++n) {
    const int v = *q.pop();
    const int p = v / perProducer;
    ASSERT_GT(v, lastOf[p]);  // each producer's items in order
    lastOf[p] = v;
    ASSERT_FALSE(seen[v]);
    seen[v] = 1;
  }
  for (auto& t : threads) t.join();
  q.close();
  EXPECT_THROW(q.pop(), BlockingQueueClosedException);
}

TEST(FencedQueueOverflowException, Message) {
  orvix::FencedQueueOverflowException e;
  EXPECT_STREQ(e.what(), "FencedQueueOverflowException");
  const std::runtime_error& base = e;
  (void)base;
}
