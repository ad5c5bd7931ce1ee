#include "status/bjson.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "config/config.h"
#include "config/identity.h"
#include "config/wtps.h"
#include "frame/log.h"
#include "frame/report_timer.h"
#include "frame/str_table.h"
#include "output/spool.h"
#include "output/names.h"
#include "output/trusted_dir.h"
#include "output/upload.h"
#include "output/unsent.h"

namespace {

// One access point seen in the listing.
struct bjson_node {
  bjson_node *next;
  bjson_node *prev;
  uint32_t seen_count;  // lines of the current listing that named it
  char name[36];        // its MAC text as listed; the table's key
};

bjson_node bjson_node_list = {&bjson_node_list, &bjson_node_list, 0, {}};
GHashTable *bjson_node_table;
uint16_t bjson_sequence;
report_timer bjson_timer;
spool_dir status_dir;
upload_counters bjson_uploads;
upload_tail bjson_tail;

bool count_node(const char *name) {
  auto *node = static_cast<bjson_node *>(str_table_get(bjson_node_table, name));
  if (node) {
    node->seen_count++;
    return true;
  }
  node = static_cast<bjson_node *>(calloc(1, sizeof(bjson_node)));
  if (!node)
    return false;
  node->seen_count = 1;
  snprintf(node->name, sizeof(node->name), "%s", name);
  str_table_put(bjson_node_table, node->name, node);
  // New access points go last, so the file follows the listing's order.
  node->next = &bjson_node_list;
  node->prev = bjson_node_list.prev;
  bjson_node_list.prev->next = node;
  bjson_node_list.prev = node;
  return true;
}

// True when the whole listing was read into the node list.
bool bjson_update_node_list(int status, std::string_view listing) {
  static const char func[] = "bjson_update_node_list";
  if (status < 0) {
    log_msg_as(func, DEBUG, "wum -c wtps fail\n");
    return false;
  }
  return wtps_parse(listing, func, count_node) == WTPS_DONE;
}

// Writes one line per node and forgets the nodes the listing no longer
// names, after reporting them once as gone. Returns the lines written.
int write_nodes(FILE *fp) {
  int lines = 0;
  bjson_node *node = bjson_node_list.next;
  while (node != &bjson_node_list) {
    bjson_node *next = node->next;
    const int gone = node->seen_count == 0 ? 1 : 0;
    char line[2048];
    snprintf(line, sizeof(line), "{\"fc\":\"%s\", \"sc\":\"%s\", \"dc\":\"%s\", \"ds\":\"%d\"}",
             qz2fh_get_org_code(), qz2fh_get_netbar_wacode(), qz2fh_get_equipment_id(node->name),
             gone);
    if (gone) {
      node->prev->next = node->next;
      node->next->prev = node->prev;
      str_table_del(bjson_node_table, node->name);
    } else {
      node->seen_count = 0;
    }
    fputs(line, fp);
    fputs("\n", fp);
    lines++;
    node = next;
  }
  return lines;
}

}  // namespace

namespace {

// The listing has been read: the status file is written and sent, and the
// spool directory emptied, beside the loop.
void scanned(command_job *job, int status) {
  static const char func[] = "bjson_report_timer";
  char name[SPOOL_PATH_SIZE], path[SPOOL_PATH_SIZE];
  if (!bjson_update_node_list(status, command_output(job)) ||
      !name_status(name, sizeof(name), time(nullptr), bjson_sequence++) ||
      !name_path(path, sizeof(path), status_dir.path, name)) {
    upload_empty(&bjson_tail);
    return;
  }
  FILE *fp = spool_dir_check(status_dir, &bjson_uploads, true) ? trusted_dir_open_append(path) : nullptr;
  if (fp) {
    const int lines = write_nodes(fp);
    const bool failed = ferror(fp) != 0;
    const int error = errno;
    if ((fclose(fp) != 0 || failed) && lines > 0) {
      // Half a status file would tell the platform that access points
      // have gone: none is sent.
      bjson_uploads.write_errors++;
      log_msg_as(func, ERROR, "status file %s not written: %s\n", path, strerror(failed ? error : errno));
    } else if (lines > 0) {
      bjson_uploads.zips++;
      snprintf(bjson_uploads.last_zip, sizeof(bjson_uploads.last_zip), "%s", name);
      upload_send(&bjson_tail, path, func, "send bjson file", path);
      return;
    }
  }
  upload_empty(&bjson_tail);
}

void report_ended(upload_tail *) { report_timer_end(&bjson_timer, report_result::done); }

}  // namespace

report_result bjson_report_timer(void *) {
  bjson_tail.job.owner = &bjson_tail;
  if (command_start(&bjson_tail.job, WTPS_COMMAND, COMMAND_PROBE, scanned, WTPS_OUTPUT_MAX) != 0)
    scanned(&bjson_tail.job, -1);
  return report_result::running;
}

const upload_counters &bjson_upload_counters() { return bjson_uploads; }

void bjson_tick() { spool_dir_check(status_dir, &bjson_uploads, true); }

int bjson_report_init() {
  bjson_node_table = str_table_new();
  if (!bjson_node_table)
    return -1;
  report_timer_init(&bjson_timer, bjson_report_timer, REPORT_COUNTDOWN_SECONDS,
                    {report_owner_new(), report_phase::records});
  report_timer_add(&bjson_timer);
  status_dir = spool_dir_of(QZ2FH_STATUS_DIR_ID);
  bjson_tail.id = QZ2FH_STATUS_DIR_ID;
  bjson_tail.spool = status_dir;
  bjson_tail.counters = &bjson_uploads;
  bjson_tail.owner = nullptr;
  bjson_tail.ended = report_ended;
  // A directory someone else made first is moved aside untouched.
  spool_dir_check(status_dir, &bjson_uploads, false);
  // Durable mode: a status file a stopped run could not send is kept too.
  if (unsent_enabled())
    unsent_prepare(QZ2FH_STATUS_DIR_ID);
  unsent_keep_leftovers(QZ2FH_STATUS_DIR_ID, status_dir);
  qz2fh_delete_dir_file(status_dir);
  qz2fh_create_dir(status_dir);
  spool_dir_check(status_dir, &bjson_uploads, false);
  return 0;
}
