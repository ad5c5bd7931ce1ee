#include "output/wtps_scan.h"

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

