#include "output/archive.h"

#include <unistd.h>

#include <cstring>
#include <ctime>

#include "config/config.h"
#include "frame/log.h"
#include "output/spool.h"
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

bool write_index(bcp_group *g) {
  char index_path[SPOOL_PATH_SIZE];
  snprintf(index_path, sizeof(index_path), "%s/%s", g->spool.path, "GAB_ZIP_INDEX.xml");
  FILE *fp = fopen(index_path, "a+e");
  if (!fp)
    return false;
  fputs(BCP_INDEX_HEADER, fp);
  const char *org_code = qz2fh_get_org_code();
  const char *source = qz2fh_get_source_str();
  for (int i = 0; i < g->bcp_file_count; i++) {
    const bcp_file_entry &e = g->bcp_file_list[i];
    // The template is built at start-up with exactly these six conversions.
    fprintf(fp, e.index_template, e.name, static_cast<int>(g->id), org_code, source, e.file_name,
            static_cast<int>(e.record_count));
  }
  fputs(BCP_INDEX_FOOTER, fp);
  fclose(fp);
  return true;
}

// Indexes the listed files and forms the zip of the group's spool
// directory under the next name. False when the index could not be
// written: nothing was zipped.
bool form_zip(bcp_group *g) {
  if (!write_index(g))
    return false;
  bcp_group_state &st = g->state;
  const int sequence = st.zip_sequence++;
  const unsigned long long now = static_cast<unsigned long long>(time(nullptr));
  snprintf(st.zip_name, sizeof(st.zip_name), "%d-%s-%s-%s-%llu-%05d.zip", static_cast<int>(g->id),
           qz2fh_get_org_code(), qz2fh_get_source_str(), qz2fh_get_dst_str(), now, sequence);
  g->uploads.zips++;
  snprintf(g->uploads.last_zip, sizeof(g->uploads.last_zip), "%s", st.zip_name);
  qz2fh_form_zip_file(g);
  return true;
}

// The zip's path, /tmp/<id>/<name>.
struct zip_path {
  explicit zip_path(const bcp_group *g) {
    snprintf(text, sizeof(text), "%s/%s", g->spool.path, g->state.zip_name);
  }
  char text[SPOOL_PATH_SIZE + BCP_NAME_SIZE];
};

}  // namespace

void group_archive_cycle(bcp_group *g) {
  bcp_close_open_files(g);
  bool sent = true;  // a cycle with nothing of its own has no failed upload
  if (g->bcp_file_count != 0) {
    if (form_zip(g)) {
      const int status = qz2fh_send_zip_file(g);
      log_msg_as(g->cycle_name, DEBUG, "form zip file :%s\n", g->state.zip_name);
      sent = upload_done(&g->uploads, g->id, zip_path(g).text, status);
    }
    qz2fh_delete_dir_file(g->spool);
  }
  g->bcp_file_count = 0;
  // Kept files follow once the server has taken this cycle's.
  if (sent)
    unsent_resend(&g->uploads, g->id, g->spool);
}

void group_archive_keep(bcp_group *g) {
  bcp_close_open_files(g);
  if (g->bcp_file_count != 0) {
    if (form_zip(g)) {
      log_msg_as(g->cycle_name, DEBUG, "form zip file :%s\n", g->state.zip_name);
      unsent_keep(g->id, zip_path(g).text);
    }
    qz2fh_delete_dir_file(g->spool);
  }
  g->bcp_file_count = 0;
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

// Whole record lines in the file, after cutting off a line the stop left
// unfinished.
long whole_lines(const char *path) {
  FILE *fp = fopen(path, "r+e");
  if (!fp)
    return -1;
  long lines = 0, end = 0, pos = 0;
  for (int c; (c = getc(fp)) != EOF;) {
    pos++;
    if (c == '\n') {
      lines++;
      end = pos;
    }
  }
  const bool cut = pos != end;
  fclose(fp);
  if (cut && truncate(path, end) != 0)
    return -1;
  return lines;
}

// Lists one file left in the spool directory, or deletes it when it holds
// nothing to send: an index half written, no whole record, no dataset's.
void list_leftover(bcp_group *g, const char *name) {
  char path[BCP_NAME_SIZE + SPOOL_PATH_SIZE];
  snprintf(path, sizeof(path), "%s/%s", g->spool.path, name);
  const bcp_dataset *ds = dataset_of_file(g, name);
  const long lines = ds && g->bcp_file_count < BCP_FILE_LIST_SIZE - 1 ? whole_lines(path) : -1;
  if (lines <= 0 || lines > BCP_MAX_RECORDS || strlen(name) >= BCP_NAME_SIZE) {
    const size_t len = strlen(name);
    if (len > 4 && strcmp(name + len - 4, ".bcp") == 0 && lines != 0)
      log_msg_as("archive_recover_leftovers", WARN,
                 "%s left by the last run is not a record file of group %d: deleted\n", name,
                 static_cast<int>(g->id));
    unlink(path);
    return;
  }
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
}

void archive_keep_all() {
  for (int i = 0; i < bcp_group_count(); i++)
    group_archive_keep(bcp_group_at(i));
}
