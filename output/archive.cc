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

constexpr char INDEX_NAME[] = "GAB_ZIP_INDEX.xml";

// The index, written whole or not at all: false (the file removed and the
// error in errno) when any write failed.
bool write_index(bcp_group *g) {
  char index_path[SPOOL_PATH_SIZE];
  snprintf(index_path, sizeof(index_path), "%s/%s", g->spool.path, INDEX_NAME);
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
    snprintf(text, sizeof(text), "%s/%s", g->spool.path, g->state.zip_name);
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
    snprintf(path, sizeof(path), "%s/%s", g->spool.path, e.file_name);
    struct stat st;
    if (lstat(path, &st) == 0 && trusted_dir_own_file(st)) {
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
    if (listed(g, name))
      continue;
    char path[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
    snprintf(path, sizeof(path), "%s/%s", g->spool.path, name);
    if (strcmp(name, INDEX_NAME) != 0)
      log_msg_as(g->cycle_name, WARN, "%s in %s is not a file of this cycle: deleted\n", name,
                 g->spool.path);
    if (unlink(path) != 0 && errno == EISDIR)
      rmdir(path);
  }
  return true;
}

enum class zip_result { formed, kept_back, failed };

// Indexes the listed files and forms the zip of the group's spool
// directory under the next name. When the index or the zip fails, durable
// mode keeps the files listed for the next cycle (kept_back); otherwise
// their records are counted as lost (failed) and the directory is emptied
// as usual.
zip_result form_zip(bcp_group *g) {
  if (!prepare_spool(g)) {
    for (int i = 0; i < g->bcp_file_count; i++)
      bcp_file_lost(g, g->bcp_file_list[i], EACCES);
    return zip_result::failed;
  }
  if (g->bcp_file_count == 0)
    return zip_result::failed;
  bcp_spool_bound_update(g);
  bcp_group_state &st = g->state;
  if (!write_index(g)) {
    const int error = errno;
    g->uploads.write_errors++;
    log_msg_as(g->cycle_name, ERROR, "index of group %d not written: %s\n", static_cast<int>(g->id),
               strerror(error));
    if (unsent_enabled())
      return zip_result::kept_back;
    for (int i = 0; i < g->bcp_file_count; i++)
      bcp_file_lost(g, g->bcp_file_list[i], error);
    return zip_result::failed;
  }
  const int sequence = st.zip_sequence++;
  const unsigned long long now = static_cast<unsigned long long>(time(nullptr));
  snprintf(st.zip_name, sizeof(st.zip_name), "%d-%s-%s-%s-%llu-%05d.zip", static_cast<int>(g->id),
           qz2fh_get_org_code(), qz2fh_get_source_str(), qz2fh_get_dst_str(), now, sequence);
  const int status = upload_status(qz2fh_form_zip_file(g->spool, st.zip_name));
  const zip_path zip(g);
  struct stat zst;
  if (status == 0 && lstat(zip.text, &zst) == 0 && trusted_dir_own_file(zst)) {
    g->uploads.zips++;
    snprintf(g->uploads.last_zip, sizeof(g->uploads.last_zip), "%s", st.zip_name);
    return zip_result::formed;
  }
  unlink(zip.text);
  char index_path[SPOOL_PATH_SIZE];
  snprintf(index_path, sizeof(index_path), "%s/%s", g->spool.path, INDEX_NAME);
  unlink(index_path);
  if (unsent_enabled()) {
    log_msg_as(g->cycle_name, WARN,
               "zip of %s failed (status %d): its files are kept for the next cycle\n",
               st.zip_name, status);
    return zip_result::kept_back;
  }
  log_msg_as(g->cycle_name, WARN, "zip of %s failed (status %d)\n", st.zip_name, status);
  for (int i = 0; i < g->bcp_file_count; i++)
    bcp_file_lost(g, g->bcp_file_list[i], EIO);
  return zip_result::failed;
}

// The cycle's files are gone from the spool directory: emptied.
void spool_emptied(bcp_group *g) {
  qz2fh_delete_dir_file(g->spool);
  g->bcp_file_count = 0;
  g->spool_bytes = 0;
}

}  // namespace

report_result group_archive_timer(void *group) {
  group_archive_cycle(static_cast<bcp_group *>(group));
  return report_result::done;
}

void group_archive_cycle(bcp_group *g) {
  bcp_close_open_files(g);
  bool sent = true;  // a cycle with nothing of its own has no failed upload
  if (g->bcp_file_count != 0) {
    switch (form_zip(g)) {
      case zip_result::formed:
        sent = upload_and_count(&g->uploads, g->id, g->spool, zip_path(g).text,
                                {g->cycle_name, "form zip file", g->state.zip_name});
        spool_emptied(g);
        break;
      case zip_result::kept_back:
        bcp_reopen_last_files(g);
        sent = false;
        break;
      case zip_result::failed:
        spool_emptied(g);
        break;
    }
  }
  g->archive_stuck = false;
  // Kept files follow once the server has taken this cycle's.
  if (sent)
    unsent_resend(&g->uploads, g->id, g->spool);
}

void archive_run_due() {
  for (int i = 0; i < bcp_group_count(); i++) {
    bcp_group *g = bcp_group_at(i);
    if (!g->archive_due)
      continue;
    g->archive_due = false;
    g->uploads.early_archives++;
    if (g->spool_bytes >= g->spool_bound)
      log_msg(WARN, "group %d holds %llu bytes in one cycle, archiving early\n",
              static_cast<int>(g->id), static_cast<unsigned long long>(g->spool_bytes));
    else
      log_msg(WARN, "group %d finished %d files in one cycle, archiving early\n",
              static_cast<int>(g->id), static_cast<int>(g->bcp_file_count));
    group_archive_cycle(g);
    // What the archive could not take out stays until the cycle's own.
    g->archive_stuck = bcp_bounds_reached(g);
  }
}

void group_archive_keep(bcp_group *g) {
  bcp_close_open_files(g);
  if (g->bcp_file_count != 0) {
    // Files whose zip failed stay for the next start's recovery.
    if (form_zip(g) == zip_result::formed) {
      log_msg_as(g->cycle_name, DEBUG, "form zip file :%s\n", g->state.zip_name);
      unsent_keep(g->id, zip_path(g).text);
      spool_emptied(g);
    } else if (!unsent_enabled()) {
      spool_emptied(g);
    }
  }
}

namespace {

// "<id>-<source>-<time>-<seq>-<dataset>-0.bcp": the group's dataset of
// that code, or null.
const bcp_dataset *dataset_of_file(const bcp_group *g, const char *name) {
  static const char tail[] = "-0.bcp";
  const size_t len = strlen(name), tail_len = sizeof(tail) - 1;
  if (len <= tail_len || strcmp(name + len - tail_len, tail) != 0)
    return nullptr;
  const size_t stem = len - tail_len;
  size_t start = stem;
  while (start > 0 && name[start - 1] != '-')
    start--;
  for (const bcp_dataset &ds : g->datasets)
    if (ds.name && ds.index_template && strlen(ds.name) == stem - start &&
        strncmp(name + start, ds.name, stem - start) == 0)
      return &ds;
  return nullptr;
}

// Lists one file left in the spool directory, or deletes it when it holds
// nothing to send: an index half written, no whole record, no dataset's.
void list_leftover(bcp_group *g, const char *name) {
  char path[BCP_NAME_SIZE + SPOOL_PATH_SIZE];
  snprintf(path, sizeof(path), "%s/%s", g->spool.path, name);
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
  unsent_keep_leftovers(g->id, g->spool, ".zip");
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
