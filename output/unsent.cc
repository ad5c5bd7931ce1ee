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
#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/unique_fd.h"
#include "output/dir_listing.h"
#include "output/trusted_dir.h"

namespace {

// A copy under this suffix is not yet whole: never listed, and removed when
// found (a stop in the middle of a copy).
constexpr char PART_SUFFIX[] = ".part";

bool ends_with(const char *s, const char *suffix) {
  const size_t n = strlen(s), m = strlen(suffix);
  return n >= m && strcmp(s + n - m, suffix) == 0;
}

bool fits(int n, size_t size) { return n >= 0 && static_cast<size_t>(n) < size; }

// mkdir -p for the configured directory's parents; the directory and the
// group's below it must be the daemon's own (see trusted_dir_ensure).
bool make_dirs(const char *path) {
  char prefix[UNSENT_PATH_SIZE];
  const size_t len = strlen(path);
  const char *group = strrchr(path, '/');
  if (len >= sizeof(prefix) || !group || group == path)
    return false;
  const size_t base_len = static_cast<size_t>(group - path);
  for (size_t i = 1; i < base_len; i++) {
    if (path[i] != '/')
      continue;
    memcpy(prefix, path, i);
    prefix[i] = '\0';
    if (mkdir(prefix, 0755) != 0 && errno != EEXIST)
      return false;
  }
  memcpy(prefix, path, base_len);
  prefix[base_len] = '\0';
  return trusted_dir_ensure(prefix, false) != trusted_dir_result::failed &&
         trusted_dir_ensure(path, false) != trusted_dir_result::failed;
}

// One field of a name: what the configuration allows in a file name part.
const char *name_part(const char *s, char end) {
  const char *p = s;
  while ((*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z') || (*p >= '0' && *p <= '9') ||
         *p == '_' || *p == '.')
    p++;
  return p > s && p - s <= 64 && *p == end ? p + 1 : nullptr;
}

const char *digits(const char *s, char end, size_t min, size_t max) {
  const char *p = s;
  while (*p >= '0' && *p <= '9')
    p++;
  const size_t n = static_cast<size_t>(p - s);
  return n >= min && n <= max && *p == end ? p + 1 : nullptr;
}

const char *literal(const char *s, const char *text) {
  const size_t n = strlen(text);
  return s && strncmp(s, text, n) == 0 ? s + n : nullptr;
}

// Copies src to dst through dst.part, keeping the time of writing, which
// orders the kept files.
bool copy_file(const char *src, const char *dst) {
  char part[UNSENT_PATH_SIZE + sizeof(PART_SUFFIX)];
  snprintf(part, sizeof(part), "%s%s", dst, PART_SUFFIX);
  unique_fd in(open(src, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!in || fstat(in.get(), &st) != 0)
    return false;
  unlink(part);
  unique_fd out(open(part, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
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
    if (!fixed_file_write_all(out.get(), buf, static_cast<size_t>(n))) {
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
    // The newest file stays, however large.
    if (count <= 1 || (count <= UNSENT_MAX_FILES && bytes <= UNSENT_MAX_BYTES))
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

bool unsent_own_name(uint32_t id, const char *name) {
  char head[16];
  if (id == QZ2FH_STATUS_DIR_ID) {
    // 145-<source>-<time>-<sequence>-DEVICESTATUS-0.bjson
    const char *p = name_part(literal(name, "145-") ? name + 4 : "", '-');
    p = p ? digits(p, '-', 1, 20) : nullptr;
    p = p ? digits(p, '-', 1, 10) : nullptr;
    p = literal(p, "DEVICESTATUS-0.bjson");
    return p && *p == '\0';
  }
  // <id>-<org>-<source>-<destination>-<time>-<sequence>.zip
  snprintf(head, sizeof(head), "%d-", static_cast<int>(id));
  const char *p = literal(name, head);
  for (int i = 0; p && i < 3; i++)
    p = name_part(p, '-');
  p = p ? digits(p, '-', 1, 20) : nullptr;
  p = p ? digits(p, '.', 5, 5) : nullptr;
  p = literal(p, "zip");
  return p && *p == '\0';
}

int unsent_prepare(uint32_t id) {
  char dir[UNSENT_PATH_SIZE];
  if (!unsent_dir_of(id, dir, sizeof(dir)))
    return -1;
  return make_dirs(dir) ? 0 : -1;
}

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
  if (!unsent_own_name(id, slash ? slash + 1 : path) || !unsent_dir_of(id, dir, sizeof(dir)) ||
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

void unsent_keep_leftovers(uint32_t id, const spool_dir &dir, const char *suffix) {
  if (!unsent_enabled())
    return;
  const dir_listing names(dir.path);
  for (int i = 0; i < names.size(); i++) {
    char path[UNSENT_PATH_SIZE];
    if (!ends_with(names.name(i), suffix) || !unsent_own_name(id, names.name(i)) ||
        !fits(snprintf(path, sizeof(path), "%s/%s", dir.path, names.name(i)), sizeof(path)))
      continue;
    log_msg(DEBUG, "%s left by the last run: kept to be sent\n", names.name(i));
    unsent_keep(id, path);
  }
}

std::vector<unsent_file> unsent_files(uint32_t id) {
  std::vector<unsent_file> files;
  char dir[UNSENT_PATH_SIZE];
  if (!unsent_dir_of(id, dir, sizeof(dir)) || !make_dirs(dir))
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
    if (lstat(f.path, &st) != 0 || !trusted_dir_own_file(st))
      continue;
    char stem[UNSENT_PATH_SIZE];
    const size_t len = strlen(e->d_name), part_len = sizeof(PART_SUFFIX) - 1;
    if (ends_with(e->d_name, PART_SUFFIX) && len - part_len < sizeof(stem)) {
      // A copy a stop cut short.
      snprintf(stem, sizeof(stem), "%.*s", static_cast<int>(len - part_len), e->d_name);
      if (unsent_own_name(id, stem))
        unlink(f.path);
      continue;
    }
    if (!unsent_own_name(id, e->d_name))
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

bool upload_and_count(upload_counters *counters, uint32_t id, const spool_dir &dir,
                      const char *path, const upload_log &log) {
  const int status = qz2fh_send_file(path, dir);
  log_msg_as(log.func, DEBUG, "%s :%s\n", log.label, log.shown);
  return upload_done(counters, id, path, status);
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
