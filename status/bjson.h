// The device status report: every 300 s, which access points are present.
#pragma once

#include "frame/report_timer.h"

// Sets up the node table, the report's timer and /tmp/144.
void bjson_report_init();
// The report's timer: reads the listing, writes, uploads and deletes the
// status file. Always done: a failed listing waits for the next period.
report_result bjson_report_timer(void *arg);
