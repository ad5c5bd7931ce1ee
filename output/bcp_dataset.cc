#include "output/bcp_dataset.h"

#include <cstring>
#include <ctime>

#include "config/config.h"
#include "frame/log.h"
#include "output/archive.h"
#include "output/unsent.h"

namespace {

bcp_group *groups[BCP_MAX_GROUPS];
int group_count;
bool unflushed;  // a line was written since the last flush

}  // namespace

int bcp_group_count() { return group_count; }

bcp_group *bcp_group_at(int index) { return groups[index]; }

void bcp_group_init(bcp_group *group, uint32_t id, const char *log_tag, const char *cycle_name,
                    report_result (*archive_timer)(void *)) {
  if (group_count < BCP_MAX_GROUPS)
    groups[group_count++] = group;
  group->id = id;
  group->spool = spool_dir_of(id);
  group->log_tag = log_tag;
  group->cycle_name = cycle_name;
  for (bcp_dataset &ds : group->datasets)
    ds.group = group;
  report_timer_init(&group->timer, archive_timer, REPORT_COUNTDOWN_SECONDS,
                    {report_owner_new(), report_phase::archive});
  report_timer_add(&group->timer);
  // Files of an earlier run are deleted before anything new is written;
  // durable mode first archives and keeps them (archive_recover_leftovers,
  // once the group's datasets are set up).
  if (!unsent_enabled()) {
    qz2fh_delete_dir_file(group->spool);
    qz2fh_create_dir(group->spool);
  }
}

void bcp_dataset_init(bcp_dataset *ds, const char *name, const char *index_template) {
  ds->fp = nullptr;
  ds->name = name;
  ds->index_template = index_template;
}

namespace {

constexpr size_t BCP_STREAM_BUFFER = 32 * 1024;

void qz2fh_get_bcp_filename(const bcp_dataset *ds, char *path, size_t size) {
  const unsigned sequence = ds->bcp_sequence;
  const unsigned long long now = static_cast<unsigned long long>(time(nullptr));
  const char *source = qz2fh_get_source_str();
  snprintf(path, size, "%s/%d-%s-%llu-%05d-%s-0.bcp", ds->group->spool.path,
           static_cast<int>(ds->group->id), source, now, static_cast<int>(sequence), ds->name);
  log_msg(DEBUG, "create file : %s", path);
}

int qz2fh_open_bcp_file(bcp_dataset *ds, const char *path) {
  FILE *fp = fopen(path, "a+e");
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
  ds->bcp_sequence++;
  return 0;
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
  for (bcp_dataset &ds : g->datasets) {
    if (!ds.fp)
      continue;
    bcp_file_list_add(&ds);
    fclose(ds.fp);
    ds.fp = nullptr;
    ds.record_count = 0;
  }
}

void bcp_flush_written() {
  if (!unflushed)
    return;
  unflushed = false;
  for (int i = 0; i < group_count; i++)
    for (bcp_dataset &ds : groups[i]->datasets)
      if (ds.fp)
        fflush(ds.fp);
}

int bcp_write_line(bcp_dataset *ds, const char *line, size_t len) {
  if (!ds->fp) {
    char path[BCP_NAME_SIZE];
    qz2fh_get_bcp_filename(ds, path, sizeof(path));
    if (qz2fh_open_bcp_file(ds, path) != 0) {
      ds->refused++;
      return 1;
    }
  }
  fwrite(line, 1, len, ds->fp);
  ds->records++;
  unflushed = true;
  if (++ds->record_count == BCP_MAX_RECORDS) {
    bcp_file_list_add(ds);
    fclose(ds->fp);
    ds->fp = nullptr;
    ds->record_count = 0;
    // The count runs modulo the list size and the archive step adds one
    // entry per open file: archive now, while the list can still take them
    // all, so that no finished file is overwritten or left out of an index.
    bcp_group *g = ds->group;
    if (g->bcp_file_count >= BCP_FILE_LIST_SIZE - 1 - BCP_GROUP_DATASETS) {
      log_msg(WARN, "group %d finished %d files in one cycle, archiving early\n",
              static_cast<int>(g->id), static_cast<int>(g->bcp_file_count));
      group_archive_cycle(g);
    }
  }
  return 0;
}
