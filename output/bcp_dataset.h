// Datasets, their groups and the BCP writing frame: every record of the
// daemon reaches its file through bcp_write_line.
#pragma once

#include <cstdint>
#include <cstdio>

#include "frame/command.h"
#include "frame/report_timer.h"
#include "output/spool.h"
#include "output/upload.h"

constexpr uint32_t QZ2FH_TERMINAL_TYPE = 146;
constexpr uint32_t QZ2FH_NETBAR_TYPE = 145;

constexpr uint16_t BCP_MAX_RECORDS = 5000;
constexpr int BCP_FILE_LIST_SIZE = 256;
constexpr int BCP_GROUP_DATASETS = 6;
constexpr size_t BCP_NAME_SIZE = 256;

struct bcp_dataset;
struct bcp_group;
struct bcp_line_plan;

// A dataset as its group declares it, in one table per group: its code,
// how its index template is built, and how its records are made. Datasets
// fed by events have no writer here; those that never write have no
// template either.
struct bcp_dataset_decl {
  const char *name;                  // dataset code
  const char *(*index_template)();   // built once at set-up; null: never writes
  int (*write)();                    // its periodic record of fixed values, or null
  int (*write_ap)(const char *mac);  // or its record per listed access point, or null
  const char *timer_name;            // what its periodic job logs under
  uint32_t period;                   // seconds between runs of its periodic job
};

struct bcp_dataset {
  FILE *fp;                    // current file, null while none is open
  const char *name;            // dataset code
  const char *index_template;  // printf template of its index block; null if it never writes
  uint16_t record_count;       // records in the current file
  char file_name[BCP_NAME_SIZE];
  uint16_t bcp_sequence;  // sequence number of the next file, wrapping
  bcp_group *group;       // set by bcp_group_init
  bcp_line_plan *plan;    // its line's fixed parts, made on first use
  uint64_t records;       // lines written since start that are still to be sent or were
  uint64_t refused;       // records refused or lost since start
  uint64_t unreported;    // records lost since the last ERROR line about them
  int last_error;         // errno of the last loss
  uint64_t file_bytes;    // bytes written to the current file
  const bcp_dataset_decl *decl;  // how it is written; null for a test's own
  report_timer timer;            // its periodic job, when it has a writer
  command_job scan;              // its access-point listing, while one runs
};

struct bcp_file_entry {
  char file_name[BCP_NAME_SIZE];
  uint16_t record_count;
  const char *index_template;
  const char *name;
};

struct bcp_group_state {
  uint16_t zip_sequence;
  char zip_name[BCP_NAME_SIZE];
};

// One dataset group: its datasets, the files finished in the current
// cycle, its spool directory, its archive state and its archive timer.
struct bcp_group {
  uint32_t id;
  spool_dir spool;
  const char *log_tag;     // e.g. "QZ2FH_TERMINAL_TYPE"
  const char *cycle_name;  // name under which the archive cycle logs
  bcp_dataset datasets[BCP_GROUP_DATASETS];
  bcp_file_entry bcp_file_list[BCP_FILE_LIST_SIZE];
  uint16_t bcp_file_count;
  bcp_group_state state;
  report_timer timer;
  upload_counters uploads;
  uint64_t spool_bytes;  // bytes of this cycle's files in the spool directory
  uint64_t spool_bound;  // the most they may take before the group is archived early
  bool archive_due;      // bounds reached: archive once the handler has returned
  bool archive_stuck;    // an early archive left the bounds reached: wait for the cycle
  // The archive in flight: its zip is made, sent and the spool emptied
  // beside the loop, while new records go into the next cycle's files
  // under <spool>/.next (held), moved into the spool once it is emptied.
  upload_tail tail;
  bool in_flight;
  bool held;
  bool by_timer;      // the archive in flight is the timer's run
  bool timer_waits;   // the timer fell due meanwhile: its run follows
  uint16_t flight_files;  // the first entries of the file list are in the zip in flight
  uint64_t flight_bytes;  // and these bytes of the spool
};

// A spool directory takes at most this, and at most a quarter of its file
// system, within one cycle.
constexpr uint64_t BCP_SPOOL_MAX_BYTES = 16 * 1024 * 1024;

// Groups in the order they were set up (for the counters and for flushing).
constexpr int BCP_MAX_GROUPS = 4;
int bcp_group_count();
bcp_group *bcp_group_at(int index);

// Names the group, links its datasets to it, schedules its archive timer
// (archive_timer with the group as argument) every 300 s, and empties and
// creates its spool directory (and the next cycle's files a stopped run
// left under it). Groups live in zeroed static storage (their
// lists are large) and get their identity here. With decls, its datasets
// are then set up from that table, in order, each writer with its periodic
// job in the group's records phase.
void bcp_group_init(bcp_group *group, uint32_t id, const char *log_tag, const char *cycle_name,
                    report_result (*archive_timer)(void *),
                    const bcp_dataset_decl *decls = nullptr, int count = 0);
// Fills a dataset descriptor: no open file, its code and template.
void bcp_dataset_init(bcp_dataset *ds, const char *name, const char *index_template);

// The writing frame: opens the dataset's next file if none is open,
// appends the line, and finishes the file at BCP_MAX_RECORDS. 0, or 1 when
// the line could not be written whole (it is then not in the file, and
// counted as refused). Marks the group for an early archive when its file
// list or its spool directory is nearly full.
int bcp_write_line(bcp_dataset *ds, const char *line, size_t len);
// Appends a finished file to its group's list.
void bcp_file_list_add(bcp_dataset *ds);
// Closes the group's open files and lists them with the lines they hold.
void bcp_close_open_files(bcp_group *group);
// Counts the records of a listed file that will not reach the platform.
void bcp_file_lost(bcp_group *group, const bcp_file_entry &entry, int error);

// Cuts a record file back to its last whole line. The lines it then
// holds and its size in bytes, or -1 when it cannot be read as a file of
// the daemon's own (it is then deleted).
long bcp_cut_to_whole_lines(const char *path, uint64_t *bytes);

// True when a group waits for its early archive (archive_run_due).
bool bcp_archive_pending();
// After a cycle whose zip failed: each dataset's last listed file that is
// not full becomes its open file again, so that the next cycle's records
// go on in it and every dataset keeps one file a cycle after its full ones.
void bcp_reopen_last_files(bcp_group *group);
// True when the group's spool directory or file list has reached the bound
// that starts an early archive.
bool bcp_bounds_reached(const bcp_group *group);
// Every tick: the groups' spool directories are checked (one that has gone
// is made again), open files whose directory was removed are counted as
// lost, and one ERROR line per dataset tells what was lost since the last.
void bcp_tick();
// The group's bound on its spool directory, from its file system's size.
void bcp_spool_bound_update(bcp_group *group);

// The path of a file of the group's current cycle: in the spool, or under
// .next while the last cycle is in flight. False when it does not fit.
bool bcp_file_path(const bcp_group *group, const char *name, char *path, size_t size);
// The archive in flight takes the listed files: new files go under .next
// until bcp_release; the list's first entries are the zip's.
void bcp_hold(bcp_group *group);
// The zip in flight is done with its files (formed, or lost): their
// entries leave the list.
void bcp_drop_flight_files(bcp_group *group);
// The next cycle's files move into the spool directory (a stopped run's
// too, at start-up; with keep false they are deleted instead).
void bcp_release(bcp_group *group, bool keep = true);

// Durable mode: writes every record line written so far to its file, so
// that a crash loses nothing the loop has finished handling. Cheap when
// nothing was written since the last call.
void bcp_flush_written();
