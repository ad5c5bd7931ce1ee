#include "output/bcp_dataset.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "config/config.h"
#include "frame/log.h"
#include "frame/unique_fd.h"
#include "config/wtps.h"
#include "output/dir_listing.h"
#include "output/names.h"
#include "output/trusted_dir.h"
#include "output/unsent.h"

namespace {

bcp_group *groups[BCP_MAX_GROUPS];
int group_count;
bool unflushed;  // a line was written since the last flush

// The access points listed: one record each. A listing that could not be
// had is tried again on the next tick.
void scan_done(command_job *job, int status) {
  auto *ds = static_cast<bcp_dataset *>(job->owner);
  const bcp_dataset_decl *decl = ds->decl;
  report_result result = report_result::done;
  if (status < 0) {
    log_msg_as(decl->timer_name, DEBUG, "wum -c wtps fail\n");
    result = report_result::retry;
  } else if (wtps_parse(command_output(job), decl->timer_name, [decl](const char *mac) {
               decl->write_ap(mac);
               return true;
             }) == WTPS_CUT) {
    log_msg_as(decl->timer_name, DEBUG, "mac is null\n");
  }
  report_timer_end(&ds->timer, result);
}

// The periodic job of a dataset with a writer: its record, or one record
// per listed access point once the listing has been read.
report_result bcp_dataset_timer(void *arg) {
  auto *ds = static_cast<bcp_dataset *>(arg);
  const bcp_dataset_decl *decl = ds->decl;
  if (!decl->write_ap) {
    decl->write();
    return report_result::done;
  }
  ds->scan.owner = ds;
  if (command_start(&ds->scan, WTPS_COMMAND, COMMAND_PROBE, scan_done, WTPS_OUTPUT_MAX) != 0) {
    log_msg_as(decl->timer_name, DEBUG, "wum -c wtps fail\n");
    return report_result::retry;
  }
  return report_result::running;
}

void bcp_dataset_setup(bcp_dataset *ds, const bcp_dataset_decl *decl) {
  bcp_dataset_init(ds, decl->name, decl->index_template ? decl->index_template() : nullptr);
  ds->decl = decl;
  if (!decl->write && !decl->write_ap)
    return;
  report_timer_init(&ds->timer, bcp_dataset_timer, decl->period,
                    {ds->group->timer.order.owner, report_phase::records}, ds);
  report_timer_add(&ds->timer);
}

}  // namespace

int bcp_group_count() { return group_count; }

bcp_group *bcp_group_at(int index) { return groups[index]; }

void bcp_group_init(bcp_group *group, uint32_t id, const char *log_tag, const char *cycle_name,
                    report_result (*archive_timer)(void *), const bcp_dataset_decl *decls,
                    int count) {
  if (group_count < BCP_MAX_GROUPS)
    groups[group_count++] = group;
  group->id = id;
  group->spool = spool_dir_of(id);
  group->log_tag = log_tag;
  group->cycle_name = cycle_name;
  group->spool_bound = BCP_SPOOL_MAX_BYTES;
  for (bcp_dataset &ds : group->datasets)
    ds.group = group;
  group->tail.id = id;
  group->tail.spool = group->spool;
  group->tail.counters = &group->uploads;
  group->tail.owner = group;
  report_timer_init(&group->timer, archive_timer, REPORT_COUNTDOWN_SECONDS,
                    {report_owner_new(), report_phase::archive}, group);
  report_timer_add(&group->timer);
  // Files of an earlier run are deleted before anything new is written;
  // durable mode first archives and keeps them (archive_recover_leftovers,
  // once the group's datasets are set up).
  if (!unsent_enabled()) {
    // A directory someone else made first is moved aside before anything
    // in it is touched.
    spool_dir_check(group->spool, &group->uploads, false);
    bcp_release(group, false);
    qz2fh_delete_dir_file(group->spool);
    qz2fh_create_dir(group->spool);
    spool_dir_check(group->spool, &group->uploads, false);
    bcp_spool_bound_update(group);
  }
  for (int i = 0; i < count && i < BCP_GROUP_DATASETS; i++)
    bcp_dataset_setup(&group->datasets[i], &decls[i]);
}

void bcp_dataset_init(bcp_dataset *ds, const char *name, const char *index_template) {
  ds->fp = nullptr;
  ds->name = name;
  ds->index_template = index_template;
}

