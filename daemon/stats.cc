#include "daemon/stats.h"

#include <jansson.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/command.h"
#include "frame/feed.h"
#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "netbar/netbar_terminal.h"
#include "output/bcp_dataset.h"
#include "output/unsent.h"
#include "status/bjson.h"

namespace {

json_t *number(uint64_t n) { return json_integer(static_cast<json_int_t>(n)); }

json_t *feeds() {
  json_t *all = json_object();
  for (int i = 0; i < feed_source_count(); i++) {
    const feed_counters &c = feed_counters_of(i);
    json_t *f = json_object();
    json_object_set_new(f, "received", number(c.received));
    json_object_set_new(f, "handled", number(c.handled));
    json_object_set_new(f, "refused", number(c.refused));
    json_object_set_new(f, "deferred", number(c.deferred));
    json_object_set_new(f, "overruns", number(c.overruns));
    json_object_set_new(all, feed_source_name(i), f);
  }
  return all;
}

json_t *datasets() {
  json_t *all = json_object();
  for (int i = 0; i < bcp_group_count(); i++) {
    for (const bcp_dataset &ds : bcp_group_at(i)->datasets) {
      if (!ds.name)
        continue;
      json_t *d = json_object();
      json_object_set_new(d, "records", number(ds.records));
      json_object_set_new(d, "refused", number(ds.refused));
      json_object_set_new(all, ds.name, d);
    }
  }
  return all;
}

json_t *uploads(uint32_t id, const upload_counters &c) {
  size_t files;
  uint64_t bytes;
  unsent_usage(id, &files, &bytes);
  json_t *g = json_object();
  json_object_set_new(g, "zips", number(c.zips));
  json_object_set_new(g, "uploads_ok", number(c.uploads_ok));
  json_object_set_new(g, "uploads_failed", number(c.uploads_failed));
  json_object_set_new(g, "last_zip", json_string(c.last_zip));
  json_object_set_new(g, "last_upload_status", json_integer(c.last_upload_status));
  json_object_set_new(g, "unsent_files", number(files));
  json_object_set_new(g, "unsent_bytes", number(bytes));
  json_object_set_new(g, "unsent_deleted", number(unsent_counts(id).deleted));
  json_object_set_new(g, "unsent_dropped", number(unsent_counts(id).dropped));
  json_object_set_new(g, "write_errors", number(c.write_errors));
  json_object_set_new(g, "early_archives", number(c.early_archives));
  json_object_set_new(g, "dirs_replaced", number(c.dirs_replaced));
  json_object_set_new(g, "archives_in_flight_peak", number(c.in_flight_peak));
  json_object_set_new(g, "held_records", number(c.held_records));
  return g;
}

json_t *groups() {
  json_t *all = json_object();
  for (int i = 0; i < bcp_group_count(); i++) {
    const bcp_group *g = bcp_group_at(i);
    json_object_set_new(all, std::to_string(g->id).c_str(), uploads(g->id, g->uploads));
  }
  json_object_set_new(all, std::to_string(QZ2FH_STATUS_DIR_ID).c_str(),
                      uploads(QZ2FH_STATUS_DIR_ID, bjson_upload_counters()));
  return all;
}

json_t *commands() {
  json_t *all = json_object();
  for (int kind = 0; kind < COMMAND_KINDS; kind++) {
    json_t *k = json_object();
    json_object_set_new(k, "killed", number(command_killed(kind)));
    json_object_set_new(all, command_kind_name(kind), k);
  }
  return all;
}

json_t *terminals() {
  const netbar_terminal_counters &c = netbar_terminal_counts();
  json_t *t = json_object();
  json_object_set_new(t, "now", number(c.now));
  json_object_set_new(t, "peak", number(c.peak));
  json_object_set_new(t, "refused", number(c.refused));
  return t;
}

}  // namespace

int stats_write(time_t started) {
  json_t *root = json_object();
  json_object_set_new(root, "started", json_integer(static_cast<json_int_t>(started)));
  json_object_set_new(root, "now", json_integer(static_cast<json_int_t>(time(nullptr))));
  json_object_set_new(root, "feeds", feeds());
  json_object_set_new(root, "datasets", datasets());
  json_object_set_new(root, "groups", groups());
  json_object_set_new(root, "terminals", terminals());
  json_object_set_new(root, "commands", commands());
  char *text = json_dumps(root, JSON_PRESERVE_ORDER);
  json_decref(root);
  int rc = -1;
  int err = ENOMEM;
  if (text) {
    std::string data(text);
    free(text);
    data += '\n';
    // Readable by a monitoring agent of another account: counts and a
    // zip's name, nothing personal.
    rc = fixed_file_replace(QZ_STATS_PATH, data.data(), data.size(), 0644);
    err = errno;
  }
  // Once per run of failures: the file's "now" stands still meanwhile.
  static bool failing;
  if (rc != 0 && !failing)
    log_msg(WARN, "counters not written to %s: %s\n", QZ_STATS_PATH, strerror(err));
  failing = rc != 0;
  return rc;
}
