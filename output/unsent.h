// Durable mode's store of files that could not be uploaded: each group's
// are kept under <fh_unsent_dir>/<group id>/ with their own names, so that
// a later upload delivers exactly the file the platform missed. Nothing
// here is used unless the configuration names the directory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "output/spool.h"

// At most this many files and bytes are kept per group; beyond them the
// oldest files are deleted.
constexpr size_t UNSENT_MAX_FILES = 64;
constexpr uint64_t UNSENT_MAX_BYTES = 16 * 1024 * 1024;
// A kept file's path: the directory (at most 128), the group and the name.
constexpr size_t UNSENT_PATH_SIZE = 512;

// True when "fh_unsent_dir" is set.
bool unsent_enabled();

// True when name is one the daemon gives the files it keeps for the
// group: its zips, or for the status report its status files. Nothing else
// in the store is sent, counted or deleted.
bool unsent_own_name(uint32_t id, const char *name);
// Durable mode's start-up, before any group: the configured directory must
// be a directory of the daemon's own with mode 0700, or absent (it is then
// made, 0700, with its missing parents 0755), and must not lead into /tmp
// or a spool directory through links. Anything else is refused with an
// ERROR line naming the key and why, and changed in no way. 0 or -1.
int unsent_store_open();
// Durable mode's start-up: makes the group's directory in the store, one
// of the daemon's own. 0, or -1 (logged).
int unsent_prepare(uint32_t id);

// The group's directory, "<fh_unsent_dir>/<id>" (no slash at the end), into
// dir. False when it does not fit.
bool unsent_dir_of(uint32_t id, char *dir, size_t size);

// Moves the file at path into the group's directory under its own name, or
// "<name>.<n>" when a kept file has that name (across file systems by
// copy, made whole before it gets its name). First the oldest kept files
// of any group are deleted until the store's file system keeps a quarter
// of its size free with the file in; then the group's oldest files beyond
// its bounds. Each deletion is a WARN line. 0, or -1 when the file could
// not be kept: it is then deleted, counted and logged at ERROR.
int unsent_keep(uint32_t id, const char *path);

// What the store did with a group's files beyond keeping them.
struct unsent_counters {
  uint64_t deleted;  // kept files deleted to keep the bounds or make room
  uint64_t dropped;  // files that could not be kept
};
const unsent_counters &unsent_counts(uint32_t id);

// Durable mode: keeps every zip (status file for 144) of the daemon's own
// in a spool directory (files a stopped run could not send); nothing
// otherwise.
void unsent_keep_leftovers(uint32_t id, const spool_dir &dir);

struct unsent_file {
  char path[UNSENT_PATH_SIZE];
  size_t name_at;  // where the name begins in path
  uint64_t size;
  int64_t written_ns;  // time of writing
  const char *name() const { return path + name_at; }
};
// The group's kept files, oldest first (by time of writing, then name).
std::vector<unsent_file> unsent_files(uint32_t id);

// Removes a kept file once it has been delivered.
void unsent_delivered(const unsent_file &file);

// Files and bytes the group keeps now.
void unsent_usage(uint32_t id, size_t *files, uint64_t *bytes);

// Kept files sent again after a group's own upload, at most this many.
constexpr int UNSENT_RESEND_MAX = 4;
