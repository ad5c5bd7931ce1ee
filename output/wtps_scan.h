// The access-point scan of the per-access-point datasets.
#pragma once

#include "frame/report_timer.h"

// Writes one per-access-point record for a scanned MAC.
using bcp_mac_writer = int (*)(const char *mac);

// Lists the access points with "wum -c wtps" and writes each MAC's record,
// logging under caller. Retry when wum could not be started.
report_result wtps_scan(bcp_mac_writer write, const char *caller);

