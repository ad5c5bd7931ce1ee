// The device status report: every 300 s, which access points are present.
#pragma once

#include <cstdint>

#include "frame/report_timer.h"
#include "output/spool.h"

// The report's spool directory and its id among the groups' counters; the
// report is not a dataset group.
constexpr uint32_t QZ2FH_STATUS_DIR_ID = 144;

// Sets up the node table, the report's timer and /tmp/144.
void bjson_report_init();
// The report's timer: reads the listing, writes, uploads and deletes the
// status file. Always done: a failed listing waits for the next period.
report_result bjson_report_timer(void *arg);
// What became of the status files.
const upload_counters &bjson_upload_counters();
