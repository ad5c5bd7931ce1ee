#include "frame/fixed_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "frame/log.h"
#include "frame/unique_fd.h"

bool fixed_file_move_aside(const char *path, char *aside, size_t size) {
  const unsigned long long now = static_cast<unsigned long long>(time(nullptr));
  for (int k = 0; k < 10; k++) {
    const int n = k == 0 ? snprintf(aside, size, "%s.untrusted.%llu", path, now)
                         : snprintf(aside, size, "%s.untrusted.%llu.%d", path, now, k);
    if (n < 0 || static_cast<size_t>(n) >= size) {
      errno = ENAMETOOLONG;
      return false;
    }
    struct stat st;
    if (lstat(aside, &st) == 0)
      continue;
    return rename(path, aside) == 0;
  }
  errno = EEXIST;
  return false;
}

int fixed_file_clear_foreign(const char *path, const char *what, mode_t type) {
  struct stat st;
  if (lstat(path, &st) != 0 ||
      (st.st_uid == geteuid() && (type == 0 || (st.st_mode & S_IFMT) == type)))
    return 0;
  char aside[512];
  if (!fixed_file_move_aside(path, aside, sizeof(aside))) {
    log_msg(ERROR, "%s is not the daemon's own %s and cannot be moved aside: %s\n", path, what,
            strerror(errno));
    return -1;
  }
  log_msg(ERROR, "%s is not the daemon's own %s: moved aside to %s\n", path, what, aside);
  return 1;
}

int fixed_file_open_lock(const char *path) {
  // O_NONBLOCK: a FIFO planted there would otherwise hold the open until
  // a writer comes; O_NOCTTY: nor may a terminal become ours.
  unique_fd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
  if (!fd)
    return -1;
  struct stat st;
  if (fstat(fd.get(), &st) != 0)
    return -1;
  // A hard link to another file, or a file that another account made,
  // would let that account hold or share our lock.
  if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
    errno = EPERM;
    return -1;
  }
  return fd.release();
}

namespace {

int create_new(const char *path, mode_t mode) {
  return open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
}

}  // namespace

int fixed_file_replace(const char *path, const char *data, size_t len, mode_t mode) {
  // Named after the pid: a daemon killed between the create and the rename
  // leaves one file, which the next one of that pid takes over, instead of
  // a new one per kill.
  char tmp[256];
  const int n = snprintf(tmp, sizeof(tmp), "%s.%ld.tmp", path, static_cast<long>(getpid()));
  if (n < 0 || static_cast<size_t>(n) >= sizeof(tmp)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  unique_fd fd(create_new(tmp, mode));
  if (!fd && errno == EEXIST && unlink(tmp) == 0)
    fd.reset(create_new(tmp, mode));
  if (!fd)
    return -1;
  bool done = fixed_file_write_all(fd.get(), data, len);
  if (close(fd.release()) != 0)
    done = false;
  if (done && rename(tmp, path) == 0)
    return 0;
  const int err = errno;
  unlink(tmp);
  errno = err;
  return -1;
}

bool fixed_file_write_all(int fd, const char *data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}
