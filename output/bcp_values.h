// Column values shared by many datasets.
#pragma once

#include <cstddef>

#include "config/identity.h"
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

// Context of the per-access-point records: one scanned MAC. Not copied:
// ap_mac may point into it.
struct ap_record {
  ap_record() = default;
  ap_record(const ap_record &) = delete;
  ap_record &operator=(const ap_record &) = delete;
  const char *equipment_id;               // from the access point's MAC
  const char *ap_mac;                     // the MAC as the record shows it
  unsigned long long now;                 // time the record is built
  char record_form[QZ_MAC_TEXT_MAX + 1];  // the MAC in record form, where a dataset shows that
};
void bcp_put_ap_equipment_id(bcp_line &line, const ap_record &rec);
// The context of the per-access-point record of mac, logged under func;
// with record_form the record shows the MAC in record form.
void bcp_ap_record_make(ap_record *rec, const char *func, const char *mac, bool record_form);
void bcp_put_ap_mac(bcp_line &line, const ap_record &rec);

// Writes the record form of a MAC into out (cut to size): ":" becomes
// "-", letters upper case (aa:bb:cc:dd:ee:0f gives AA-BB-CC-DD-EE-0F). The
// record form of a record form is itself.
void bcp_mac_record_form(const char *mac, char *out, size_t size);

// Runs of columns that the two groups' place and vendor records share.
// The place: the first thirteen columns of both place records.
inline constexpr bcp_fixed_column BCP_PLACE_COLUMNS[] = {
    {{"G020004", "NETBAR_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"F040002", "PLACE_NAME", "上网服务场所名称"}, bcp_put_netbar_name},
    {{"G020017", "SITE_ADDRESS", "场所详细地址"}, bcp_put_address},
    {{"F010016", "LONGITUDE", "场所经度"}, bcp_put_longitude},
    {{"F010017", "LATITUDE", "场所纬度"}, bcp_put_latitude},
    {{"F040011", "NETSITE_TYPE", "场所服务类型"}, bcp_put_netbar_type_str},
    {{"E010007", "BUSINESS_NATURE", "场所经营性质"}, bcp_put_netbar_property_str},
    {{"E020001", "LAW_PRINCIPAL_NAME", "场所经营法人"}, bcp_put_empty},
    {{"E020003", "LAW_PRINCIPAL_CERTIFICATE_TYPE", "经营法人有效证件类型"}, bcp_put_empty},
    {{"E020004", "LAW_PRINCIPAL_CERTIFICATE_ID", "经营法人有效证件号码"}, bcp_put_empty},
    {{"B070003", "RELATIONSHIP_ACCOUNT", "联系方式"}, bcp_put_empty},
    {{"I070009", "START_TIME", "营业开始时间"}, bcp_put_empty},
    {{"I070010", "END_TIME", "营业结束时间"}, bcp_put_empty},
};
// The vendor: its name and code, then (after its address, whose texts
// differ between the groups) its contact.
inline constexpr bcp_fixed_column BCP_VENDOR_NAME_CODE[] = {
    {{"G020014", "SECURITY_SOFTWARE_ORGNAME", "厂商名称"}, bcp_put_org_name},
    {{"G020013", "SECURITY_SOFTWARE_ORGCODE", "厂商组织机构代码"}, bcp_put_org_code},
};
inline constexpr bcp_fixed_column BCP_VENDOR_CONTACT[] = {
    {{"E020017", "CONTACTOR", "联系人"}, bcp_put_contactor},
    {{"E020020", "CONTACTOR_TEL", "联系人电话"}, bcp_put_org_tel_num},
    {{"E020023", "CONTACTOR_MAIL", "联系人邮件"}, bcp_put_org_mail},
};

// Writes the record of a per-access-point dataset for one scanned MAC.
template <typename Table>
int bcp_emit_ap_record(const char *func, bcp_dataset *ds, const Table &cols, const char *mac,
                       bool record_form) {
  ap_record rec;
  bcp_ap_record_make(&rec, func, mac, record_form);
  return bcp_emit(func, ds, cols, rec);
}
