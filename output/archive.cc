#include "output/archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "config/config.h"
#include "frame/log.h"
#include "frame/unique_fd.h"
#include "output/dir_listing.h"
#include "output/names.h"
#include "output/spool.h"
#include "output/trusted_dir.h"
#include "output/unsent.h"

constexpr char BCP_INDEX_HEADER[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<MESSAGE>\t\n"
    "\t<DATASET name=\"WA_COMMON_010017\" ver=\"1.0\" rmk=\"数据文件索引信息\">\t\t\n"
    "\t\t<DATA>\t\t\t\n"
    "\t\t\t<DATASET name=\"WA_COMMON_010013\" rmk=\"BCP文件描述信息\">";
constexpr char BCP_INDEX_FOOTER[] =
    "\n\t\t\t</DATASET>\t\t\n\t\t</DATA>\t\n\t</DATASET>\n</MESSAGE>";
static_assert(sizeof(BCP_INDEX_HEADER) - 1 == 204, "index header is 204 bytes");
static_assert(sizeof(BCP_INDEX_FOOTER) - 1 == 50, "index footer is 50 bytes");

namespace {

// The index, written whole or not at all: false (the file removed and the
// error in errno) when any write failed.
bool write_index(bcp_group *g) {
  char index_path[SPOOL_PATH_SIZE];
  name_path(index_path, sizeof(index_path), g->spool.path, NAME_INDEX);
  // One left by a cycle whose zip failed would be appended to.
  unlink(index_path);
  unique_fd fd(open(index_path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  FILE *fp = fd ? fdopen(fd.get(), "w") : nullptr;
  if (!fp)
    return false;
  fd.release();
  bool ok = fputs(BCP_INDEX_HEADER, fp) != EOF;
  const char *org_code = qz2fh_get_org_code();
  const char *source = qz2fh_get_source_str();
  for (int i = 0; ok && i < g->bcp_file_count; i++) {
    const bcp_file_entry &e = g->bcp_file_list[i];
    // The template is built at start-up with exactly these six conversions.
    ok = fprintf(fp, e.index_template, e.name, static_cast<int>(g->id), org_code, source,
                 e.file_name, static_cast<int>(e.record_count)) >= 0;
  }
  ok = ok && fputs(BCP_INDEX_FOOTER, fp) != EOF;
  const int error = ok ? 0 : errno;
  if (fclose(fp) != 0 && ok)
    ok = false;
  if (!ok) {
    const int saved = error ? error : errno;
    unlink(index_path);
    errno = saved;
  }
  return ok;
}

// The zip's path, /tmp/<id>/<name>.
struct zip_path {
  explicit zip_path(const bcp_group *g) {
    name_path(text, sizeof(text), g->spool.path, g->state.zip_name);
  }
  char text[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
};

bool listed(const bcp_group *g, const char *name) {
  for (int i = 0; i < g->bcp_file_count; i++)
    if (strcmp(g->bcp_file_list[i].file_name, name) == 0)
      return true;
  return false;
}

// Before the zip: the spool directory is the daemon's own and holds only
// the listed files, each a regular file of the daemon's, so that the zip
// takes nothing else. A listed file that has gone is counted as lost.
// False when the directory cannot be used.
bool prepare_spool(bcp_group *g) {
  if (!spool_dir_check(g->spool, &g->uploads, true))
    return false;
  int kept = 0;
  for (int i = 0; i < g->bcp_file_count; i++) {
    const bcp_file_entry &e = g->bcp_file_list[i];
    char path[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
    struct stat st;
    if (name_path(path, sizeof(path), g->spool.path, e.file_name) && lstat(path, &st) == 0 &&
        trusted_dir_own_file(st)) {
      if (kept != i)
        g->bcp_file_list[kept] = e;
      kept++;
    } else {
      bcp_file_lost(g, e, ENOENT);
    }
  }
  g->bcp_file_count = static_cast<uint16_t>(kept);
  const dir_listing names(g->spool.path);
  for (int i = 0; i < names.size(); i++) {
    const char *name = names.name(i);
    char path[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
    if (listed(g, name) || strcmp(name, NAME_NEXT_DIR) == 0 ||
        !name_path(path, sizeof(path), g->spool.path, name))
      continue;
    if (strcmp(name, NAME_INDEX) != 0)
      log_msg_as(g->cycle_name, WARN, "%s in %s is not a file of this cycle: deleted\n", name,
                 g->spool.path);
    if (unlink(path) != 0 && errno == EISDIR)
      rmdir(path);
  }
  return true;
}

void lose_listed(bcp_group *g, int count, int error) {
  for (int i = 0; i < count; i++)
    bcp_file_lost(g, g->bcp_file_list[i], error);
}

enum class zip_result { ready, kept_back, failed };

// Indexes the listed files and names the zip of the group's spool
// directory. When nothing can be zipped, or the index fails, durable mode
// keeps the files listed for the next cycle (kept_back); otherwise their
// records are counted as lost (failed) and the directory is to be emptied
// as usual.
zip_result prepare_zip(bcp_group *g) {
  if (!prepare_spool(g)) {
    lose_listed(g, g->bcp_file_count, EACCES);
    g->bcp_file_count = 0;
    return zip_result::failed;
  }
  if (g->bcp_file_count == 0)
    return zip_result::failed;
  bcp_spool_bound_update(g);
  if (!write_index(g)) {
    const int error = errno;
    g->uploads.write_errors++;
    log_msg_as(g->cycle_name, ERROR, "index of group %d not written: %s\n", static_cast<int>(g->id),
               strerror(error));
    if (unsent_enabled())
      return zip_result::kept_back;
    lose_listed(g, g->bcp_file_count, error);
    g->bcp_file_count = 0;
    return zip_result::failed;
  }
  name_zip(g->state.zip_name, sizeof(g->state.zip_name), g->id, time(nullptr),
           g->state.zip_sequence++);
  return zip_result::ready;
}

// The zip is there, the daemon's own, after a zip command of that status:
// counted. Otherwise what it left is removed, with a WARN line.
bool zip_formed(bcp_group *g, int status) {
  const zip_path zip(g);
  struct stat zst;
  if (status == 0 && lstat(zip.text, &zst) == 0 && trusted_dir_own_file(zst)) {
    g->uploads.zips++;
    snprintf(g->uploads.last_zip, sizeof(g->uploads.last_zip), "%s", g->state.zip_name);
    return true;
  }
  unlink(zip.text);
  char index_path[SPOOL_PATH_SIZE];
  name_path(index_path, sizeof(index_path), g->spool.path, NAME_INDEX);
  unlink(index_path);
  if (unsent_enabled())
    log_msg_as(g->cycle_name, WARN,
               "zip of %s failed (status %d): its files are kept for the next cycle\n",
               g->state.zip_name, status);
  else
    log_msg_as(g->cycle_name, WARN, "zip of %s failed (status %d)\n", g->state.zip_name, status);
  return false;
}

void archive_begin(bcp_group *g, bool by_timer);

// The spool is emptied: the next cycle's files move in.
void archive_emptied(upload_tail *t) { bcp_release(static_cast<bcp_group *>(t->owner)); }

void archive_ended(upload_tail *t) {
  auto *g = static_cast<bcp_group *>(t->owner);
  if (g->held)
    bcp_release(g);  // a cycle that ended before its rm ran
  g->in_flight = false;
  // What an early archive could not take out stays until the cycle's own.
  g->archive_stuck = !g->by_timer && bcp_bounds_reached(g);
  if (g->by_timer)
    report_timer_end(&g->timer, report_result::done);
  if (g->timer_waits) {
    g->timer_waits = false;
    archive_begin(g, true);
  }
}

void zipped(command_job *job, int wait_status) {
  auto *g = static_cast<bcp_group *>(job->owner);
  if (zip_formed(g, upload_status(wait_status))) {
    bcp_drop_flight_files(g);
    upload_send(&g->tail, zip_path(g).text, g->cycle_name, "form zip file", g->state.zip_name);
  } else if (unsent_enabled()) {
    // The zip's files stay this cycle's, before the next cycle's.
    g->flight_files = 0;
    g->spool_bytes += g->flight_bytes;
    bcp_release(g);
    bcp_reopen_last_files(g);
    upload_end(&g->tail);
  } else {
    lose_listed(g, g->flight_files, EIO);
    bcp_drop_flight_files(g);
    upload_empty(&g->tail);
  }
}

// The archive: files closed and indexed here, then zip, upload, rm and the
// kept files' round beside the loop, while new records go into the next
// cycle's files.
void archive_begin(bcp_group *g, bool by_timer) {
  g->in_flight = true;
  g->by_timer = by_timer;
  if (g->uploads.in_flight_peak < 1)
    g->uploads.in_flight_peak = 1;
  g->tail.emptied = archive_emptied;
  g->tail.ended = archive_ended;
  bcp_close_open_files(g);
  // A cycle with nothing of its own has no failed upload.
  if (g->bcp_file_count == 0) {
    upload_resend(&g->tail);
    return;
  }
  switch (prepare_zip(g)) {
    case zip_result::kept_back:
      bcp_reopen_last_files(g);
      upload_end(&g->tail);
      return;
    case zip_result::failed:
      upload_empty(&g->tail);
      return;
    case zip_result::ready:
      break;
  }
  bcp_hold(g);
  g->tail.job.owner = g;
  char cmd[COMMAND_SIZE];
  if (!spool_zip_command(g->spool, g->state.zip_name, cmd) ||
      command_start(&g->tail.job, cmd, COMMAND_ZIP, zipped) != 0)
    zipped(&g->tail.job, -1);
}

// The cycle's files are gone from the spool directory: emptied, while the
// caller waits (start-up and stop).
void spool_emptied(bcp_group *g) {
  qz2fh_delete_dir_file(g->spool);
  g->bcp_file_count = 0;
  g->spool_bytes = 0;
}

}  // namespace

void group_archive_cycle(bcp_group *g) { archive_begin(g, false); }

report_result group_archive_timer(void *group) {
  auto *g = static_cast<bcp_group *>(group);
  if (g->in_flight) {
    g->timer_waits = true;  // an early archive: this cycle's follows it
    g->uploads.in_flight_peak = 2;
  } else {
    archive_begin(g, true);
  }
  return report_result::running;
}

void archive_run_due() {
  for (int i = 0; i < bcp_group_count(); i++) {
    bcp_group *g = bcp_group_at(i);
    if (!g->archive_due || g->in_flight)
      continue;
    g->archive_due = false;
    g->uploads.early_archives++;
    if (g->spool_bytes >= g->spool_bound)
      log_msg(WARN, "group %d holds %llu bytes in one cycle, archiving early\n",
              static_cast<int>(g->id), static_cast<unsigned long long>(g->spool_bytes));
    else
      log_msg(WARN, "group %d finished %d files in one cycle, archiving early\n",
              static_cast<int>(g->id), static_cast<int>(g->bcp_file_count));
    archive_begin(g, false);
  }
}

bool archive_waiting() {
  for (int i = 0; i < bcp_group_count(); i++)
    if (bcp_group_at(i)->archive_due && bcp_group_at(i)->in_flight)
      return true;
  return false;
}

void group_archive_keep(bcp_group *g) {
  bcp_release(g);
  bcp_close_open_files(g);
  if (g->bcp_file_count == 0)
    return;
  // Files whose zip failed stay for the next start's recovery.
  const zip_result r = prepare_zip(g);
  if (r == zip_result::ready && zip_formed(g, upload_status(qz2fh_form_zip_file(g->spool, g->state.zip_name)))) {
    log_msg_as(g->cycle_name, DEBUG, "form zip file :%s\n", g->state.zip_name);
    unsent_keep(g->id, zip_path(g).text);
    spool_emptied(g);
  } else if (!unsent_enabled() || r == zip_result::failed) {
    spool_emptied(g);
  }
}

namespace {

// The group's dataset whose record file this is, or null.
const bcp_dataset *dataset_of_file(const bcp_group *g, const char *name) {
  const std::string_view code = name_bcp_dataset(name);
  for (const bcp_dataset &ds : g->datasets)
    if (ds.name && ds.index_template && !code.empty() && code == ds.name)
      return &ds;
  return nullptr;
}

// Lists one file left in the spool directory, or deletes it when it holds
// nothing to send: an index half written, no whole record, no dataset's.
void list_leftover(bcp_group *g, const char *name) {
  char path[BCP_NAME_SIZE + SPOOL_PATH_SIZE];
  name_path(path, sizeof(path), g->spool.path, name);
  const bcp_dataset *ds = dataset_of_file(g, name);
  struct stat st;
  uint64_t bytes = 0;
  const long lines = ds && g->bcp_file_count < BCP_FILE_LIST_SIZE - 1 && lstat(path, &st) == 0 &&
                             trusted_dir_own_file(st)
                         ? bcp_cut_to_whole_lines(path, &bytes)
                         : -1;
  if (lines <= 0 || lines > BCP_MAX_RECORDS || strlen(name) >= BCP_NAME_SIZE) {
    const size_t len = strlen(name);
    if (len > 4 && strcmp(name + len - 4, ".bcp") == 0 && lines != 0)
      log_msg_as("archive_recover_leftovers", WARN,
                 "%s left by the last run is not a record file of group %d: deleted\n", name,
                 static_cast<int>(g->id));
    unlink(path);
    return;
  }
  g->spool_bytes += bytes;
  bcp_file_entry &e = g->bcp_file_list[g->bcp_file_count++];
  snprintf(e.file_name, sizeof(e.file_name), "%s", name);
  e.record_count = static_cast<uint16_t>(lines);
  e.index_template = ds->index_template;
  e.name = ds->name;
}

}  // namespace

void archive_recover_leftovers(bcp_group *g) {
  if (!unsent_enabled())
    return;
  unsent_prepare(g->id);
  // A directory someone else made holds nothing of ours: moved aside.
  spool_dir_check(g->spool, &g->uploads, false);
  bcp_release(g);  // the next cycle's files of a run stopped mid-archive
  unsent_keep_leftovers(g->id, g->spool);
  g->bcp_file_count = 0;
  const dir_listing names(g->spool.path);
  for (int i = 0; i < names.size(); i++)
    list_leftover(g, names.name(i));
  if (g->bcp_file_count != 0) {
    log_msg(DEBUG, "%d record files left by the last run in %s\n",
            static_cast<int>(g->bcp_file_count), g->spool.path);
    group_archive_keep(g);  // empties the directory
  } else {
    qz2fh_delete_dir_file(g->spool);
  }
  qz2fh_create_dir(g->spool);
  spool_dir_check(g->spool, &g->uploads, false);
  bcp_spool_bound_update(g);
}

void archive_keep_all() {
  for (int i = 0; i < bcp_group_count(); i++)
    group_archive_keep(bcp_group_at(i));
}
