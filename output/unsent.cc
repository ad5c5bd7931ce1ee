#include "output/unsent.h"

#include <dirent.h>
#include <limits.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "config/config.h"
#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/unique_fd.h"
#include "output/dir_listing.h"
#include "output/names.h"
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

// The configured directory, without trailing slashes.
bool store_base(char *base, size_t size) {
  const char *dir = qz2fh_get_unsent_dir();
  if (!dir)
    return false;
  size_t len = strlen(dir);
  while (len > 1 && dir[len - 1] == '/')
    len--;
  return fits(snprintf(base, size, "%.*s", static_cast<int>(len), dir), size);
}

// Where path leads: realpath of its longest existing part, the rest
// appended as written.
bool resolve(const char *path, char *out, size_t size) {
  char head[UNSENT_PATH_SIZE];
  if (!fits(snprintf(head, sizeof(head), "%s", path), sizeof(head)))
    return false;
  for (size_t cut = strlen(head);;) {
    const char saved = head[cut];
    head[cut] = '\0';
    char real[PATH_MAX];
    const bool found = realpath(cut ? head : "/", real);
    head[cut] = saved;
    if (found)
      return fits(snprintf(out, size, "%s%s", strcmp(real, "/") == 0 && head[cut] ? "" : real,
                           head + cut),
                  size);
    if (errno != ENOENT || cut == 0)
      return false;
    while (cut > 0 && head[--cut] != '/') {
    }
  }
}