namespace {

constexpr size_t BCP_STREAM_BUFFER = 32 * 1024;
// Room the file list keeps for the files still open: a new file is opened
// only while every open file can still be listed.
constexpr int BCP_LIST_ROOM = BCP_FILE_LIST_SIZE - 1;
constexpr int BCP_LIST_EARLY = BCP_LIST_ROOM - BCP_GROUP_DATASETS;

void qz2fh_get_bcp_filename(const bcp_dataset *ds, char *path, size_t size) {
  char name[BCP_NAME_SIZE];
  if (!name_bcp(name, sizeof(name), ds->group->id, time(nullptr), ds->bcp_sequence, ds->name) ||
      !bcp_file_path(ds->group, name, path, size))
    path[0] = '\0';
  log_msg(DEBUG, "create file : %s", path);
}

// The next cycle's directory, made in the spool (the daemon's own) when
// first needed.
bool next_dir_ready(const bcp_group *g) {
  char dir[SPOOL_PATH_SIZE];
  if (!name_path(dir, sizeof(dir), g->spool.path, NAME_NEXT_DIR))
    return false;
  if (mkdir(dir, 0700) == 0)
    return true;
  struct stat st;
  return errno == EEXIST && lstat(dir, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid();
}

int qz2fh_open_bcp_file(bcp_dataset *ds, const char *path) {
  // Every new file goes into a directory just checked: one made again if
  // it had gone, never one that someone else has swapped in.
  FILE *fp = spool_dir_check(ds->group->spool, &ds->group->uploads, true) && path[0] &&
                     (!ds->group->held || next_dir_ready(ds->group))
                 ? trusted_dir_open_append(path)
                 : nullptr;
  if (!fp) {
    log_msg(DEBUG, "open file %s fail", path);
    return 1;
  }
  // A larger buffer than stdio's page: a write to flash per few hundred
  // records instead of per few dozen, for a little memory per open file.
  setvbuf(fp, nullptr, _IOFBF, BCP_STREAM_BUFFER);
  ds->fp = fp;
  const char *slash = strrchr(path, '/');
  snprintf(ds->file_name, sizeof(ds->file_name), "%s", slash ? slash + 1 : path);
  ds->record_count = 0;
  ds->file_bytes = 0;
  ds->bcp_sequence++;
  return 0;
}

// Counts records that will not reach the platform.
void count_lost(bcp_dataset *ds, uint64_t written, uint64_t refused, int error) {
  ds->records -= written;
  ds->refused += written + refused;
  ds->unreported += written + refused;
  ds->last_error = error;
}

}  // namespace

long bcp_cut_to_whole_lines(const char *path, uint64_t *bytes) {
  unique_fd fd(open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd || fstat(fd.get(), &st) != 0 || !trusted_dir_own_file(st)) {
    unlink(path);
    return -1;
  }
  long lines = 0;
  off_t pos = 0, end = 0;
  char buf[8192];
  for (;;) {
    const ssize_t n = read(fd.get(), buf, sizeof(buf));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    for (ssize_t i = 0; i < n; i++) {
      if (buf[i] == '\n') {
        lines++;
        end = pos + i + 1;
      }
    }
    pos += n;
  }
  if (pos != end && ftruncate(fd.get(), end) != 0) {
    fd.reset();
    unlink(path);
    return -1;
  }
  *bytes = static_cast<uint64_t>(end);
  return lines;
}

namespace {

// Opens the dataset's current file again to go on appending to it.
bool reopen_file(bcp_dataset *ds, const char *path, uint64_t bytes) {
  ds->fp = trusted_dir_open_append(path);
  if (!ds->fp)
    return false;
  setvbuf(ds->fp, nullptr, _IOFBF, BCP_STREAM_BUFFER);
  ds->file_bytes = bytes;
  return true;
}

// Closes the dataset's file after a failed write (error; pending records
// handed to the writer but not yet counted) and cuts it back to its whole
// lines: the stream's buffer may have gone out in part, and what counts is
// what the file holds. With go_on, writing goes on in the same file, so
// that a dataset still has one file a cycle (after any full ones) and no
// sequence number is spent on a file that never reaches the platform.
// Otherwise, or when it cannot be opened again, the file ends there.
void recover_file(bcp_dataset *ds, int error, int pending, bool go_on) {
  bcp_group *g = ds->group;
  fclose(ds->fp);
  ds->fp = nullptr;
  char path[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
  bcp_file_path(g, ds->file_name, path, sizeof(path));
  g->uploads.write_errors++;
  uint64_t kept_bytes = 0;
  const long kept = bcp_cut_to_whole_lines(path, &kept_bytes);
  const uint64_t lines = kept > 0 ? static_cast<uint64_t>(kept) : 0;
  const uint64_t written = ds->record_count > lines ? ds->record_count - lines : 0;
  count_lost(ds, written, static_cast<uint64_t>(pending), error);
  g->spool_bytes -= ds->file_bytes > kept_bytes ? ds->file_bytes - kept_bytes : 0;
  ds->record_count = static_cast<uint16_t>(lines);
  if (go_on && kept >= 0 && reopen_file(ds, path, kept_bytes))
    return;
  if (lines > 0) {
    bcp_file_list_add(ds);
  } else {
    unlink(path);
    ds->bcp_sequence--;  // the file never was
  }
  ds->record_count = 0;
  ds->file_bytes = 0;
}

// Ends the dataset's file and lists it with the lines it holds.
void finish_file(bcp_dataset *ds) {
  if (fflush(ds->fp) != 0 || ferror(ds->fp)) {
    recover_file(ds, errno ? errno : EIO, 0, false);
    return;
  }
  // fclose cannot lose lines now: they are all in the file.
  fclose(ds->fp);
  ds->fp = nullptr;
  bcp_file_list_add(ds);
  ds->record_count = 0;
  ds->file_bytes = 0;
}

int open_files(const bcp_group *g) {
  int n = 0;
  for (const bcp_dataset &ds : g->datasets)
    n += ds.fp ? 1 : 0;
  return n;
}

bool spool_full(const bcp_group *g) {
  return g->bcp_file_count + open_files(g) >= BCP_LIST_ROOM ||
         (g->archive_stuck && g->spool_bytes >= g->spool_bound);
}

void mark_archive_due(bcp_group *g) {
  if (g->archive_stuck || g->archive_due)
    return;
  if (bcp_bounds_reached(g))
    g->archive_due = true;
}

}  // namespace

void bcp_file_list_add(bcp_dataset *ds) {
  bcp_group *g = ds->group;
  bcp_file_entry &e = g->bcp_file_list[g->bcp_file_count];
  memcpy(e.file_name, ds->file_name, sizeof(e.file_name));
  e.record_count = ds->record_count;
  e.index_template = ds->index_template;
  e.name = ds->name;
  g->bcp_file_count = static_cast<uint16_t>((g->bcp_file_count + 1) % BCP_FILE_LIST_SIZE);
}

void bcp_close_open_files(bcp_group *g) {
  for (bcp_dataset &ds : g->datasets)
    if (ds.fp)
      finish_file(&ds);
}

void bcp_file_lost(bcp_group *g, const bcp_file_entry &e, int error) {
  for (bcp_dataset &ds : g->datasets)
    if (ds.name == e.name)
      count_lost(&ds, e.record_count, 0, error);
}

void bcp_flush_written() {
  if (!unflushed)
    return;
  unflushed = false;
  for (int i = 0; i < group_count; i++)
    for (bcp_dataset &ds : groups[i]->datasets)
      if (ds.fp && fflush(ds.fp) != 0)
        recover_file(&ds, errno ? errno : EIO, 0, true);
}

int bcp_write_line(bcp_dataset *ds, const char *line, size_t len) {
  bcp_group *g = ds->group;
  if (!ds->fp) {
    char path[BCP_NAME_SIZE];
    if (spool_full(g)) {
      count_lost(ds, 0, 1, ENOSPC);
      return 1;
    }
    qz2fh_get_bcp_filename(ds, path, sizeof(path));
    errno = 0;
    if (qz2fh_open_bcp_file(ds, path) != 0) {
      count_lost(ds, 0, 1, errno ? errno : EIO);
      return 1;
    }
  }
  errno = 0;
  if (fwrite(line, 1, len, ds->fp) != len || ferror(ds->fp)) {
    recover_file(ds, errno ? errno : EIO, 1, true);
    return 1;
  }
  ds->records++;
  if (g->held)
    g->uploads.held_records++;
  ds->file_bytes += len;
  g->spool_bytes += len;
  unflushed = true;
  if (++ds->record_count == BCP_MAX_RECORDS)
    finish_file(ds);
  mark_archive_due(g);
  return 0;
}

bool bcp_archive_pending() {
  for (int i = 0; i < group_count; i++)
    if (groups[i]->archive_due)
      return true;
  return false;
}

void bcp_reopen_last_files(bcp_group *g) {
  int kept = 0;
  for (int i = 0; i < g->bcp_file_count; i++) {
    const bcp_file_entry &e = g->bcp_file_list[i];
    bcp_dataset *ds = nullptr;
    for (bcp_dataset &d : g->datasets)
      if (d.name == e.name)
        ds = &d;
    bool last = true;
    for (int j = i + 1; j < g->bcp_file_count; j++)
      last = last && g->bcp_file_list[j].name != e.name;
    char path[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
    bcp_file_path(g, e.file_name, path, sizeof(path));
    struct stat st;
    if (ds && !ds->fp && last && e.record_count < BCP_MAX_RECORDS && lstat(path, &st) == 0 &&
        reopen_file(ds, path, static_cast<uint64_t>(st.st_size))) {
      memcpy(ds->file_name, e.file_name, sizeof(ds->file_name));
      ds->record_count = e.record_count;
      continue;
    }
    if (kept != i)
      g->bcp_file_list[kept] = e;
    kept++;
  }
  g->bcp_file_count = static_cast<uint16_t>(kept);
}

bool bcp_bounds_reached(const bcp_group *g) {
  return g->spool_bytes >= g->spool_bound || g->bcp_file_count >= BCP_LIST_EARLY;
}

void bcp_spool_bound_update(bcp_group *g) {
  struct statvfs vfs;
  uint64_t bound = BCP_SPOOL_MAX_BYTES;
  if (statvfs(g->spool.path, &vfs) == 0) {
    const uint64_t quarter = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize / 4;
    if (quarter < bound)
      bound = quarter;
  }
  g->spool_bound = bound;
}

void bcp_tick() {
  for (int i = 0; i < group_count; i++) {
    bcp_group *g = groups[i];
    spool_dir_check(g->spool, &g->uploads, true);
    for (bcp_dataset &ds : g->datasets) {
      struct stat st;
      // Lines appended to a file whose name was removed would go nowhere.
      if (ds.fp && fstat(fileno(ds.fp), &st) == 0 && st.st_nlink == 0) {
        fclose(ds.fp);
        ds.fp = nullptr;
        count_lost(&ds, ds.record_count, 0, ENOENT);
        g->spool_bytes -= ds.file_bytes < g->spool_bytes ? ds.file_bytes : g->spool_bytes;
        ds.record_count = 0;
        ds.file_bytes = 0;
      }
      if (ds.unreported != 0) {
        log_msg(ERROR, "%s: %llu records not written since the last report: %s\n", ds.name,
                static_cast<unsigned long long>(ds.unreported), strerror(ds.last_error));
        ds.unreported = 0;
      }
    }
  }
}

bool bcp_file_path(const bcp_group *g, const char *name, char *path, size_t size) {
  return name_path(path, size, g->spool.path, name, g->held);
}

void bcp_hold(bcp_group *g) {
  g->held = true;
  g->flight_files = g->bcp_file_count;
  // The cycle's bytes are the zip's now; the bound counts the next cycle's.
  g->flight_bytes = g->spool_bytes;
  g->spool_bytes = 0;
}

void bcp_drop_flight_files(bcp_group *g) {
  const int n = g->flight_files < g->bcp_file_count ? g->flight_files : g->bcp_file_count;
  memmove(g->bcp_file_list, g->bcp_file_list + n, (g->bcp_file_count - n) * sizeof(bcp_file_entry));
  g->bcp_file_count = static_cast<uint16_t>(g->bcp_file_count - n);
  g->flight_files = 0;
}

void bcp_release(bcp_group *g, bool keep) {
  char dir[SPOOL_PATH_SIZE];
  g->held = false;
  if (!name_path(dir, sizeof(dir), g->spool.path, NAME_NEXT_DIR))
    return;
  struct stat st;
  if (lstat(dir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
    return;
  const dir_listing names(dir);
  for (int i = 0; i < names.size(); i++) {
    char from[SPOOL_PATH_SIZE + BCP_NAME_SIZE], to[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
    if (!name_path(from, sizeof(from), g->spool.path, names.name(i), true) ||
        !name_path(to, sizeof(to), g->spool.path, names.name(i)))
      continue;
    // Open files move with their names: writing goes on in them.
    if (!keep || rename(from, to) != 0)
      unlink(from);
  }
  rmdir(dir);
}
