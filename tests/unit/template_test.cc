// Every dataset's index template against its text written out here by
// hand, byte for byte.
#include <gtest/gtest.h>

#include <string>

#include "frame/eloop.h"
#include "netbar/netbar_group.h"
#include "output/bcp_dataset.h"
#include "terminal/source_group.h"
#include "tests/unit/test_support.h"

namespace {

const std::string HEAD =
    "\n\t\t\t\t<DATA>\t\t\t\t\t\n\t\t\t\t\t<ITEM key=\"A010004\" val=\"%s\" rmk=\"数据集代码\"/>"
    "\t\t\t\t\t\n\t\t\t\t\t<ITEM key=\"B050016\" val=\"%d\" "
    "rmk=\"数据来源\"/>\t\t\t\t\t\n\t\t\t\t\t"
    "<ITEM key=\"G020013\" val=\"%s\" rmk=\"网安专用产品厂家组织机构代码\"/>\t\t\t\t\t\n\t\t\t\t\t"
    "<ITEM key=\"F010008\" val=\"%s\" rmk=\"数据采集地\"/>\t\t\t\t\t\n\t\t\t\t\t<DATASET "
    "name=\"WA_COMMON_010014\" "
    "rmk=\"BCP数据文件信息\">\t\t\t\t\t\t\n\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t\t<ITEM key=\"H040003\" val=\"\" "
    "rmk=\"文件路径\"/>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t<ITEM "
    "key=\"H010020\" val=\"%s\" rmk=\"文件名\"/>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t<ITEM "
    "key=\"I010034\" "
    "val=\"%d\" rmk=\"记录行数\"/>\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n\t\t\t\t\t</DATASET>"
    "\t\t\t\t\t\n\t\t\t\t\t<DATASET name=\"WA_COMMON_010015\" "
    "rmk=\"BCP文件数据结构\">\t\t\t\t\t\t\n"
    "\t\t\t\t\t\t<DATA>\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t";
// Between two column items: seven (or eight) tabs, a line feed, seven tabs.
const std::string S7 = "\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t";
const std::string S8 = "\t\t\t\t\t\t\t\t\n\t\t\t\t\t\t\t";
const std::string CLOSE =
    "\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\n\t\t\t\t\t</DATASET>\t\t\t\t\n\t\t\t\t</DATA>";
const std::string CLOSE_WIDE =
    "\t\t\t\t\t\t\t\n\t\t\t\t\t\t</DATA>\t\t\t\t\t\t\n\t\t\t\t\t</DATASET>\t\t\t\t\t\n\t\t\t\t</"
    "DATA>";

std::string item(const char *key, const char *eng, const char *chn) {
  return std::string("<ITEM key=\"") + key + "\" eng=\"" + eng + "\" chn=\"" + chn + "\"/>";
}

const std::string WA_BASIC_FJ_1001 =
    HEAD + item("I070011", "COLLECTION_EQUIPMENTID", "采集设备编号") + S7 +
    item("G020004", "NETBAR_WACODE", "场所编号") + S7 +
    item("F010018", "COLLECTION_EQUIPMENT_LONGITUDE", "采集设备经度") + S7 +
    item("F010019", "COLLECTION_EQUIPMENT_LATITUDE", "采集设备纬度") + S7 +
    item("H010014", "TIME", "时间") + CLOSE_WIDE;

const std::string WA_BASIC_FJ_1002 =
    HEAD + item("G020004", "NETBAR_WACODE", "场所编号") + S7 +
    item("I070011", "COLLECTION_EQUIPMENTID", "采集设备编号") + S7 +
    item("I070012", "COLLECTION_EQUIPMENT_NAME", "采集设备名称") + S7 +
    item("I070013", "COLLECTION_EQUIPMENT_ADRESS", "设备地址") + S7 +
    item("I070014", "COLLECTION_EQUIPMENT_TYPE", "采集设备类型") + S7 +
    item("G020013", "SECURITY_SOFTWARE_ORGCODE", "安全厂商组织机构代码") + S7 +
    item("F010018", "COLLECTION_EQUIPMENT_LONGITUDE", "采集设备经度") + S7 +
    item("F010019", "COLLECTION_EQUIPMENT_LATITUDE", "采集设备纬度") + S7 +
    item("I070015", "UPLOAD_TIME_INTERVAL", "上传数据间隔时间") + S7 +
    item("I070004", "COLLECTION_RADIUS", "采集半径") + S7 +
    item("C030002", "VEHICLE_CODE", "车牌号码") + S7 +
    item("C030006", "SUBWAY_LINE_INFO", "地铁线路信息") + S7 +
    item("C030007", "SUBWAY_VEHICLE_INFO", "地铁车辆信息") + S7 +
    item("C030008", "SUBWAY_COMPARTMENT_NUMBER", "地铁车厢编号") + CLOSE;

const std::string PLACE_COMMON =
    item("G020004", "NETBAR_WACODE", "上网服务场所编码") + S7 +
    item("F040002", "PLACE_NAME", "上网服务场所名称") + S7 +
    item("G020017", "SITE_ADDRESS", "场所详细地址") + S7 +
    item("F010016", "LONGITUDE", "场所经度") + S7 + item("F010017", "LATITUDE", "场所纬度") + S7 +
    item("F040011", "NETSITE_TYPE", "场所服务类型") + S7 +
    item("E010007", "BUSINESS_NATURE", "场所经营性质") + S7 +
    item("E020001", "LAW_PRINCIPAL_NAME", "场所经营法人") + S7 +
    item("E020003", "LAW_PRINCIPAL_CERTIFICATE_TYPE", "经营法人有效证件类型") + S7 +
    item("E020004", "LAW_PRINCIPAL_CERTIFICATE_ID", "经营法人有效证件号码") + S7 +
    item("B070003", "RELATIONSHIP_ACCOUNT", "联系方式") + S7 +
    item("I070009", "START_TIME", "营业开始时间") + S7 +
    item("I070010", "END_TIME", "营业结束时间");

const std::string WA_BASIC_FJ_1003 =
    HEAD + PLACE_COMMON + S7 + item("G020013", "SECURITY_SOFTWARE_ORGCODE", "厂商组织机构代码") +
    CLOSE;

const std::string WA_BASIC_FJ_0001 =
    HEAD + PLACE_COMMON + S7 + item("G020010", "ACCESS_TYPE", "场所网络接入方式") + S7 +
    item("B020001", "OPERATOR_NET", "场所网络接入服务商") + S7 +
    item("I070016", "AUTH_ACCOUNT", "网络接入账号或固定IP地址 ACSSES_IP") + S7 +
    item("G020013", "CODE_ALLOCATION_ORGANIZATION", "安全厂商组织机构代码") + CLOSE;

std::string vendor(const char *eng3, const char *chn3) {
  return HEAD + item("G020014", "SECURITY_SOFTWARE_ORGNAME", "厂商名称") + S7 +
         item("G020013", "SECURITY_SOFTWARE_ORGCODE", "厂商组织机构代码") + S7 +
         item("G020037", eng3, chn3) + S7 + item("E020017", "CONTACTOR", "联系人") + S7 +
         item("E020020", "CONTACTOR_TEL", "联系人电话") + S7 +
         item("E020023", "CONTACTOR_MAIL", "联系人邮件") + CLOSE;
}
const std::string WA_BASIC_FJ_1004 = vendor("SECURITY_SOFTWARE_ADDRESS", "厂商地址");
const std::string WA_BASIC_FJ_0002 = vendor("ADDRESS", "厂商地址 SECURITY_SOFTWARE_");

const std::string AP_COMMON = item("I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号") + S7 +
                              item("F030011", "AP_MAC", "AP设备MAC地址") + S7 +
                              item("G020004", "NETBAR_WACODE", "上网服务场所编码");
const std::string WA_BASIC_FJ_0003_1 =
    HEAD + AP_COMMON + S7 + item("F010001", "LONGITUDE", "AP设备经度") + S7 +
    item("F010002", "LATITUDE", "AP设备纬度") + S7 + item("F040012", "FLOOR", "楼层") + CLOSE;
const std::string WA_BASIC_FJ_0003_2 =
    HEAD + AP_COMMON + S7 + item("F040013", "SUBWAY_STATION", "站点信息") + S7 +
    item("C030006", "SUBWAY_LINE_INFO", "地铁线路信息") + S7 +
    item("C030007", "SUBWAY_VEHICLE_INFO", "地铁车辆信息") + S7 +
    item("C030008", "SUBWAY_COMPARTMENT_NUMBER", "地铁车厢编号") + S7 +
    item("C030002", "CAR_CODE", "车牌号码") + CLOSE;

const std::string WA_SOURCE_FJ_0001 =
    HEAD + item("B040021", "AUTH_TYPE", "认证类型") + S8 +
    item("B040022", "AUTH_ACCOUNT", "认证帐号") + S8 +
    item("G020004", "NETBAR_WACODE", "上网服务场所编码") + S8 +
    item("G020020", "NETSITE_TYPE", "上网服务场所编码") + S8 +
    item("B030004", "CERTIFICATE_TYPE", "身份证件类型") + S8 +
    item("B030005", "CERTIFICATE_CODE", "身份证件号码") + S8 +
    item("G030001", "APP_COMPANY_NAME", "APP厂商名称") + S8 +
    item("G030002", "APP_SOFTWARE_NAME", "APP应用软件名称") + S8 +
    item("G030003", "APP_VERSION", "APP版本号") + S8 + item("G030004", "APPID", "APP终端认证码") +
    S8 + item("H010015", "START_TIME", "上线时间") + S8 + item("H010016", "END_TIME", "下线时间") +
    S8 + item("F020001", "IP_ADDRESS", "场所内网IP地址") + S8 +
    item("F020004", "SRC_IP", "源外网IPv4地址") + S8 +
    item("F020010", "SRC_IPV6", "源外网IPv6地址") + S8 +
    item("F020019", "SRC_PORT_START", "源外网IPv4起始端口号") + S8 +
    item("F020020", "SRC_PORT_END", "源外网IPv4结束端口号") + S8 +
    item("F020021", "SRC_PORT_START_V6", "源外网IPv6起始端口号") + S8 +
    item("F020022", "SRC_PORT_END_V6", "源外网IPv6结束端口号") + S8 +
    item("C040002", "MAC", "终端MAC地址") + S8 +
    item("I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号") + S8 +
    item("F030011", "AP_MAC", "AP设备MAC地址") + S8 + item("F010001", "LONGITUDE", "移动AP经度") +
    S8 + item("F010002", "LATITUDE", "移动AP纬度") + S8 + item("H010013", "SESSIONID", "会话ID") +
    S8 + item("I070003", "TERMINAL_FIELD_STRENGTH", "场强") + S8 +
    item("I070001", "X_COORDINATE", "X坐标") + S8 + item("I070002", "Y_COORDINATE", "Y坐标") + S8 +
    item("B010001", "NAME", "上网人员姓名") + S8 + item("B020007", "IMSI", "终端IMSI码") + S8 +
    item("C050001", "IMEI_ESN_MEID", "终端IMSI码") + S8 + item("C020004", "OS_NAME", "终端系统") +
    S8 + item("C010002", "BRAND", "终端品牌") + S8 + item("C010003", "MODEL", "终端型号") +
    CLOSE_WIDE;

const std::string WA_SOURCE_FJ_0002 =
    HEAD + item("H010013", "SESSIONID", "会话ID") + S7 +
    item("G020004", "NETSERVERPORT_WACODE", "上网服务场所编码") + S7 +
    item("H010041", "NETWORK_APP", "网络应用服务类型") + S7 +
    item("F020001", "IP_ADDRESS", "场所内网IP地址") + S7 +
    item("F020003", "PORT", "场所内网端口号") + S7 + item("F020004", "SRC_IP", "源外网IPv4地址") +
    S7 + item("F020010", "SRC_IPV6", "源外网IPv6地址") + S7 +
    item("F020019", "SRC_PORT_START", "源外网IPv4起始端口号") + S7 +
    item("F020020", "SRC_PORT_END", "源外网IPv4结束端口号") + S7 +
    item("F020021", "SRC_PORT_START_V6", "源外网IPv6起始端口号") + S7 +
    item("F020022", "SRC_PORT_END_V6", "源外网IPv6结束端口号") + S7 +
    item("F020005", "DST_IP", "目的公网IPv4地址") + S7 +
    item("F020011", "DST_IPV6", "目的公网IPv6地址") + S7 +
    item("F020007", "DST_PORT", "目的公网IPv4端口号") + S7 +
    item("F020013", "DST_PORT_V6", "目的公网IPv6端口号") + S7 +
    item("C040002", "MAC", "终端MAC地址") + S7 +
    item("I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号") + S7 +
    item("F030011", "AP_MAC", "AP设备MAC地址") + S7 + item("F010001", "LONGITUDE", "移动AP经度") +
    S7 + item("F010002", "LATITUDE", "移动AP纬度") + S7 +
    item("H010014", "CAPTURE_TIME", "日志记录时间") + CLOSE_WIDE;

struct template_case {
  bcp_group *group;
  int index;
  const char *name;
  const std::string *expected;
  int columns;
};

const template_case cases[] = {
    {&source_group, 2, "WA_BASIC_FJ_1001", &WA_BASIC_FJ_1001, 5},
    {&source_group, 3, "WA_BASIC_FJ_1002", &WA_BASIC_FJ_1002, 14},
    {&source_group, 4, "WA_BASIC_FJ_1003", &WA_BASIC_FJ_1003, 14},
    {&source_group, 5, "WA_BASIC_FJ_1004", &WA_BASIC_FJ_1004, 6},
    {&netbar_group, 0, "WA_SOURCE_FJ_0001", &WA_SOURCE_FJ_0001, 34},
    {&netbar_group, 1, "WA_SOURCE_FJ_0002", &WA_SOURCE_FJ_0002, 21},
    {&netbar_group, 2, "WA_BASIC_FJ_0001", &WA_BASIC_FJ_0001, 17},
    {&netbar_group, 3, "WA_BASIC_FJ_0002", &WA_BASIC_FJ_0002, 6},
    {&netbar_group, 4, "WA_BASIC_FJ_0003_1", &WA_BASIC_FJ_0003_1, 6},
    {&netbar_group, 5, "WA_BASIC_FJ_0003_2", &WA_BASIC_FJ_0003_2, 8},
};

size_t count(const std::string &s, const std::string &what) {
  size_t n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1))
    n++;
  return n;
}

TEST(Templates, EveryDatasetMatchesItsTextByteForByte) {
  fake_runner run;
  run.pass_through("mkdir");
  load_test_config();
  eloop_init();
  source_group_init();
  netbar_group_init();
  for (const template_case &c : cases) {
    const bcp_dataset &ds = c.group->datasets[c.index];
    EXPECT_STREQ(ds.name, c.name);
    ASSERT_NE(ds.index_template, nullptr) << c.name;
    EXPECT_EQ(std::string(ds.index_template), *c.expected) << c.name;
    EXPECT_EQ(count(ds.index_template, "%"), 6u) << c.name;
    EXPECT_EQ(count(ds.index_template, "<ITEM key=\"") - 7, static_cast<size_t>(c.columns))
        << c.name;
  }
  // The terminal group's source datasets are registered but never write.
  EXPECT_EQ(source_group.datasets[0].index_template, nullptr);
  EXPECT_EQ(source_group.datasets[1].index_template, nullptr);
}

}  // namespace
