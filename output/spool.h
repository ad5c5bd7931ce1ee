// Spool directories and upload, through standard shell commands.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SPOOL_PATH_SIZE = 256;

// A spool directory, /tmp/<id>: where a group's files, or the status
// report's, wait to be zipped and sent. Its path is also the remote
// directory of its uploads.
struct spool_dir {
  char path[SPOOL_PATH_SIZE];
};
// The status report's spool directory and its id among the groups'
// counters; the report is not a dataset group.
constexpr uint32_t QZ2FH_STATUS_DIR_ID = 144;

// The spool directory of id: the one place its path is made.
spool_dir spool_dir_of(uint32_t id);

// What became of a spool's uploads, counted since start.
struct upload_counters {
  uint64_t zips;  // files formed for upload (zips, or status files)
  uint64_t uploads_ok;
  uint64_t uploads_failed;
  char last_zip[SPOOL_PATH_SIZE];  // name of the last file formed
  int last_upload_status;          // see upload_status; 0 before any upload
  uint64_t write_errors;           // writes that failed (records, index, status file)
  uint64_t early_archives;         // cycles archived before their time
  uint64_t dirs_replaced;          // spool directories made again or moved aside
  uint64_t in_flight_peak;         // most archives in flight or due at once (2: one fell due
                                   // while the one before was still in flight)
  uint64_t held_records;           // records written while the last cycle was being sent
};

// Makes the spool directory one of the daemon's own (see trusted_dir_ensure),
// counting a directory made again or moved aside. True when it is usable.
bool spool_dir_check(const spool_dir &dir, upload_counters *counters, bool warn_missing);

// The exit status of an upload command from its wait status: 0 when it
// succeeded, wput's own status when it failed, -1 when it could not run,
// was killed or was not run at all.
int upload_status(int wait_status);

// The spool's commands, each built into cmd (COMMAND_SIZE bytes) and
// logged at DEBUG as it has always been; false (logged at ERROR, nothing
// to run) when it does not fit.
constexpr size_t COMMAND_SIZE = 512;
// "rm <dir>/* 2>/dev/null".
bool spool_rm_command(const spool_dir &dir, char *cmd);
// Moves every file of the spool directory into the zip of that name there.
bool spool_zip_command(const spool_dir &dir, const char *zip_name, char *cmd);
// Uploads a file with wput to the configured FTP server, into the remote
// directory named after dir (the password masked in the log).
bool spool_upload_command(const char *local_path, const spool_dir &dir, char *cmd);

// The same commands run while the caller waits (start-up and stop):
// "mkdir <dir> 2>/dev/null"; the rm and the zip, returning their wait
// status.
void qz2fh_create_dir(const spool_dir &dir);
int qz2fh_delete_dir_file(const spool_dir &dir);
int qz2fh_form_zip_file(const spool_dir &dir, const char *zip_name);
