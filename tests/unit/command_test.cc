#include "frame/command.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

TEST(Command, StatusAndOutputAsSystemAndPopen) {
  EXPECT_EQ(command_system("exit 3"), 3 << 8);
  EXPECT_EQ(command_system("true"), 0);
  std::string out;
  EXPECT_EQ(command_read("printf 'a b\\nc'; exit 1", &out, 100), 1 << 8);
  EXPECT_EQ(out, "a b\nc");
  // Output past the bound is read and thrown away.
  EXPECT_EQ(command_read("head -c 5000 /dev/zero | tr '\\0' x", &out, 1023), 0);
  EXPECT_EQ(out, std::string(1023, 'x'));
  // A command that is not found is started all the same, as by popen.
  EXPECT_EQ(command_read("no_such_command_qz 2>/dev/null", &out, 100), 127 << 8);
  EXPECT_EQ(out, "");
}

}  // namespace
