#include <gtest/gtest.h>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Forking death tests: the re-executing style cannot start an armhf program under qemu-user.
  GTEST_FLAG_SET(death_test_style, "fast");
  return RUN_ALL_TESTS();
}
