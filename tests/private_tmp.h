// For test, fuzz and benchmark programs: a private mount namespace with a
// fresh tmpfs on /tmp, so that the daemon's fixed paths there are the
// program's own. Needs root.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

// The working directory, when it lies under /tmp (a checkout there), stays
// reachable at its own path. False (with a message) on failure.
inline bool private_tmp(const char *tmpfs_options) {
  char cwd[PATH_MAX];
  const bool keep = getcwd(cwd, sizeof(cwd)) && strncmp(cwd, "/tmp/", 5) == 0;
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    perror("private mount namespace (needs root)");
    return false;
  }
  const int old = keep ? open(cwd, O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
  if (mount("tmpfs", "/tmp", "tmpfs", 0, tmpfs_options) != 0) {
    perror("tmpfs on /tmp");
    return false;
  }
  if (keep) {
    for (char *p = strchr(cwd + 1, '/');; p = strchr(p + 1, '/')) {
      if (p)
        *p = '\0';
      if (mkdir(cwd, 0755) != 0 && errno != EEXIST)
        perror(cwd);
      if (!p)
        break;
      *p = '/';
    }
    const std::string from = "/proc/self/fd/" + std::to_string(old);
    if (mount(from.c_str(), cwd, nullptr, MS_BIND | MS_REC, nullptr) != 0 || chdir(cwd) != 0) {
      perror("working directory under /tmp");
      return false;
    }
    close(old);
  }
  return true;
}
