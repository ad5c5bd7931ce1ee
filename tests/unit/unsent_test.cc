#include "output/unsent.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/log.h"
#include "output/spool.h"
#include "tests/unit/test_support.h"

namespace {

// A file in the spool with its time of writing set, s seconds after a base.
std::string spool_file(const std::string &name, const std::string &text, int s) {
  mkdir("/tmp/145", 0755);
  const std::string path = "/tmp/145/" + name;
  EXPECT_TRUE(write_file(path, text));
  const struct timespec t[2] = {{1700000000 + s, 0}, {1700000000 + s, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0);
  return path;
}

std::vector<std::string> kept_names(uint32_t id) {
  std::vector<std::string> names;
  for (const unsent_file &f : unsent_files(id))
    names.push_back(f.name());
  return names;
}

TEST(Unsent, KeepsFilesUnderTheirNamesOldestFirst) {
  load_test_config({{"fh_unsent_dir", "\"/tmp/keep/\""}});
  ASSERT_TRUE(unsent_enabled());
  char dir[UNSENT_PATH_SIZE];
  ASSERT_TRUE(unsent_dir_of(145, dir, sizeof(dir)));
  EXPECT_STREQ(dir, "/tmp/keep/145");
  const std::string b = spool_file("b.zip", "bbb", 2);
  const std::string a = spool_file("a.zip", "aa", 1);
  const std::string c = spool_file("c.zip", "c", 2);
  for (const std::string &p : {b, a, c})
    ASSERT_EQ(unsent_keep(145, p.c_str()), 0);
  EXPECT_NE(access(b.c_str(), F_OK), 0);
  EXPECT_EQ(read_file("/tmp/keep/145/b.zip"), "bbb");
  EXPECT_EQ(kept_names(145), std::vector<std::string>({"a.zip", "b.zip", "c.zip"}));
  size_t files;
  uint64_t bytes;
  unsent_usage(145, &files, &bytes);
  EXPECT_EQ(files, 3u);
  EXPECT_EQ(bytes, 6u);
  unsent_delivered(unsent_files(145)[0]);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({"b.zip", "c.zip"}));
  EXPECT_TRUE(kept_names(146).empty());
}

// The spool is in /tmp; the directory may be on flash: a copy, whole
// before it has its name, with its time of writing.
TEST(Unsent, KeepsAcrossFileSystems) {
  ASSERT_EQ(mkdir("/tmp/flash", 0755), 0);
  ASSERT_EQ(mount("qzflash", "/tmp/flash", "tmpfs", 0, "size=1m"), 0);
  load_test_config({{"fh_unsent_dir", "\"/tmp/flash/unsent\""}});
  const std::string z = spool_file("z.zip", std::string(40000, 'z'), 5);
  ASSERT_EQ(unsent_keep(146, z.c_str()), 0);
  EXPECT_NE(access(z.c_str(), F_OK), 0);
  const std::vector<unsent_file> kept = unsent_files(146);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(read_file(kept[0].path), std::string(40000, 'z'));
  EXPECT_EQ(kept[0].written_ns, (1700000000LL + 5) * 1000000000);
  // A copy cut short by a stop is never listed, and goes.
  ASSERT_TRUE(write_file("/tmp/flash/unsent/146/y.zip.part", "half"));
  EXPECT_EQ(kept_names(146), std::vector<std::string>({"z.zip"}));
  EXPECT_NE(access("/tmp/flash/unsent/146/y.zip.part", F_OK), 0);
  // A file that cannot be kept stays where it was.
  const std::string big = spool_file("big.zip", std::string(2 << 20, 'b'), 6);
  EXPECT_EQ(unsent_keep(146, big.c_str()), -1);
  EXPECT_EQ(access(big.c_str(), F_OK), 0);
  EXPECT_EQ(kept_names(146), std::vector<std::string>({"z.zip"}));
  umount("/tmp/flash");
}

TEST(Unsent, OldestDeletedBeyondTheBounds) {
  debug_mode_on();
  load_test_config({{"fh_unsent_dir", "\"/tmp/keep\""}});
  output_capture err(STDERR_FILENO);
  for (int i = 0; i < static_cast<int>(UNSENT_MAX_FILES) + 2; i++) {
    const std::string p = spool_file("f" + std::to_string(100 + i) + ".zip", "x", i);
    ASSERT_EQ(unsent_keep(144, p.c_str()), 0);
  }
  std::vector<std::string> names = kept_names(144);
  ASSERT_EQ(names.size(), UNSENT_MAX_FILES);
  EXPECT_EQ(names.front(), "f102.zip");
  const std::string text = err.text();
  EXPECT_NE(text.find("WARN:more than 64 files or 16 MiB kept for group 144: f100.zip deleted\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("f101.zip deleted"), std::string::npos);
  EXPECT_EQ(text.find("f102.zip deleted"), std::string::npos);

  const std::string big(6 << 20, 'b');
  for (int i = 0; i < 3; i++) {
    const std::string p = spool_file("g" + std::to_string(i) + ".zip", big, 100 + i);
    ASSERT_EQ(unsent_keep(145, p.c_str()), 0);
  }
  EXPECT_EQ(kept_names(145), std::vector<std::string>({"g1.zip", "g2.zip"}));
}

// After its own upload a group sends at most four kept files, oldest first,
// each deleted once sent; a failure leaves the rest for the next cycle.
TEST(Unsent, ResentOldestFirstAtMostFourACycle) {
  load_test_config({{"fh_unsent_dir", "\"/tmp/resend\""}});
  for (int i = 0; i < 6; i++)
    ASSERT_EQ(unsent_keep(145, spool_file("k" + std::to_string(i) + ".zip", "k", 6 - i).c_str()),
              0);
  fake_runner run;
  upload_counters counters{};
  unsent_resend(&counters, 145, spool_dir_of(145));
  ASSERT_EQ(run.commands.size(), 4u);
  for (int i = 0; i < 4; i++) {
    const std::string start = "wput -t 2 /tmp/resend/145/k" + std::to_string(5 - i) + ".zip ftp://";
    EXPECT_EQ(run.commands[i].rfind(start, 0), 0u) << run.commands[i];
  }
  EXPECT_NE(run.commands[0].find("@127.0.0.1:2121//tmp/145 -B -q"), std::string::npos);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({"k1.zip", "k0.zip"}));
  EXPECT_EQ(counters.uploads_ok, 4u);

  run.commands.clear();
  run.answer("wput", "", 1 << 8);
  unsent_resend(&counters, 145, spool_dir_of(145));
  EXPECT_EQ(run.commands.size(), 1u);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({"k1.zip", "k0.zip"}));
  EXPECT_EQ(counters.uploads_failed, 1u);
  EXPECT_EQ(counters.last_upload_status, 1);
}

TEST(Unsent, OffWithoutTheKey) {
  load_test_config();
  EXPECT_FALSE(unsent_enabled());
}

}  // namespace
