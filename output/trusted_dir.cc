#include "output/trusted_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/unique_fd.h"

namespace {

constexpr size_t ASIDE_SIZE = 512;

bool own_dir(const struct stat &st) {
  return S_ISDIR(st.st_mode) && st.st_uid == geteuid();
}

}  // namespace

bool trusted_dir_own_file(const struct stat &st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

FILE *trusted_dir_open_append(const char *path) {
  // O_NONBLOCK: a FIFO planted at the name cannot hold the daemon up.
  unique_fd fd(open(path, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0)
    return nullptr;
  if (!trusted_dir_own_file(st)) {
    errno = EPERM;
    return nullptr;
  }
  FILE *fp = fdopen(fd.get(), "a+");
  if (fp)
    fd.release();
  return fp;
}

trusted_dir_result trusted_dir_ensure(const char *path, bool warn_missing) {
  struct stat st;
  trusted_dir_result made = trusted_dir_result::made;
  if (lstat(path, &st) == 0) {
    if (own_dir(st)) {
      if ((st.st_mode & 07777) == 0700)
        return trusted_dir_result::ok;
      if (chmod(path, 0700) == 0)
        return trusted_dir_result::ok;
      log_msg(ERROR, "cannot make %s private: %s\n", path, strerror(errno));
      return trusted_dir_result::failed;
    }
    char aside[ASIDE_SIZE];
    if (!fixed_file_move_aside(path, aside, sizeof(aside))) {
      log_msg(ERROR, "%s is not the daemon's own directory and cannot be moved aside: %s\n", path,
              strerror(errno));
      return trusted_dir_result::failed;
    }
    log_msg(ERROR, "%s is not the daemon's own directory: moved aside to %s\n", path, aside);
    made = trusted_dir_result::replaced;
  } else if (errno != ENOENT) {
    log_msg(ERROR, "cannot check %s: %s\n", path, strerror(errno));
    return trusted_dir_result::failed;
  } else if (warn_missing) {
    log_msg(WARN, "%s had gone: made again\n", path);
  }
  if (mkdir(path, 0700) != 0 && errno != EEXIST) {
    log_msg(ERROR, "cannot make %s: %s\n", path, strerror(errno));
    return trusted_dir_result::failed;
  }
  // Made by us, or by someone racing us: checked like any other.
  if (lstat(path, &st) != 0 || !own_dir(st) || ((st.st_mode & 07777) != 0700 && chmod(path, 0700) != 0)) {
    log_msg(ERROR, "%s is not the daemon's own directory after making it\n", path);
    return trusted_dir_result::failed;
  }
  return made;
}
