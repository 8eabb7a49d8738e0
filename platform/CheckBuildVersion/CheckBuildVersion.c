#include "CheckBuildVersion.h"

#include <stdio.h>

int checkBuildVersion(int interfaceNumber) {
  if (interfaceNumber == EXPECTED_INTERFACE) return 0;
  fprintf(stderr, "checkBuildVersion: library built for interface %d, expected %d\n",
          interfaceNumber, EXPECTED_INTERFACE);
  return -1;
}
