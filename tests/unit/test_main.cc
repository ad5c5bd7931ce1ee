// Unit tests touch the daemon's fixed paths (/tmp/146, /tmp/qztmp, ...):
// each test process first moves into a private mount namespace with its own
// /tmp, so nothing of the host is read or written.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/private_tmp.h"

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  bool listing = false;
  for (int i = 1; i < argc; i++)
    listing |= strcmp(argv[i], "--gtest_list_tests") == 0;
  if (!listing && !private_tmp("size=512m"))
    return 1;
  return RUN_ALL_TESTS();
}
