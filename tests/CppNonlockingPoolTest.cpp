#include "Orvix/CppNonlockingPool.hpp"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "Orvix/GeneralException.hpp"
#include "TestSupport.hpp"

using orvix::NonlockingPool;
using orvix_test::CaptureFd;

namespace {

template <typename F>
std::string thrownText(F f) {
  try {
    f();
  } catch (const util::GeneralException& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

}  // namespace

TEST(NonlockingPool, TwoObjectsThenUnderflow) {
  int objects[2] = {10, 20};
  NonlockingPool<int> pool(objects, 2);
  int* a = pool.get();
  int* b = pool.get();
  EXPECT_EQ(a, &objects[0]);
  EXPECT_EQ(b, &objects[1]);
  CaptureFd out(1);
  EXPECT_EQ(thrownText([&] { pool.get(); }), "Pool underflow");
  EXPECT_EQ(out.text(), "[WARN Orvix/GeneralException:65]    Constructing GeneralException with "
                        "msg Pool underflow\n");
  // Still works.
  pool.put(a);
  EXPECT_EQ(pool.get(), a);
  pool.put(b);
  pool.put(a);
}

TEST(NonlockingPool, SurplusReturnOverflows) {
  int objects[2] = {};
  NonlockingPool<int> pool(objects, 2);
  int stranger = 0;
  CaptureFd out(1);
  EXPECT_EQ(thrownText([&] { pool.put(&stranger); }), "Pool overflow");
  out.text();
  int* a = pool.get();
  EXPECT_EQ(a, &objects[0]);
  pool.put(a);
  EXPECT_EQ(pool.get(), &objects[0]);
}

TEST(NonlockingPool, LastReturnedComesFirst) {
  int objects[3] = {};
  NonlockingPool<int> pool(objects, 3);
  int* a = pool.get();
  int* b = pool.get();
  int* c = pool.get();
  pool.put(b);
  pool.put(c);
  pool.put(a);
  EXPECT_EQ(pool.get(), a);
  EXPECT_EQ(pool.get(), c);
  EXPECT_EQ(pool.get(), b);
}

TEST(NonlockingPool, EmptyPoolUnderflowsAtOnce) {
  NonlockingPool<int> pool(nullptr, 0);
  util::GeneralException::defaultSilent = true;
  EXPECT_EQ(thrownText([&] { pool.get(); }), "Pool underflow");
  int x;
  EXPECT_EQ(thrownText([&] { pool.put(&x); }), "Pool overflow");
  util::GeneralException::defaultSilent = false;
}

TEST(NonlockingPool, SizeLimit) {
  int x;
  EXPECT_THROW(NonlockingPool<int>(&x, 0x1FFFFFFF), std::bad_array_new_length);
  EXPECT_THROW(NonlockingPool<int>(&x, -1), std::bad_array_new_length);
}

TEST(NonlockingPool, ManyThreadsGetAndPut) {
  std::vector<int> objects(8);
  NonlockingPool<int> pool(objects.data(), 8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        int* a = pool.get();
        int* b = pool.get();
        ++*a;
        ++*b;
        pool.put(b);
        pool.put(a);
      }
    });
  }
  for (auto& t : threads) t.join();
  int sum = 0;
  std::set<int*> all;
  for (int i = 0; i < 8; ++i) all.insert(pool.get());
  for (int v : objects) sum += v;
  EXPECT_EQ(sum, 4 * 2000 * 2);
  EXPECT_EQ(all.size(), 8u);
}
