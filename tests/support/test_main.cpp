// The one main of every test program. The library must be up before the first
// allocation, and GoogleTest allocates while registering tests during static
// initialisation, so the library is brought up by the first static constructor
// of the program (priority 101 runs before every default-priority one).
#include <gtest/gtest.h>

#include "ZMXUTI_CoreUtils.h"

ZMXUTI_EARLY_START_UP;

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
