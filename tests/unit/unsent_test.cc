#include "output/unsent.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/log.h"
#include "frame/eloop.h"
#include "output/spool.h"
#include "output/upload.h"
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

// A zip name of the group's, numbered n.
std::string zname(uint32_t id, int n) {
  char name[64];
  snprintf(name, sizeof(name), "%d-507183926-350100-350000-1700000000-%05d.zip", static_cast<int>(id), n);
  return name;
}

std::vector<std::string> kept_names(uint32_t id) {
  std::vector<std::string> names;
  for (const unsent_file &f : unsent_files(id))
    names.push_back(f.name());
  return names;
}

// The spool is in /tmp, the store may be on flash: a copy, whole before it
// has its name, with its time of writing. The store's file system keeps a
// quarter free: the oldest kept files of any group make room first; a file
// that still does not fit is dropped, counted and logged.
TEST(Unsent, RoomIsMadeOnTheStoresFileSystemOrTheFileIsDropped) {
  debug_mode_on();
  mkdir("/tmp/flash", 0755);
  ASSERT_EQ(mount("qzflash", "/tmp/flash", "tmpfs", 0, "size=1m"), 0);
  load_test_config({{"fh_unsent_dir", "\"/tmp/flash/unsent\""}});
  ASSERT_EQ(unsent_prepare(145), 0);
  ASSERT_EQ(unsent_prepare(146), 0);
  const std::string third(300 << 10, 't');
  ASSERT_EQ(unsent_keep(146, spool_file(zname(146, 1), third, 1).c_str()), 0);
  ASSERT_EQ(unsent_keep(145, spool_file(zname(145, 2), third, 2).c_str()), 0);
  EXPECT_EQ(unsent_files(145)[0].written_ns, (1700000000LL + 2) * 1000000000);
  EXPECT_EQ(read_file("/tmp/flash/unsent/145/" + zname(145, 2)), third);
  // A copy cut short by a stop is never listed, and goes.
  const std::string part = "/tmp/flash/unsent/145/" + zname(145, 0) + ".part";
  ASSERT_TRUE(write_file(part, "half"));
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 2)}));
  EXPECT_NE(access(part.c_str(), F_OK), 0);
  output_capture err(STDERR_FILENO);
  ASSERT_EQ(unsent_keep(145, spool_file(zname(145, 3), third, 3).c_str()), 0);
  EXPECT_TRUE(kept_names(146).empty());
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 2), zname(145, 3)}));
  EXPECT_EQ(unsent_counts(146).deleted, 1u);
  const std::string big = spool_file(zname(146, 4), std::string(900 << 10, 'b'), 4);
  EXPECT_EQ(unsent_keep(146, big.c_str()), -1);
  EXPECT_NE(access(big.c_str(), F_OK), 0);
  EXPECT_EQ(unsent_counts(146).dropped, 1u);
  const std::string text = err.text();
  EXPECT_NE(text.find("WARN:the store's file system would keep less than a quarter free: " +
                      zname(146, 1) + " deleted\n"), std::string::npos) << text;
  EXPECT_NE(text.find("ERROR:" + zname(146, 4) + " not kept: the store's file system would keep "
                      "less than a quarter of its size free\n"), std::string::npos) << text;
  EXPECT_EQ(list_dir("/tmp/flash/unsent/146"), std::vector<std::string>());
  umount("/tmp/flash");
}

