#include "Orvix/internal/ThreadKey.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "TestSupport.hpp"

using orvix_test::runInChild;

namespace {

std::vector<int> script;  // results the fake pthread_key_create returns, in order
int attempts = 0;
void (*seenDestructor)(void*) = nullptr;

int fakeCreate(pthread_key_t* key, void (*destructor)(void*)) {
  seenDestructor = destructor;
  const int result = script.at(static_cast<std::size_t>(attempts++));
  if (result == 0) *key = 1234;
  return result;
}

int deleteResult = 0;
pthread_key_t deletedKey = 0;
int fakeDelete(pthread_key_t key) {
  deletedKey = key;
  return deleteResult;
}

void myDestructor(void*) {}

}  // namespace

TEST(ThreadKey, LibraryKeyIsValidAfterLoad) {
  EXPECT_TRUE(util::gl_threadKey.valid);
  EXPECT_EQ(pthread_setspecific(util::gl_threadKey.key, nullptr), 0);
}

TEST(ThreadKey, EagainRepeatsWithOneLinePerAttempt) {
  auto r = runInChild([] {
    script = {EAGAIN, EAGAIN, EAGAIN, 0};
    util::ThreadKey k{};
    k.create(&myDestructor, &fakeCreate);
    printf("valid=%d key=%u attempts=%d same=%d\n", k.valid, static_cast<unsigned>(k.key),
           attempts, seenDestructor == &myDestructor);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out,
            "repeat pthread_key_create\nrepeat pthread_key_create\nrepeat pthread_key_create\n"
            "valid=1 key=1234 attempts=4 same=1\n");
  EXPECT_EQ(r.err, "");
}

TEST(ThreadKey, ManyEagainsStillNoLimit) {
  auto r = runInChild([] {
    script.assign(1000, EAGAIN);
    script.push_back(0);
    util::ThreadKey k{};
    k.create(&myDestructor, &fakeCreate);
    printf("valid=%d attempts=%d\n", k.valid, attempts);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected += "repeat pthread_key_create\n";
  EXPECT_EQ(r.out, expected + "valid=1 attempts=1001\n");
}

TEST(ThreadKey, EnomemIsNamedWithTheLineBreak) {
  auto r = runInChild([] {
    script = {ENOMEM};
    util::ThreadKey k{};
    k.create(&myDestructor, &fakeCreate);
    printf("valid=%d\n", k.valid);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.err, "Could not create threadKey! (error: ENOMEM\n)\n");
  EXPECT_EQ(r.out, "valid=0\n");
}

TEST(ThreadKey, OtherCreateErrorIsANumber) {
  auto r = runInChild([] {
    script = {EAGAIN, EINVAL};
    util::ThreadKey k{};
    k.create(&myDestructor, &fakeCreate);
    printf("valid=%d\n", k.valid);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "repeat pthread_key_create\nvalid=0\n");
  EXPECT_EQ(r.err, "Could not create threadKey! (error: 22)\n");
}

TEST(ThreadKey, DeleteMessages) {
  auto r = runInChild([] {
    util::ThreadKey k{};
    k.key = 77;
    deleteResult = 0;
    k.remove(&fakeDelete);
    printf("deleted=%u\n", static_cast<unsigned>(deletedKey));
    deleteResult = EINVAL;
    k.remove(&fakeDelete);
    deleteResult = 5;
    k.remove(&fakeDelete);
  });
  ASSERT_TRUE(r.exited()) << r.describe();
  EXPECT_EQ(r.out, "deleted=77\n");
  EXPECT_EQ(r.err,
            "Could not delete threadKey! (error: EINVAL\n)\n"
            "Could not delete threadKey! (error: 5)\n");
}

TEST(ThreadKey, RealKeyCreateAndDelete) {
  util::ThreadKey k{};
  k.create(&myDestructor);
  ASSERT_TRUE(k.valid);
  EXPECT_EQ(pthread_setspecific(k.key, &k), 0);
  EXPECT_EQ(pthread_getspecific(k.key), &k);
  testing::internal::CaptureStderr();
  k.remove();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
