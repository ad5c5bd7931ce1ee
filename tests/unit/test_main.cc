// Unit tests touch the daemon's fixed paths (/tmp/146, /tmp/qztmp, ...):
// each test process first moves into a private mount namespace with its own
// /tmp, so nothing of the host is read or written.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdio>
#include <cstring>

namespace {

bool isolate_tmp() {
  if (unshare(CLONE_NEWNS) != 0) {
    perror("unshare(CLONE_NEWNS) (the unit tests need root)");
    return false;
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/tmp", "tmpfs", 0, "size=512m") != 0) {
    perror("private /tmp");
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  bool listing = false;
  for (int i = 1; i < argc; i++)
    listing |= strcmp(argv[i], "--gtest_list_tests") == 0;
  if (!listing && !isolate_tmp())
    return 1;
  return RUN_ALL_TESTS();
}
