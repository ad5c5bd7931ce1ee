// The netbar group's periodic records: place, vendor, and two records per
// access point.
#include "netbar/netbar_basic.h"

#include "config/identity.h"
#include "frame/log.h"
#include "output/bcp_values.h"

namespace {

// The place: the terminal group's place record with three more empty
// columns before the vendor code, which has other texts here.
constexpr bcp_fixed_column basic_0001_tail[] = {
    {{"G020010", "ACCESS_TYPE", "场所网络接入方式"}, bcp_put_empty},
    {{"B020001", "OPERATOR_NET", "场所网络接入服务商"}, bcp_put_empty},
    {{"I070016", "AUTH_ACCOUNT", "网络接入账号或固定IP地址 ACSSES_IP"}, bcp_put_empty},
    {{"G020013", "CODE_ALLOCATION_ORGANIZATION", "安全厂商组织机构代码"}, bcp_put_org_code},
};
constexpr auto basic_0001_columns = bcp_join<bcp_fixed_record>(BCP_PLACE_COLUMNS, basic_0001_tail);

// The vendor, with other texts for its address than the terminal group's.
constexpr bcp_fixed_column basic_0002_address[] = {
    {{"G020037", "ADDRESS", "厂商地址 SECURITY_SOFTWARE_"}, bcp_put_org_address},
};
constexpr auto basic_0002_columns =
    bcp_join<bcp_fixed_record>(BCP_VENDOR_NAME_CODE, basic_0002_address, BCP_VENDOR_CONTACT);

// An access point of a fixed place.
constexpr bcp_column<ap_record> basic_0003_1_columns[] = {
    {{"I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"}, bcp_put_ap_equipment_id},
    {{"F030011", "AP_MAC", "AP设备MAC地址"}, bcp_put_ap_mac},
    {{"G020004", "NETBAR_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"F010001", "LONGITUDE", "AP设备经度"}, bcp_put_longitude},
    {{"F010002", "LATITUDE", "AP设备纬度"}, bcp_put_latitude},
    {{"F040012", "FLOOR", "楼层"}, bcp_put_empty},
};

// An access point on a vehicle or subway line.
constexpr bcp_column<ap_record> basic_0003_2_columns[] = {
    {{"I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"}, bcp_put_ap_equipment_id},
    {{"F030011", "AP_MAC", "AP设备MAC地址"}, bcp_put_ap_mac},
    {{"G020004", "NETBAR_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"F040013", "SUBWAY_STATION", "站点信息"}, bcp_put_empty},
    {{"C030006", "SUBWAY_LINE_INFO", "地铁线路信息"}, bcp_put_empty},
    {{"C030007", "SUBWAY_VEHICLE_INFO", "地铁车辆信息"}, bcp_put_empty},
    {{"C030008", "SUBWAY_COMPARTMENT_NUMBER", "地铁车厢编号"}, bcp_put_empty},
    {{"C030002", "CAR_CODE", "车牌号码"}, bcp_put_empty},
};

// The group's four datasets of these records, in the order of their writers.
bcp_dataset *basic_datasets;
enum { BASIC_0001, BASIC_0002, BASIC_0003_1, BASIC_0003_2 };

bcp_dataset *dataset(int index) { return &basic_datasets[index]; }

}  // namespace

// The writers: the place, the vendor, and two records for one scanned
// access point. They log under the names their records have always been
// logged under.
int netbar_basic_0001_write() {
  return bcp_emit("netbar_basic_0001_business_handle", dataset(BASIC_0001),
                  basic_0001_columns, bcp_fixed_record{});
}

int netbar_basic_0002_write() {
  return bcp_emit("netbar_basic_0002_business_handle", dataset(BASIC_0002),
                  basic_0002_columns, bcp_fixed_record{});
}

int netbar_basic_0003_1_write(const char *mac) {
  return bcp_emit_ap_record("netbar_basic_0003_1_business_handle", dataset(BASIC_0003_1),
                            basic_0003_1_columns, mac, true);
}

int netbar_basic_0003_2_write(const char *mac) {
  return bcp_emit_ap_record("netbar_basic_0003_2_business_handle", dataset(BASIC_0003_2),
                            basic_0003_2_columns, mac, true);
}

void netbar_basic_init(bcp_dataset *datasets) { basic_datasets = datasets; }

const bcp_dataset_decl netbar_basic_datasets[NETBAR_BASIC_DATASETS] = {
    {"WA_BASIC_FJ_0001", [] { return bcp_make_template(basic_0001_columns, BCP_STYLE_PLAIN); },
     netbar_basic_0001_write, nullptr, "netbar_basic_0001_report_timer", REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_0002", [] { return bcp_make_template(basic_0002_columns, BCP_STYLE_PLAIN); },
     netbar_basic_0002_write, nullptr, "netbar_basic_0002_report_timer", REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_0003_1", [] { return bcp_make_template(basic_0003_1_columns, BCP_STYLE_PLAIN); },
     nullptr, netbar_basic_0003_1_write, "netbar_basic_0003_1_report_timer",
     REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_0003_2", [] { return bcp_make_template(basic_0003_2_columns, BCP_STYLE_PLAIN); },
     nullptr, netbar_basic_0003_2_write, "netbar_basic_0003_2_report_timer",
     REPORT_COUNTDOWN_SECONDS},
};
