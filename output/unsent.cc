#include "output/unsent.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "config/config.h"
#include "frame/log.h"
#include "frame/unique_fd.h"

namespace {

// A copy under this suffix is not yet whole: never listed, and removed when
// found (a stop in the middle of a copy).
constexpr char PART_SUFFIX[] = ".part";

bool ends_with(const char *s, const char *suffix) {
  const size_t n = strlen(s), m = strlen(suffix);
  return n >= m && strcmp(s + n - m, suffix) == 0;
}

bool fits(int n, size_t size) { return n >= 0 && static_cast<size_t>(n) < size; }

// mkdir -p, for the configured directory and the group's below it.
bool make_dirs(const char *path) {
  char prefix[UNSENT_PATH_SIZE];
  const size_t len = strlen(path);
  if (len >= sizeof(prefix))
    return false;
  for (size_t i = 1; i <= len; i++) {
    if (i < len && path[i] != '/')
      continue;
    memcpy(prefix, path, i);
    prefix[i] = '\0';
    if (mkdir(prefix, 0700) != 0 && errno != EEXIST)
      return false;
  }
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
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
bool copy_file(const char *src, const char *dst) {
  char part[UNSENT_PATH_SIZE + sizeof(PART_SUFFIX)];
  snprintf(part, sizeof(part), "%s%s", dst, PART_SUFFIX);
  unique_fd in(open(src, O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (!in || fstat(in.get(), &st) != 0)
    return false;
  unique_fd out(open(part, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
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
  if (!ok || rename(part, dst) != 0) {
    unlink(part);
    return false;
  }
  return true;
}

bool older(const unsent_file &x, const unsent_file &y) {
  if (x.written_ns != y.written_ns)
    return x.written_ns < y.written_ns;
  return strcmp(x.name(), y.name()) < 0;
}

// Deletes the oldest files while the group keeps more than its bounds.
void enforce_bounds(uint32_t id) {
  const std::vector<unsent_file> files = unsent_files(id);
  uint64_t bytes = 0;
  for (const unsent_file &f : files)
    bytes += f.size;
  size_t count = files.size();
  for (const unsent_file &f : files) {
    if (count <= UNSENT_MAX_FILES && bytes <= UNSENT_MAX_BYTES)
      break;
    log_msg_as("unsent_keep", WARN, "more than %d files or %d MiB kept for group %d: %s deleted\n",
               static_cast<int>(UNSENT_MAX_FILES), static_cast<int>(UNSENT_MAX_BYTES >> 20),
               static_cast<int>(id), f.name());
    unlink(f.path);
    count--;
    bytes -= f.size;
  }
}

}  // namespace

bool unsent_enabled() { return qz2fh_get_unsent_dir() != nullptr; }

bool unsent_dir_of(uint32_t id, char *dir, size_t size) {
  const char *base = qz2fh_get_unsent_dir();
  if (!base)
    return false;
  size_t len = strlen(base);
  while (len > 1 && base[len - 1] == '/')
    len--;
  return fits(snprintf(dir, size, "%.*s/%d", static_cast<int>(len), base, static_cast<int>(id)),
              size);
}

int unsent_keep(uint32_t id, const char *path) {
  char dir[UNSENT_PATH_SIZE], dst[UNSENT_PATH_SIZE];
  const char *slash = strrchr(path, '/');
  if (!unsent_dir_of(id, dir, sizeof(dir)) ||
      !fits(snprintf(dst, sizeof(dst), "%s/%s", dir, slash ? slash + 1 : path), sizeof(dst)))
    return -1;
  if (!make_dirs(dir)) {
    log_msg(ERROR, "cannot create %s: %s; %s not kept\n", dir, strerror(errno), path);
    return -1;
  }
  if (rename(path, dst) != 0) {
    // The spool is in /tmp; the unsent directory may be on flash.
    if (errno != EXDEV || !copy_file(path, dst)) {
      log_msg(ERROR, "cannot keep %s in %s: %s\n", path, dir, strerror(errno));
      return -1;
    }
    unlink(path);
  }
  enforce_bounds(id);
  return 0;
}

dir_listing::dir_listing(const char *dir) {
  count_ = scandir(dir, &names_, nullptr, alphasort);
  if (count_ < 0)
    count_ = 0;
  // "." and ".." sort first: drop them.
  int kept = 0;
  for (int i = 0; i < count_; i++) {
    const char *n = names_[i]->d_name;
    if (strcmp(n, ".") == 0 || strcmp(n, "..") == 0)
      free(names_[i]);
    else
      names_[kept++] = names_[i];
  }
  count_ = kept;
}

dir_listing::~dir_listing() {
  for (int i = 0; i < count_; i++)
    free(names_[i]);
  free(names_);
}

const char *dir_listing::name(int i) const { return names_[i]->d_name; }

void unsent_keep_leftovers(uint32_t id, const spool_dir &dir, const char *suffix) {
  if (!unsent_enabled())
    return;
  const dir_listing names(dir.path);
  for (int i = 0; i < names.size(); i++) {
    char path[UNSENT_PATH_SIZE];
    if (!ends_with(names.name(i), suffix) ||
        !fits(snprintf(path, sizeof(path), "%s/%s", dir.path, names.name(i)), sizeof(path)))
      continue;
    log_msg(DEBUG, "%s left by the last run: kept to be sent\n", names.name(i));
    unsent_keep(id, path);
  }
}

std::vector<unsent_file> unsent_files(uint32_t id) {
  std::vector<unsent_file> files;
  char dir[UNSENT_PATH_SIZE];
  if (!unsent_dir_of(id, dir, sizeof(dir)))
    return files;
  DIR *d = opendir(dir);
  if (!d)
    return files;
  while (dirent *e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
      continue;
    unsent_file f;
    const int n = snprintf(f.path, sizeof(f.path), "%s/%s", dir, e->d_name);
    if (!fits(n, sizeof(f.path)))
      continue;
    f.name_at = strlen(dir) + 1;
    struct stat st;
    if (ends_with(e->d_name, PART_SUFFIX)) {
      unlink(f.path);
      continue;
    }
    if (stat(f.path, &st) != 0 || !S_ISREG(st.st_mode))
      continue;
    f.size = static_cast<uint64_t>(st.st_size);
    f.written_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    files.push_back(f);
  }
  closedir(d);
  // Insertion sort: a few dozen files at most, and no sorting templates.
  for (size_t i = 1; i < files.size(); i++)
    for (size_t j = i; j > 0 && older(files[j], files[j - 1]); j--)
      std::swap(files[j], files[j - 1]);
  return files;
}

void unsent_delivered(const unsent_file &file) { unlink(file.path); }

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
    const int status = qz2fh_send_file(f.path, dir);
    counters->last_upload_status = status;
    if (status != 0) {
      counters->uploads_failed++;
      log_msg(DEBUG, "kept file %s not sent again: status %d\n", f.name(), status);
      break;
    }
    counters->uploads_ok++;
    log_msg(DEBUG, "sent kept file :%s\n", f.name());
    unsent_delivered(f);
    sent++;
  }
}
