#include "output/wtps_scan.h"

#include <ctime>

#include "config/identity.h"
#include "config/wtps.h"
#include "frame/log.h"
#include "output/bcp_dataset.h"
#include "output/bcp_values.h"

namespace {

struct scan_target {
  uint32_t group;
  uint32_t index;
};

bool dispatch_mac(char *mac, void *arg) {
  const auto *t = static_cast<const scan_target *>(arg);
  bcp_dispatch_mac(t->group, t->index, mac);
  return true;
}

}  // namespace

int bcp_dispatch_mac(uint32_t group, uint32_t index, const char *mac) {
  return bcp_dispatch(group, index, 1, mac);
}

void wtps_scan(uint32_t group, uint32_t index, report_timer *timer, const char *caller) {
  scan_target target{group, index};
  switch (wtps_read(caller, dispatch_mac, &target)) {
    case WTPS_FAILED:
      log_msg_as(caller, DEBUG, "wum -c wtps fail\n");
      return;
    case WTPS_CUT:
      log_msg_as(caller, DEBUG, "mac is null\n");
      break;
    case WTPS_DONE:
      break;
  }
  timer->countdown = REPORT_COUNTDOWN_SECONDS;
}

int bcp_emit_ap_record(const char *func, bcp_dataset *ds, const bcp_column *cols, size_t count,
                       char *mac, bool record_form) {
  if (!mac)
    return 1;
  log_msg_as(func, DEBUG, "mac:%s\n", mac);
  ap_record rec;
  rec.now = static_cast<unsigned long long>(time(nullptr));
  rec.equipment_id = qz2fh_get_equipment_id(mac);
  if (record_form)
    bcp_mac_to_record_form(mac);
  rec.ap_mac = mac;
  return bcp_emit(func, ds, cols, count, &rec);
}
