// The device status report: every 300 s, which access points are present.
#pragma once

// Sets up the node table, the report's timer and /tmp/144.
void bjson_report_init();
// The report's timer: reads the listing, writes, uploads and deletes the
// status file.
void bjson_report_timer(void *arg);
