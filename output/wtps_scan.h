// The access-point scan of the per-access-point datasets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "frame/report_timer.h"

// Lists the access points with "wum -c wtps" and dispatches each MAC to
// dataset index of group, logging under caller. Restores the timer's
// countdown, except when wum could not be started: then the scheduler
// tries again on its next tick.
void wtps_scan(uint32_t group, uint32_t index, report_timer *timer, const char *caller);

// Typed entry for the datasets that take one MAC.
int bcp_dispatch_mac(uint32_t group, uint32_t index, const char *mac);

struct bcp_column;
struct bcp_dataset;
// The record of a per-access-point dataset for one scanned MAC, logged
// under func. With record_form the MAC (in the scan's buffer) is first
// rewritten to record form. 1 for a null MAC.
int bcp_emit_ap_record(const char *func, bcp_dataset *ds, const bcp_column *cols, size_t count,
                       char *mac, bool record_form);
template <typename Table>
int bcp_emit_ap_record(const char *func, bcp_dataset *ds, const Table &cols, char *mac,
                       bool record_form) {
  return bcp_emit_ap_record(func, ds, std::data(cols), std::size(cols), mac, record_form);
}
