// Files at fixed names in /tmp: whatever another account planted there is
// neither followed nor waited on.
#include "frame/fixed_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>

#include "tests/unit/test_support.h"

namespace {

constexpr char LOCK[] = "/tmp/lock";
constexpr char TARGET[] = "/tmp/target";
const std::string SECRET = "root only\n";

bool exists(const char *path) {
  struct stat st;
  return lstat(path, &st) == 0;
}

// What is at the lock's name before the daemon opens it, and whether the
// lock is then taken: what another account put there is moved aside first.
struct lock_case {
  const char *name;
  std::function<void()> plant;
  bool taken;
};

TEST(FixedFile, LockIsTakenOnlyOnAPlainFileOfOurOwn) {
  const lock_case cases[] = {
      {"nothing", [] {}, true},
      {"a file of ours", [] { ASSERT_TRUE(write_file(LOCK, "")); }, true},
      {"a link to a file", [] { ASSERT_EQ(symlink(TARGET, LOCK), 0); }, false},
      {"a dangling link", [] { ASSERT_EQ(symlink("/tmp/made_by_link", LOCK), 0); }, false},
      {"a FIFO", [] { ASSERT_EQ(mkfifo(LOCK, 0666), 0); }, false},
      {"a directory", [] { ASSERT_EQ(mkdir(LOCK, 0755), 0); }, false},
      {"a hard link", [] { ASSERT_EQ(link(TARGET, LOCK), 0); }, false},
      {"a file of another account",
       [] {
         ASSERT_TRUE(write_file(LOCK, ""));
         ASSERT_EQ(chown(LOCK, 65534, 65534), 0);
       },
       true},
      {"a link of another account",
       [] {
         ASSERT_EQ(symlink(TARGET, LOCK), 0);
         ASSERT_EQ(lchown(LOCK, 65534, 65534), 0);
       },
       true},
  };
  for (const lock_case &c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(write_file(TARGET, SECRET));
    ASSERT_EQ(chmod(TARGET, 0600), 0);
    c.plant();
    const auto start = std::chrono::steady_clock::now();
    const bool foreign = fixed_file_clear_foreign(LOCK, "lock file") == 1;
    EXPECT_EQ(foreign, system("ls /tmp/lock.untrusted.* >/dev/null 2>&1") == 0);
    const int fd = fixed_file_open_lock(LOCK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    if (c.taken) {
      ASSERT_GE(fd, 0);
      struct stat st;
      ASSERT_EQ(lstat(LOCK, &st), 0);
      EXPECT_TRUE(S_ISREG(st.st_mode));
      EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      close(fd);
    } else {
      EXPECT_EQ(fd, -1);
    }
    EXPECT_EQ(read_file(TARGET), SECRET);
    EXPECT_FALSE(exists("/tmp/made_by_link"));
    ASSERT_EQ(system("rm -rf /tmp/lock /tmp/lock.untrusted.* /tmp/target"), 0);
  }
  // At the socket's name only the daemon's own socket stays.
  ASSERT_EQ(mkdir(LOCK, 0700), 0);
  EXPECT_EQ(fixed_file_clear_foreign(LOCK, "socket", S_IFSOCK), 1);
  EXPECT_FALSE(exists(LOCK));
}

std::string temp_name(const char *path) {
  return std::string(path) + "." + std::to_string(getpid()) + ".tmp";
}

// What is planted at the file's own name, its old fixed temporary name and
// the temporary name of this process; the file is written all the same,
// and nothing planted is followed or waited on.
struct replace_case {
  const char *name;
  std::function<void(const std::string &path, const std::string &tmp)> plant;
};

TEST(FixedFile, ReplaceGoesThroughATemporaryFileOfItsOwn) {
  const std::string path = "/tmp/stats.json";
  const std::string tmp = temp_name(path.c_str());
  const replace_case cases[] = {
      {"nothing", [](auto &, auto &) {}},
      {"a link at the name", [](auto &p, auto &) { ASSERT_EQ(symlink(TARGET, p.c_str()), 0); }},
      {"a link at the old fixed name",
       [](auto &p, auto &) { ASSERT_EQ(symlink(TARGET, (p + ".tmp").c_str()), 0); }},
      {"a link at the temporary name",
       [](auto &, auto &t) { ASSERT_EQ(symlink(TARGET, t.c_str()), 0); }},
      {"a dangling link at the temporary name",
       [](auto &, auto &t) { ASSERT_EQ(symlink("/tmp/made_by_link", t.c_str()), 0); }},
      {"a FIFO at the temporary name",
       [](auto &, auto &t) { ASSERT_EQ(mkfifo(t.c_str(), 0666), 0); }},
      {"a FIFO at the name", [](auto &p, auto &) { ASSERT_EQ(mkfifo(p.c_str(), 0666), 0); }},
      {"a leftover of a killed run", [](auto &, auto &t) { ASSERT_TRUE(write_file(t, "{\"cut")); }},
  };
  for (const replace_case &c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(write_file(TARGET, SECRET));
    c.plant(path, tmp);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fixed_file_replace(path.c_str(), "{}\n", 3, 0644), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(read_file(path), "{}\n");
    EXPECT_EQ(read_file(TARGET), SECRET);
    EXPECT_FALSE(exists("/tmp/made_by_link"));
    EXPECT_FALSE(exists(tmp.c_str()));
    unlink(path.c_str());
    unlink((path + ".tmp").c_str());
    unlink(TARGET);
  }
}

}  // namespace
