#include "output/wtps_scan.h"

#include <ctime>

#include "config/identity.h"
#include "config/wtps.h"
#include "frame/log.h"

report_result wtps_scan(bcp_mac_writer write, const char *caller) {
  switch (wtps_read(caller, [write](const char *mac) {
    write(mac);
    return true;
  })) {
    case WTPS_FAILED:
      log_msg_as(caller, DEBUG, "wum -c wtps fail\n");
      return report_result::retry;
    case WTPS_CUT:
      log_msg_as(caller, DEBUG, "mac is null\n");
      break;
    case WTPS_DONE:
      break;
  }
  return report_result::done;
}

void ap_record_make(ap_record *rec, const char *func, const char *mac, bool record_form) {
  log_msg_as(func, DEBUG, "mac:%s\n", mac);
  rec->now = static_cast<unsigned long long>(time(nullptr));
  rec->equipment_id = qz2fh_get_equipment_id(mac);
  rec->ap_mac = mac;
  if (record_form) {
    bcp_mac_record_form(mac, rec->record_form, sizeof(rec->record_form));
    rec->ap_mac = rec->record_form;
  }
}
