#include "output/bcp_values.h"

#include <cstring>
#include <ctime>

#include "config/config.h"
#include "config/identity.h"
#include "frame/log.h"

void bcp_put_empty(bcp_line &) {}
void bcp_put_wacode(bcp_line &l) { l.put(qz2fh_get_netbar_wacode()); }
void bcp_put_longitude(bcp_line &l) { l.put(qz2fh_get_longitude()); }
void bcp_put_latitude(bcp_line &l) { l.put(qz2fh_get_latitude()); }
void bcp_put_org_code(bcp_line &l) { l.put(qz2fh_get_org_code()); }
void bcp_put_org_name(bcp_line &l) { l.put(qz2fh_get_org_name()); }
void bcp_put_org_address(bcp_line &l) { l.put(qz2fh_get_org_address()); }
void bcp_put_contactor(bcp_line &l) { l.put(qz2fh_get_contactor()); }
void bcp_put_org_tel_num(bcp_line &l) { l.put(qz2fh_get_org_tel_num()); }
void bcp_put_org_mail(bcp_line &l) { l.put(qz2fh_get_org_mail()); }
void bcp_put_netbar_name(bcp_line &l) { l.put(qz2fh_get_netbar_name()); }
void bcp_put_address(bcp_line &l) { l.put(qz2fh_get_address()); }
void bcp_put_netbar_type_str(bcp_line &l) { l.put(qz2fh_get_netbar_type_str()); }
void bcp_put_netbar_property_str(bcp_line &l) { l.put(qz2fh_get_netbar_property_str()); }
void bcp_put_equipment_name(bcp_line &l) { l.put(qz2fh_get_equipment_name()); }

void bcp_put_ap_equipment_id(bcp_line &l, const ap_record &rec) { l.put(rec.equipment_id); }
void bcp_put_ap_mac(bcp_line &l, const ap_record &rec) { l.put(rec.ap_mac); }

void bcp_mac_record_form(const char *mac, char *out, size_t size) {
  if (size == 0)
    return;
  const size_t n = strnlen(mac, size - 1);
  for (size_t i = 0; i < n; i++) {
    const char c = mac[i];
    out[i] = c == ':' ? '-' : c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  out[n] = '\0';
}

void bcp_ap_record_make(ap_record *rec, const char *func, const char *mac, bool record_form) {
  log_msg_as(func, DEBUG, "mac:%s\n", mac);
  rec->now = static_cast<unsigned long long>(time(nullptr));
  rec->equipment_id = qz2fh_get_equipment_id(mac);
  rec->ap_mac = mac;
  if (record_form) {
    bcp_mac_record_form(mac, rec->record_form, sizeof(rec->record_form));
    rec->ap_mac = rec->record_form;
  }
}
