// Column values shared by many datasets.
#pragma once

#include "output/bcp_record.h"

// Values that depend on no record: configuration and constants.
void bcp_put_empty(bcp_line &line);
void bcp_put_wacode(bcp_line &line);
void bcp_put_longitude(bcp_line &line);
void bcp_put_latitude(bcp_line &line);
void bcp_put_org_code(bcp_line &line);
void bcp_put_org_name(bcp_line &line);
void bcp_put_org_address(bcp_line &line);
void bcp_put_contactor(bcp_line &line);
void bcp_put_org_tel_num(bcp_line &line);
void bcp_put_org_mail(bcp_line &line);
void bcp_put_netbar_name(bcp_line &line);
void bcp_put_address(bcp_line &line);
void bcp_put_netbar_type_str(bcp_line &line);
void bcp_put_netbar_property_str(bcp_line &line);
void bcp_put_equipment_name(bcp_line &line);

// Context of the per-access-point records.
struct ap_record {
  const char *equipment_id;  // from the access point's MAC
  const char *ap_mac;        // the MAC, rewritten where the dataset wants it
  unsigned long long now;    // time the record is built
};
void bcp_put_ap_equipment_id(bcp_line &line, const void *ctx);
void bcp_put_ap_mac(bcp_line &line, const void *ctx);

// Rewrites a MAC in place into record form: ":" becomes "-", letters upper
// case (aa:bb:cc:dd:ee:0f becomes AA-BB-CC-DD-EE-0F). Doing it twice
// changes nothing.
void bcp_mac_to_record_form(char *mac);
