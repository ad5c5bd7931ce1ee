#include "terminal/source_group.h"

#include <iterator>

#include "config/config.h"
#include "config/identity.h"
#include "frame/log.h"
#include "output/archive.h"
#include "output/bcp_values.h"

bcp_group source_group;

namespace {

enum {
  SOURCE_1001,
  SOURCE_1002,
  BASIC_1001,
  BASIC_1002,
  BASIC_1003,
  BASIC_1004,
};

void put_ap_time(bcp_line &l, const ap_record &rec) { l.put_decimal(rec.now); }
void put_equipment_type(bcp_line &l) { l.put_signed(qz2fh_get_equipment_type()); }
void put_upload_interval(bcp_line &l) { l.put_signed(300); }
void put_collection_radius(bcp_line &l) { l.put_signed(150); }

// Access-point presence.
constexpr bcp_column<ap_record> basic_1001_columns[] = {
    {{"I070011", "COLLECTION_EQUIPMENTID", "采集设备编号"}, bcp_put_ap_equipment_id},
    {{"G020004", "NETBAR_WACODE", "场所编号"}, bcp_put_wacode},
    {{"F010018", "COLLECTION_EQUIPMENT_LONGITUDE", "采集设备经度"}, bcp_put_longitude},
    {{"F010019", "COLLECTION_EQUIPMENT_LATITUDE", "采集设备纬度"}, bcp_put_latitude},
    {{"H010014", "TIME", "时间"}, put_ap_time},
};

// Collection equipment, one per access point.
constexpr bcp_column<ap_record> basic_1002_columns[] = {
    {{"G020004", "NETBAR_WACODE", "场所编号"}, bcp_put_wacode},
    {{"I070011", "COLLECTION_EQUIPMENTID", "采集设备编号"}, bcp_put_ap_equipment_id},
    {{"I070012", "COLLECTION_EQUIPMENT_NAME", "采集设备名称"}, bcp_put_equipment_name},
    {{"I070013", "COLLECTION_EQUIPMENT_ADRESS", "设备地址"}, bcp_put_address},
    {{"I070014", "COLLECTION_EQUIPMENT_TYPE", "采集设备类型"}, put_equipment_type},
    {{"G020013", "SECURITY_SOFTWARE_ORGCODE", "安全厂商组织机构代码"}, bcp_put_org_code},
    {{"F010018", "COLLECTION_EQUIPMENT_LONGITUDE", "采集设备经度"}, bcp_put_longitude},
    {{"F010019", "COLLECTION_EQUIPMENT_LATITUDE", "采集设备纬度"}, bcp_put_latitude},
    {{"I070015", "UPLOAD_TIME_INTERVAL", "上传数据间隔时间"}, put_upload_interval},
    {{"I070004", "COLLECTION_RADIUS", "采集半径"}, put_collection_radius},
    {{"C030002", "VEHICLE_CODE", "车牌号码"}, bcp_put_empty},
    {{"C030006", "SUBWAY_LINE_INFO", "地铁线路信息"}, bcp_put_empty},
    {{"C030007", "SUBWAY_VEHICLE_INFO", "地铁车辆信息"}, bcp_put_empty},
    {{"C030008", "SUBWAY_COMPARTMENT_NUMBER", "地铁车厢编号"}, bcp_put_empty},
};

// The place.
constexpr bcp_fixed_column basic_1003_vendor_code[] = {
    {{"G020013", "SECURITY_SOFTWARE_ORGCODE", "厂商组织机构代码"}, bcp_put_org_code},
};
constexpr auto basic_1003_columns =
    bcp_join<bcp_fixed_record>(BCP_PLACE_COLUMNS, basic_1003_vendor_code);

// The vendor.
constexpr bcp_fixed_column basic_1004_address[] = {
    {{"G020037", "SECURITY_SOFTWARE_ADDRESS", "厂商地址"}, bcp_put_org_address},
};
constexpr auto basic_1004_columns =
    bcp_join<bcp_fixed_record>(BCP_VENDOR_NAME_CODE, basic_1004_address, BCP_VENDOR_CONTACT);

bcp_dataset *dataset(int index) { return &source_group.datasets[index]; }

}  // namespace

// Writers log under the names their records have always been logged under.
int source_basic_1001_write(const char *mac) {
  return bcp_emit_ap_record("source_basic_1001_business_handle", dataset(BASIC_1001),
                            basic_1001_columns, mac, false);
}

int source_basic_1002_write(const char *mac) {
  return bcp_emit_ap_record("source_basic_1002_business_handle", dataset(BASIC_1002),
                            basic_1002_columns, mac, false);
}

int source_basic_1003_write() {
  return bcp_emit("source_basic_1003_business_handle", dataset(BASIC_1003), basic_1003_columns,
                  bcp_fixed_record{});
}

int source_basic_1004_write() {
  return bcp_emit("source_basic_1004_business_handle", dataset(BASIC_1004), basic_1004_columns,
                  bcp_fixed_record{});
}

namespace {

// The group's datasets, in index order. The two source datasets are
// registered but never write.
const bcp_dataset_decl source_datasets[] = {
    {"WA_SOURCE_FJ_1001", nullptr, nullptr, nullptr, nullptr, 0},
    {"WA_SOURCE_FJ_1002", nullptr, nullptr, nullptr, nullptr, 0},
    {"WA_BASIC_FJ_1001",
     [] { return bcp_make_template(basic_1001_columns, BCP_STYLE_WIDE_CLOSE); }, nullptr,
     source_basic_1001_write, "source_basic_1001_report_timer", REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_1002", [] { return bcp_make_template(basic_1002_columns, BCP_STYLE_PLAIN); },
     nullptr, source_basic_1002_write, "source_basic_1002_report_timer",
     REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_1003", [] { return bcp_make_template(basic_1003_columns, BCP_STYLE_PLAIN); },
     source_basic_1003_write, nullptr, "source_basic_1003_report_timer",
     REPORT_COUNTDOWN_SECONDS},
    {"WA_BASIC_FJ_1004", [] { return bcp_make_template(basic_1004_columns, BCP_STYLE_PLAIN); },
     source_basic_1004_write, nullptr, "source_basic_1004_report_timer",
     REPORT_COUNTDOWN_SECONDS},
};
static_assert(std::size(source_datasets) == BCP_GROUP_DATASETS, "six datasets");

}  // namespace

int source_group_init() {
  bcp_group_init(&source_group, QZ2FH_TERMINAL_TYPE, "QZ2FH_TERMINAL_TYPE", "source_report_timer",
                 group_archive_timer, source_datasets, BCP_GROUP_DATASETS);
  return 0;
}