TEST(Unsent, OldestDeletedBeyondTheBounds) {
  debug_mode_on();
  load_test_config({{"fh_unsent_dir", "\"/tmp/bounds\""}});
  output_capture err(STDERR_FILENO);
  for (int i = 0; i < static_cast<int>(UNSENT_MAX_FILES) + 2; i++) {
    const std::string p = spool_file(zname(146, 100 + i), "x", i);
    ASSERT_EQ(unsent_keep(146, p.c_str()), 0);
  }
  std::vector<std::string> names = kept_names(146);
  ASSERT_EQ(names.size(), UNSENT_MAX_FILES);
  EXPECT_EQ(names.front(), zname(146, 102));
  const std::string text = err.text();
  EXPECT_NE(text.find("WARN:more than 64 files or 16 MiB kept for group 146: " + zname(146, 100) +
                      " deleted\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find(zname(146, 101) + " deleted"), std::string::npos);
  EXPECT_EQ(text.find(zname(146, 102) + " deleted"), std::string::npos);

  const std::string big(6 << 20, 'b');
  for (int i = 0; i < 3; i++) {
    const std::string p = spool_file(zname(145, i), big, 100 + i);
    ASSERT_EQ(unsent_keep(145, p.c_str()), 0);
  }
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 1), zname(145, 2)}));
  // A file larger than the bound on its own is kept, alone.
  const std::string huge = spool_file(zname(145, 9), std::string(17 << 20, 'h'), 200);
  ASSERT_EQ(unsent_keep(145, huge.c_str()), 0);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 9)}));
}

