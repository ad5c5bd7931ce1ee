// The device status report: every 300 s, which access points are present.
#pragma once

#include <cstdint>

#include "frame/report_timer.h"
#include "output/spool.h"

// Sets up the node table, the report's timer and /tmp/144. 0, or -1 when
// the table could not be made.
int bjson_report_init();
// The report's timer: reads the listing, writes, uploads and deletes the
// status file. Always done: a failed listing waits for the next period.
report_result bjson_report_timer(void *arg);
// Every tick: /tmp/144 is made again if it has gone.
void bjson_tick();
// What became of the status files.
const upload_counters &bjson_upload_counters();