bool inside(const char *path, const char *dir) {
  const size_t n = strlen(dir);
  return strncmp(path, dir, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

// The store's directory must be the daemon's own, and never lead into the
// spool: it is made (with its missing parents) when absent, and anything
// else found there is refused, never changed, since the daemon did not
// make it. Null when usable, else the reason, in why.
const char *store_refusal(const char *base, char *why, size_t size) {
  char real[UNSENT_PATH_SIZE], spool[UNSENT_PATH_SIZE];
  if (!resolve(base, real, sizeof(real))) {
    snprintf(why, size, "cannot be resolved: %s", strerror(errno));
    return why;
  }
  bool leads_into = resolve("/tmp", spool, sizeof(spool)) && strcmp(real, spool) == 0;
  for (const char *dir : {"/tmp/144", "/tmp/145", "/tmp/146"})
    leads_into = leads_into || (resolve(dir, spool, sizeof(spool)) && inside(real, spool));
  if (leads_into) {
    snprintf(why, size, "leads to %s, inside /tmp", real);
    return why;
  }
  struct stat st;
  if (stat(base, &st) != 0) {
    if (errno != ENOENT) {
      snprintf(why, size, "cannot be checked: %s", strerror(errno));
      return why;
    }
    char prefix[UNSENT_PATH_SIZE];
    const size_t len = strlen(base);
    for (size_t i = 1; i <= len; i++) {
      if (i < len && base[i] != '/')
        continue;
      memcpy(prefix, base, i);
      prefix[i] = '\0';
      if (mkdir(prefix, i == len ? 0700 : 0755) != 0 && errno != EEXIST) {
        snprintf(why, size, "cannot be made: %s", strerror(errno));
        return why;
      }
    }
    if (stat(base, &st) != 0) {
      snprintf(why, size, "cannot be made: %s", strerror(errno));
      return why;
    }
  }
  if (!S_ISDIR(st.st_mode))
    snprintf(why, size, "not a directory");
  else if (st.st_uid != geteuid())
    snprintf(why, size, "owned by uid %lu, not by this daemon", static_cast<unsigned long>(st.st_uid));
  else if ((st.st_mode & 07777) != 0700)
    snprintf(why, size, "mode %04o, not 0700", static_cast<unsigned>(st.st_mode & 07777));
  else
    return nullptr;
  return why;
}

// The group's directory in a usable store, made when absent; group
// directories are the daemon's alone (see trusted_dir_ensure).
bool group_dir_ready(const char *dir) {
  char base[UNSENT_PATH_SIZE], why[UNSENT_PATH_SIZE + 64];
  if (!store_base(base, sizeof(base)))
    return false;
  if (store_refusal(base, why, sizeof(why))) {
    log_msg_as("unsent_keep", ERROR, "fh_unsent_dir %s: %s, refused\n", qz2fh_get_unsent_dir(), why);
    return false;
  }
  return trusted_dir_ensure(dir, false) != trusted_dir_result::failed;
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

// What the store did beyond keeping, per group, and the groups that use
// it (those prepared at start-up).
struct store_group {
  uint32_t id;
  unsent_counters counts;
};
store_group store_groups[4];
int store_group_count;

unsent_counters *counts_of(uint32_t id) {
  for (int i = 0; i < store_group_count; i++)
    if (store_groups[i].id == id)
      return &store_groups[i].counts;
  if (store_group_count == static_cast<int>(std::size(store_groups)))
    return nullptr;
  store_groups[store_group_count] = store_group{id, {}};
  return &store_groups[store_group_count++].counts;
}

void delete_kept(uint32_t id, const unsent_file &f) {
  unlink(f.path);
  if (unsent_counters *c = counts_of(id))
    c->deleted++;
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
    delete_kept(id, f);
    count--;
    bytes -= f.size;
  }
}

// Bytes the store's file system would have free once a file of size bytes
// is in, against the quarter of its size that must stay free.
bool room_for(const char *dir, uint64_t size, bool same_fs) {
  struct statvfs vfs;
  if (statvfs(dir, &vfs) != 0)
    return true;  // nothing to judge by: the copy itself will tell
  const uint64_t unit = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  const uint64_t total = static_cast<uint64_t>(vfs.f_blocks) * unit;
  const uint64_t avail = static_cast<uint64_t>(vfs.f_bavail) * unit;
  const uint64_t need = same_fs ? 0 : size + unit;  // its last block, at most
  return avail >= need && avail - need >= total / 4;
}

// Makes room for a file of size bytes: the oldest kept files of any group
// go first, each with a WARN line, until the store's file system keeps a
// quarter of its size free with the file in. False when even an empty
// store has no such room.
bool make_room(const char *dir, uint64_t size, bool same_fs) {
  while (!room_for(dir, size, same_fs)) {
    const unsent_file *oldest = nullptr;
    uint32_t oldest_id = 0;
    std::vector<unsent_file> files[std::size(store_groups)];
    for (int i = 0; i < store_group_count; i++) {
      files[i] = unsent_files(store_groups[i].id);
      if (!files[i].empty() && (!oldest || older(files[i][0], *oldest))) {
        oldest = &files[i][0];
        oldest_id = store_groups[i].id;
      }
    }
    if (!oldest)
      return false;
    log_msg_as("unsent_keep", WARN,
               "the store's file system would keep less than a quarter free: %s deleted\n",
               oldest->name());
    delete_kept(oldest_id, *oldest);
  }
  return true;
}

// A name in dir for name that no kept file has: its own, or with ".<n>"
// after it (never seen by the platform, whose remote name is the spool's).
bool free_name(const char *dir, const char *name, char *dst, size_t size) {
  for (int k = 0; k < 100; k++) {
    char kept[NAME_SIZE];
    struct stat st;
    if (!name_kept(kept, sizeof(kept), name, k) || !name_path(dst, size, dir, kept))
      return false;
    if (lstat(dst, &st) != 0 && errno == ENOENT)
      return true;
  }
  errno = EEXIST;
  return false;
}

// Moves path to the free name dst (across file systems by a copy).
bool move_in(const char *path, const char *dst) {
  if (rename(path, dst) == 0)
    return true;
  // The spool is in /tmp; the store may be on flash.
  if (errno != EXDEV || !copy_file(path, dst))
    return false;
  unlink(path);
  return true;
}

}  // namespace

bool unsent_enabled() { return qz2fh_get_unsent_dir() != nullptr; }

bool unsent_own_name(uint32_t id, const char *name) { return name_is_own(id, name, true); }

int unsent_store_open() {
  char base[UNSENT_PATH_SIZE], why[UNSENT_PATH_SIZE + 64];
  if (!store_base(base, sizeof(base)))
    return 0;
  if (store_refusal(base, why, sizeof(why))) {
    log_msg(ERROR, "fh_unsent_dir %s: %s, refused\n", qz2fh_get_unsent_dir(), why);
    return -1;
  }
  return 0;
}

int unsent_prepare(uint32_t id) {
  char dir[UNSENT_PATH_SIZE];
  counts_of(id);
  if (!unsent_dir_of(id, dir, sizeof(dir)))
    return -1;
  return group_dir_ready(dir) ? 0 : -1;
}

bool unsent_dir_of(uint32_t id, char *dir, size_t size) {
  char base[UNSENT_PATH_SIZE];
  return store_base(base, sizeof(base)) &&
         fits(snprintf(dir, size, "%s/%d", base, static_cast<int>(id)), size);
}

int unsent_keep(uint32_t id, const char *path) {
  char dir[UNSENT_PATH_SIZE], dst[UNSENT_PATH_SIZE];
  const char *slash = strrchr(path, '/');
  const char *name = slash ? slash + 1 : path;
  const char *why = nullptr;
  struct stat st, dst_st;
  if (!unsent_own_name(id, name))
    why = "not a name of the daemon's own files";
  else if (!unsent_dir_of(id, dir, sizeof(dir)) || !group_dir_ready(dir))
    why = "the store cannot be used";
  else if (lstat(path, &st) != 0 || stat(dir, &dst_st) != 0)
    why = strerror(errno);
  else if (!make_room(dir, static_cast<uint64_t>(st.st_size), st.st_dev == dst_st.st_dev))
    why = "the store's file system would keep less than a quarter of its size free";
  else if (!free_name(dir, name, dst, sizeof(dst)) || !move_in(path, dst))
    why = strerror(errno);
  if (why) {
    // Dropped: what is not kept must not stay behind in the spool either.
    unlink(path);
    if (unsent_counters *c = counts_of(id))
      c->dropped++;
    log_msg_as("unsent_keep", ERROR, "%s not kept: %s\n", name, why);
    return -1;
  }
  enforce_bounds(id);
  return 0;
}

const unsent_counters &unsent_counts(uint32_t id) {
  static const unsent_counters none{};
  const unsent_counters *c = counts_of(id);
  return c ? *c : none;
}

void unsent_keep_leftovers(uint32_t id, const spool_dir &dir) {
  if (!unsent_enabled())
    return;
  const dir_listing names(dir.path);
  for (int i = 0; i < names.size(); i++) {
    char path[UNSENT_PATH_SIZE];
    if (!name_is_own(id, names.name(i), false) ||
        !name_path(path, sizeof(path), dir.path, names.name(i)))
      continue;
    if (unsent_keep(id, path) == 0)
      log_msg(DEBUG, "%s left by the last run: kept to be sent\n", names.name(i));
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
    if (!name_path(f.path, sizeof(f.path), dir, e->d_name))
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

