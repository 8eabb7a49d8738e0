#include <gtest/gtest.h>

#include "StressSupport.hpp"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  orvix_stress::startWatchdog();
  return RUN_ALL_TESTS();
}
