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
};

// Makes the spool directory one of the daemon's own (see trusted_dir_ensure),
// counting a directory made again or moved aside. True when it is usable.
bool spool_dir_check(const spool_dir &dir, upload_counters *counters, bool warn_missing);

// The exit status of an upload command from its wait status: 0 when it
// succeeded, wput's own status when it failed, -1 when it could not run,
// was killed or was not run at all.
int upload_status(int wait_status);

// "mkdir <dir> 2>/dev/null".
void qz2fh_create_dir(const spool_dir &dir);
// "rm <dir>/* 2>/dev/null"; returns the command's wait status.
int qz2fh_delete_dir_file(const spool_dir &dir);
// Moves every file of the spool directory into the zip of that name
// there. Returns the command's wait status.
int qz2fh_form_zip_file(const spool_dir &dir, const char *zip_name);
// Uploads the zip of that name in the spool directory with wput to the
// configured FTP server; returns the upload's status (upload_status).
int qz2fh_send_zip_file(const spool_dir &dir, const char *zip_name);
// Uploads a file the same way to the remote directory named after dir (the
// status report, and kept files).
int qz2fh_send_file(const char *local_path, const spool_dir &dir);
