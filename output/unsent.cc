#include "output/unsent.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config/config.h"
#include "frame/log.h"
#include "frame/unique_fd.h"

namespace {

// A copy under this suffix is not yet whole: never listed, and removed when
// found (a stop in the middle of a copy).
constexpr char PART_SUFFIX[] = ".part";

bool is_part(const std::string &name) {
  const size_t n = sizeof(PART_SUFFIX) - 1;
  return name.size() >= n && name.compare(name.size() - n, n, PART_SUFFIX) == 0;
}

// mkdir -p, for the configured directory and the group's below it.
bool make_dirs(const std::string &path) {
  for (size_t i = 1; i <= path.size(); i++) {
    if (i < path.size() && path[i] != '/')
      continue;
    const std::string prefix = path.substr(0, i);
    if (mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST)
      return false;
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool write_all(int fd, const char *buf, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, buf, len);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    buf += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// Copies src to dst through dst.part, keeping the time of writing, which
// orders the kept files.
bool copy_file(const char *src, const std::string &dst) {
  unique_fd in(open(src, O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (!in || fstat(in.get(), &st) != 0)
    return false;
  const std::string part = dst + PART_SUFFIX;
  unique_fd out(open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!out)
    return false;
  char buf[16 * 1024];
  bool ok = true;
  for (;;) {
    const ssize_t n = read(in.get(), buf, sizeof(buf));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      ok = false;
    if (n <= 0)
      break;
    if (!write_all(out.get(), buf, static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ok = ok && futimens(out.get(), times) == 0 && fsync(out.get()) == 0;
  out.reset();
  if (!ok || rename(part.c_str(), dst.c_str()) != 0) {
    unlink(part.c_str());
    return false;
  }
  return true;
}

// Deletes the oldest files while the group keeps more than its bounds.
void enforce_bounds(uint32_t id) {
  std::vector<unsent_file> files = unsent_files(id);
  uint64_t bytes = 0;
  for (const unsent_file &f : files)
    bytes += f.size;
  size_t count = files.size();
  for (const unsent_file &f : files) {
    if (count <= UNSENT_MAX_FILES && bytes <= UNSENT_MAX_BYTES)
      break;
    log_msg_as("unsent_keep", WARN, "more than %d files or %d MiB kept for group %d: %s deleted\n",
               static_cast<int>(UNSENT_MAX_FILES), static_cast<int>(UNSENT_MAX_BYTES >> 20),
               static_cast<int>(id), f.name.c_str());
    unlink(f.path.c_str());
    count--;
    bytes -= f.size;
  }
}

}  // namespace

bool unsent_enabled() { return qz2fh_get_unsent_dir() != nullptr; }

std::string unsent_dir_of(uint32_t id) {
  std::string dir = qz2fh_get_unsent_dir() ? qz2fh_get_unsent_dir() : "";
  while (!dir.empty() && dir.back() == '/')
    dir.pop_back();
  return dir + "/" + std::to_string(id);
}

int unsent_keep(uint32_t id, const char *path) {
  const std::string dir = unsent_dir_of(id);
  const char *slash = strrchr(path, '/');
  const std::string dst = dir + "/" + (slash ? slash + 1 : path);
  if (!make_dirs(dir)) {
    log_msg(ERROR, "cannot create %s: %s; %s not kept\n", dir.c_str(), strerror(errno), path);
    return -1;
  }
  if (rename(path, dst.c_str()) != 0) {
    // The spool is in /tmp; the unsent directory may be on flash.
    if (errno != EXDEV || !copy_file(path, dst)) {
      log_msg(ERROR, "cannot keep %s in %s: %s\n", path, dir.c_str(), strerror(errno));
      return -1;
    }
    unlink(path);
  }
  enforce_bounds(id);
  return 0;
}

std::vector<unsent_file> unsent_files(uint32_t id) {
  std::vector<unsent_file> files;
  const std::string dir = unsent_dir_of(id);
  DIR *d = opendir(dir.c_str());
  if (!d)
    return files;
  while (dirent *e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..")
      continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (is_part(name)) {
      unlink(path.c_str());
      continue;
    }
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
      continue;
    const int64_t written = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    files.push_back(unsent_file{path, name, static_cast<uint64_t>(st.st_size), written});
  }
  closedir(d);
  std::sort(files.begin(), files.end(), [](const unsent_file &a, const unsent_file &b) {
    return a.written_ns != b.written_ns ? a.written_ns < b.written_ns : a.name < b.name;
  });
  return files;
}

void unsent_keep_leftovers(uint32_t id, const spool_dir &dir, const char *suffix) {
  if (!unsent_enabled())
    return;
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.path)) {
    while (dirent *e = readdir(d)) {
      const std::string name = e->d_name;
      const size_t n = strlen(suffix);
      if (name.size() > n && name.compare(name.size() - n, n, suffix) == 0)
        names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) {
    const std::string path = std::string(dir.path) + "/" + name;
    log_msg(DEBUG, "%s left by the last run: kept to be sent\n", name.c_str());
    unsent_keep(id, path.c_str());
  }
}

void unsent_delivered(const unsent_file &file) { unlink(file.path.c_str()); }

void unsent_usage(uint32_t id, size_t *files, uint64_t *bytes) {
  *files = 0;
  *bytes = 0;
  for (const unsent_file &f : unsent_files(id)) {
    (*files)++;
    *bytes += f.size;
  }
}

bool upload_done(upload_counters *counters, uint32_t id, const char *path, int status) {
  counters->last_upload_status = status;
  if (status == 0) {
    counters->uploads_ok++;
    return true;
  }
  counters->uploads_failed++;
  if (unsent_enabled()) {
    const char *slash = strrchr(path, '/');
    log_msg(WARN, "upload of %s failed with status %d: kept to be sent again\n",
            slash ? slash + 1 : path, status);
    unsent_keep(id, path);
  }
  return false;
}

void unsent_resend(upload_counters *counters, uint32_t id, const spool_dir &dir) {
  if (!unsent_enabled())
    return;
  int sent = 0;
  for (const unsent_file &f : unsent_files(id)) {
    if (sent == UNSENT_RESEND_MAX)
      break;
    const int status = qz2fh_send_file(f.path.c_str(), dir);
    counters->last_upload_status = status;
    if (status != 0) {
      counters->uploads_failed++;
      log_msg(DEBUG, "kept file %s not sent again: status %d\n", f.name.c_str(), status);
      break;
    }
    counters->uploads_ok++;
    log_msg(DEBUG, "sent kept file :%s\n", f.name.c_str());
    unsent_delivered(f);
    sent++;
  }
}
