// Unit tests touch the daemon's fixed paths (/tmp/146, /tmp/qztmp, ...):
// each test process first moves into a private mount namespace with its own
// /tmp, so nothing of the host is read or written.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/report_timer.h"
#include "tests/private_tmp.h"

namespace {

// Tests that share one process (a run without ctest) start without the
// jobs of the tests before them, which may have lived on their stacks.
class fresh_jobs : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo &) override {
    report_timer_list.next = report_timer_list.prev = &report_timer_list;
  }
};

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  bool listing = false;
  for (int i = 1; i < argc; i++)
    listing |= strcmp(argv[i], "--gtest_list_tests") == 0;
  if (!listing && !private_tmp("size=512m"))
    return 1;
  ::testing::UnitTest::GetInstance()->listeners().Append(new fresh_jobs);
  return RUN_ALL_TESTS();
}
