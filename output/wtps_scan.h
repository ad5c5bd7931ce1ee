// The access-point scan of the per-access-point datasets.
#pragma once

#include "frame/report_timer.h"
#include "output/bcp_record.h"
#include "output/bcp_values.h"

// Writes one per-access-point record for a scanned MAC.
using bcp_mac_writer = int (*)(const char *mac);

// Lists the access points with "wum -c wtps" and writes each MAC's record,
// logging under caller. Retry when wum could not be started.
report_result wtps_scan(bcp_mac_writer write, const char *caller);

// The context of the per-access-point record of mac, logged under func;
// with record_form the record shows the MAC in record form.
void ap_record_make(ap_record *rec, const char *func, const char *mac, bool record_form);

// Writes the record of a per-access-point dataset for one scanned MAC.
template <typename Table>
int bcp_emit_ap_record(const char *func, bcp_dataset *ds, const Table &cols, const char *mac,
                       bool record_form) {
  ap_record rec;
  ap_record_make(&rec, func, mac, record_form);
  return bcp_emit(func, ds, cols, rec);
}