// The store's directory is the daemon's own or absent (then made): any
// other is refused as it is, whatever leads there.
TEST(Unsent, StoreDirectoryIsTheDaemonsOwnOrRefusedUntouched) {
  debug_mode_on();
  ASSERT_EQ(system("mkdir -p /tmp/wide /tmp/foreign /tmp/145/x && chmod 0755 /tmp/wide && "
                   "chmod 0700 /tmp/foreign && chown 65534 /tmp/foreign && echo f > /tmp/file && "
                   "ln -s /tmp /tmp/to_tmp && ln -s /tmp/145 /tmp/to_spool && mkdir -m 0700 /tmp/mine"),
            0);
  const struct {
    const char *dir, *refusal;  // null: usable
  } cases[] = {
      {"/tmp/wide", "mode 0755, not 0700"},
      {"/tmp/foreign", "owned by uid 65534, not by this daemon"},
      {"/tmp/file", "not a directory"},
      {"/tmp/to_tmp", "leads to /tmp, inside /tmp"},
      {"/tmp/to_spool/x/keep", "leads to /tmp/145/x/keep, inside /tmp"},
      {"/tmp/to_tmp/146", "leads to /tmp/146, inside /tmp"},
      {"/tmp/mine", nullptr},
      {"/tmp/new/store", nullptr},
  };
  for (const auto &c : cases) {
    load_test_config({{"fh_unsent_dir", std::string("\"") + c.dir + "\""}});
    output_capture err(STDERR_FILENO);
    EXPECT_EQ(unsent_store_open(), c.refusal ? -1 : 0) << c.dir;
    const std::string text = err.text();
    if (c.refusal) {
      EXPECT_NE(text.find(std::string("ERROR:fh_unsent_dir ") + c.dir + ": " + c.refusal +
                          ", refused\n"), std::string::npos) << text;
    }
  }
  struct stat st;
  ASSERT_EQ(stat("/tmp/wide", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  ASSERT_EQ(stat("/tmp/foreign", &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(read_file("/tmp/file"), "f\n");
  ASSERT_EQ(stat("/tmp/new", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  ASSERT_EQ(stat("/tmp/new/store", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

// Only the daemon's own names, in group directories of its own, are sent,
// counted or deleted; every name it makes is one of them.
TEST(Unsent, ForeignFilesAndDirectoriesAreLeftAlone) {
  load_test_config({{"fh_unsent_dir", "\"/tmp/own\""}});
  const std::string setup = "mkdir -p -m 0700 /tmp/own && mkdir /tmp/secret && echo s > /tmp/secret/" +
                            zname(145, 1) + " && ln -s /tmp/secret /tmp/own/145";
  ASSERT_EQ(system(setup.c_str()), 0);
  // A linked group directory is moved aside.
  EXPECT_EQ(unsent_prepare(145), 0);
  struct stat st;
  ASSERT_EQ(lstat("/tmp/own/145", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode) && (st.st_mode & 07777) == 0700);
  EXPECT_TRUE(kept_names(145).empty());
  EXPECT_EQ(read_file("/tmp/secret/" + zname(145, 1)), "s\n");
  // In a store of its own: other names, links and shared files stay unsent.
  ASSERT_EQ(symlink(("/tmp/secret/" + zname(145, 1)).c_str(), ("/tmp/own/145/" + zname(145, 2)).c_str()), 0);
  ASSERT_EQ(link(("/tmp/secret/" + zname(145, 1)).c_str(), ("/tmp/own/145/" + zname(145, 3)).c_str()), 0);
  ASSERT_TRUE(write_file("/tmp/own/145/notes.zip", "n"));
  ASSERT_TRUE(write_file("/tmp/own/145/" + zname(146, 4), "other group"));
  ASSERT_TRUE(write_file("/tmp/own/145/" + zname(145, 5), "mine"));
  ASSERT_TRUE(write_file("/tmp/own/145/notes.zip.part", "n"));
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 5)}));
  EXPECT_EQ(access("/tmp/own/145/notes.zip.part", F_OK), 0);
  // A second file of a kept name (sequence numbers restart with the
  // daemon) is kept beside it, never over it.
  ASSERT_EQ(unsent_keep(145, spool_file(zname(145, 5), "again", 9).c_str()), 0);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 5) + ".1", zname(145, 5)}));
  EXPECT_EQ(read_file("/tmp/own/145/" + zname(145, 5)), "mine");
  for (const char *good : {"145-350100-1700000000-3-DEVICESTATUS-0.bjson", "145--1-3-DEVICESTATUS-0.bjson",
                           "145--1-3-DEVICESTATUS-0.bjson.12"})
    EXPECT_TRUE(unsent_own_name(144, good)) << good;
  for (const char *bad : {"145-350100-1700000000-3-DEVICESTATUS-0.bjson.x", "145--1-3-DEVICESTATUS-0.bjson.123",
                          "146-350100-1700000000-3-DEVICESTATUS-0.bjson"})
    EXPECT_FALSE(unsent_own_name(144, bad)) << bad;
  EXPECT_TRUE(unsent_own_name(145, "145-507183926---1700000000-00001.zip"));
  for (const char *bad : {"145-507183926-350100-350000-1700000000-0001.zip",
                          "145-507183926-350100-1700000000-00001.zip", "145-a/b-350100-350000-1-00001.zip",
                          "1450-507183926-350100-350000-1-00001.zip", "145-507183926---1-00001.zip."})
    EXPECT_FALSE(unsent_own_name(145, bad)) << bad;
}

// After its own upload a group sends at most four kept files, oldest first,
// each deleted once sent; a failure leaves the rest for the next cycle.
TEST(Unsent, ResentOldestFirstAtMostFourACycle) {
  load_test_config({{"fh_unsent_dir", "\"/tmp/resend\""}});
  for (int i = 0; i < 6; i++)
    ASSERT_EQ(unsent_keep(145, spool_file(zname(145, i), "k", 6 - i).c_str()), 0);
  fake_runner run;
  upload_counters counters{};
  int ended = 0;
  upload_tail tail{};
  tail.id = 145;
  tail.spool = spool_dir_of(145);
  tail.counters = &counters;
  tail.owner = &ended;
  tail.ended = [](upload_tail *t) { ++*static_cast<int *>(t->owner); };
  eloop_init();
  upload_resend(&tail);
  finish_commands();
  ASSERT_EQ(run.commands.size(), 4u);
  for (int i = 0; i < 4; i++) {
    const std::string start = "wput -t 2 /tmp/resend/145/" + zname(145, 5 - i) + " ftp://";
    EXPECT_EQ(run.commands[i].rfind(start, 0), 0u) << run.commands[i];
  }
  EXPECT_NE(run.commands[0].find("@127.0.0.1:2121//tmp/145 -B -q"), std::string::npos);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 1), zname(145, 0)}));
  EXPECT_EQ(counters.uploads_ok, 4u);

  run.commands.clear();
  run.answer("wput", "", 1 << 8);
  upload_resend(&tail);
  finish_commands();
  EXPECT_EQ(ended, 2);
  EXPECT_EQ(run.commands.size(), 1u);
  EXPECT_EQ(kept_names(145), std::vector<std::string>({zname(145, 1), zname(145, 0)}));
  EXPECT_EQ(counters.uploads_failed, 1u);
  EXPECT_EQ(counters.last_upload_status, 1);
}

}  // namespace
