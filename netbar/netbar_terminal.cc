// The online/offline feed: another program of the router tells the daemon
// by datagram when a terminal comes online or goes offline.
#include "netbar/netbar_terminal.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "config/config.h"
#include "config/identity.h"
#include "frame/eloop.h"
#include "frame/feed.h"
#include "frame/fixed_file.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "frame/report_timer.h"
#include "frame/str_table.h"
#include "frame/text.h"
#include "output/bcp_values.h"

namespace {

constexpr size_t SHELL_HEADER = 4;
bcp_dataset *source_0001;  // where the feed's records go

struct auth_type_entry {
  uint16_t id;
  char code[32];
};

constexpr auth_type_entry auth_type_map[] = {
    {1, "1029999"},  {3, "1029999"},  {4, "1020004"},  {5, "1029999"},   {6, "1029999"},
    {7, "1029999"},  {8, "1029999"},  {9, "1029999"},  {10, "1029999"},  {11, "1029999"},
    {12, "1029999"}, {14, "1029999"}, {99, "1020001"}, {100, "1029999"},
};

// The authentication type whose message carries an account in token 5.
constexpr uint16_t AUTH_TYPE_WITH_ACCOUNT = 4;

GHashTable *netbar_terminal_table;
// Oldest and newest of the table's entries, linked through their records.
netbar_terminal *oldest;
netbar_terminal *newest;
netbar_terminal_counters counters;
uint64_t reported_refused;
report_timer terminal_report;

void age_list_append(netbar_terminal *t) {
  t->older = newest;
  t->newer = nullptr;
  (newest ? newest->newer : oldest) = t;
  newest = t;
}

void age_list_remove(netbar_terminal *t) {
  (t->older ? t->older->newer : oldest) = t->newer;
  (t->newer ? t->newer->older : newest) = t->older;
  t->older = t->newer = nullptr;
}

// Every change of the table goes through these two, which keep the age
// list and the counters with it.
void terminal_put(netbar_terminal *t) {
  auto *old = static_cast<netbar_terminal *>(str_table_get(netbar_terminal_table, t->key));
  if (old) {
    age_list_remove(old);
  } else if (++counters.now > counters.peak) {
    counters.peak = counters.now;
  }
  age_list_append(t);
  str_table_put(netbar_terminal_table, t->key, t);
}

void terminal_del(netbar_terminal *t) {
  age_list_remove(t);
  counters.now--;
  str_table_del(netbar_terminal_table, t->key);
}

// A new terminal and a full table: the longest online goes, with its
// offline record.
void make_room(const char *key) {
  if (counters.now < NETBAR_TERMINALS_MAX || !oldest || str_table_get(netbar_terminal_table, key))
    return;
  netbar_0001_write(false, *oldest);
  terminal_del(oldest);
  counters.refused++;
}

// Every tick: the table's bound reported, and the route's address probed
// until found (records only read it).
report_result terminal_report_timer(void *) {
  netbar_terminal_report();
  qz2fh_route_probe();
  return report_result::done;
}

// The type number as atoi reads it; a number out of range matches nothing.
const auth_type_entry *auth_lookup(std::string_view token) {
  char text[12];
  if (token.size() >= sizeof(text))
    return nullptr;
  memcpy(text, token.data(), token.size());
  text[token.size()] = '\0';
  const long id = strtol(text, nullptr, 10);
  for (const auth_type_entry &e : auth_type_map)
    if (e.id == id)
      return &e;
  return nullptr;
}

// False for a message refused as unusable.
bool netbar_terminal_offline(const netbar_shell_msg &msg) {
  char mac[QZ_MAC_TEXT_MAX + 1];
  if (msg.count < 1 || !qz2fh_mac_text_ok(msg.tokens[0]) ||
      !text_copy(msg.tokens[0], mac, sizeof(mac))) {
    log_msg(DEBUG, "offline msg refused: no usable mac\n");
    return false;
  }
  auto *rec = static_cast<netbar_terminal *>(str_table_get(netbar_terminal_table, mac));
  if (!rec)
    return true;
  netbar_0001_write(false, *rec);
  terminal_del(rec);
  return true;
}

const char *online_refusal(const netbar_shell_msg &msg) {
  if (msg.count < 3)
    return "fewer than 3 tokens";
  if (!qz2fh_mac_text_ok(msg.tokens[0]))
    return "unusable mac";
  if (msg.tokens[1].size() >= sizeof(netbar_terminal::ip))
    return "ip too long";
  return nullptr;
}

// Tokens that do not fit their fields are refused, not cut: a cut MAC or
// account would be a wrong value in a record. False for a message refused
// as unusable.
bool netbar_terminal_online(const netbar_shell_msg &msg) {
  auto *rec = static_cast<netbar_terminal *>(calloc(1, sizeof(netbar_terminal)));
  if (!rec)
    return true;
  log_msg(DEBUG, "online msg: %s\n", msg.text);
  if (const char *why = online_refusal(msg)) {
    log_msg(DEBUG, "online msg refused: %s\n", why);
    free(rec);
    return false;
  }
  text_copy(msg.tokens[0], rec->key, sizeof(rec->key));
  text_copy(msg.tokens[1], rec->ip, sizeof(rec->ip));

  const wifi_info *wifi = qz2fh_get_wifi_info(rec->key);
  if (!wifi) {
    free(rec);
    return true;
  }
  rec->online_time = static_cast<unsigned long long>(time(nullptr));
  memcpy(rec->ap_mac, wifi->ap_mac, sizeof(rec->ap_mac));
  memcpy(rec->field_strength, wifi->field_strength, sizeof(rec->field_strength));

  const auth_type_entry *auth = auth_lookup(msg.tokens[2]);
  if (!auth) {
    free(rec);
    return false;
  }
  memcpy(rec->auth_type, auth->code, sizeof(rec->auth_type) - 1);
  if (auth->id == AUTH_TYPE_WITH_ACCOUNT) {
    if (msg.count < 5 || !text_printable(msg.tokens[4]) ||
        !text_copy(msg.tokens[4], rec->account, sizeof(rec->account))) {
      log_msg(DEBUG, "online msg refused: no usable account for type 4\n");
      free(rec);
      return false;
    }
  } else {
    text_copy(msg.tokens[0], rec->account, sizeof(rec->account));
  }
  make_room(rec->key);
  terminal_put(rec);
  netbar_0001_write(true, *rec);
  return true;
}

// Context of one WA_SOURCE_FJ_0001 record: the terminal, and the record
// forms of its values.
struct terminal_record {
  terminal_record(const netbar_terminal &t, bool on) : terminal(t), online(on) {}
  const netbar_terminal &terminal;
  bool online;
  char mac[sizeof(netbar_terminal::key)];
  char ap_mac[sizeof(netbar_terminal::ap_mac)];
  unsigned long long end_time;
  char equipment_id[24];
  char session_id[NETBAR_SESSION_ID_SIZE];
  uint32_t ip_number;
  uint32_t src_ip_number;
};

void put_auth_type(bcp_line &l, const terminal_record &r) { l.put(r.terminal.auth_type); }
void put_account(bcp_line &l, const terminal_record &r) { l.put(r.terminal.account); }
void put_start_time(bcp_line &l, const terminal_record &r) {
  l.put_decimal(r.terminal.online_time);
}
void put_end_time(bcp_line &l, const terminal_record &r) {
  if (!r.online)
    l.put_decimal(r.end_time);
}
void put_ip(bcp_line &l, const terminal_record &r) { l.put_decimal(r.ip_number); }
void put_src_ip(bcp_line &l, const terminal_record &r) { l.put_decimal(r.src_ip_number); }
void put_port_80(bcp_line &l) { l.put_signed(80); }
void put_mac(bcp_line &l, const terminal_record &r) { l.put(r.mac); }
void put_equipment_id(bcp_line &l, const terminal_record &r) { l.put(r.equipment_id); }
void put_ap_mac(bcp_line &l, const terminal_record &r) { l.put(r.ap_mac); }
void put_session_id(bcp_line &l, const terminal_record &r) { l.put(r.session_id); }
void put_field_strength(bcp_line &l, const terminal_record &r) { l.put(r.terminal.field_strength); }

constexpr bcp_column<terminal_record> source_0001_columns[] = {
    {{"B040021", "AUTH_TYPE", "认证类型"}, put_auth_type},
    {{"B040022", "AUTH_ACCOUNT", "认证帐号"}, put_account},
    {{"G020004", "NETBAR_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"G020020", "NETSITE_TYPE", "上网服务场所编码"}, bcp_put_netbar_type_str},
    {{"B030004", "CERTIFICATE_TYPE", "身份证件类型"}, bcp_put_empty},
    {{"B030005", "CERTIFICATE_CODE", "身份证件号码"}, bcp_put_empty},
    {{"G030001", "APP_COMPANY_NAME", "APP厂商名称"}, bcp_put_empty},
    {{"G030002", "APP_SOFTWARE_NAME", "APP应用软件名称"}, bcp_put_empty},
    {{"G030003", "APP_VERSION", "APP版本号"}, bcp_put_empty},
    {{"G030004", "APPID", "APP终端认证码"}, bcp_put_empty},
    {{"H010015", "START_TIME", "上线时间"}, put_start_time},
    {{"H010016", "END_TIME", "下线时间"}, put_end_time},
    {{"F020001", "IP_ADDRESS", "场所内网IP地址"}, put_ip},
    {{"F020004", "SRC_IP", "源外网IPv4地址"}, put_src_ip},
    {{"F020010", "SRC_IPV6", "源外网IPv6地址"}, bcp_put_empty},
    {{"F020019", "SRC_PORT_START", "源外网IPv4起始端口号"}, put_port_80},
    {{"F020020", "SRC_PORT_END", "源外网IPv4结束端口号"}, put_port_80},
    {{"F020021", "SRC_PORT_START_V6", "源外网IPv6起始端口号"}, bcp_put_empty},
    {{"F020022", "SRC_PORT_END_V6", "源外网IPv6结束端口号"}, bcp_put_empty},
    {{"C040002", "MAC", "终端MAC地址"}, put_mac},
    {{"I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"}, put_equipment_id},
    {{"F030011", "AP_MAC", "AP设备MAC地址"}, put_ap_mac},
    {{"F010001", "LONGITUDE", "移动AP经度"}, bcp_put_longitude},
    {{"F010002", "LATITUDE", "移动AP纬度"}, bcp_put_latitude},
    {{"H010013", "SESSIONID", "会话ID"}, put_session_id},
    {{"I070003", "TERMINAL_FIELD_STRENGTH", "场强"}, put_field_strength},
    {{"I070001", "X_COORDINATE", "X坐标"}, bcp_put_empty},
    {{"I070002", "Y_COORDINATE", "Y坐标"}, bcp_put_empty},
    {{"B010001", "NAME", "上网人员姓名"}, bcp_put_empty},
    {{"B020007", "IMSI", "终端IMSI码"}, bcp_put_empty},
    {{"C050001", "IMEI_ESN_MEID", "终端IMSI码"}, bcp_put_empty},
    {{"C020004", "OS_NAME", "终端系统"}, bcp_put_empty},
    {{"C010002", "BRAND", "终端品牌"}, bcp_put_empty},
    {{"C010003", "MODEL", "终端型号"}, bcp_put_empty},
};

// Eight tabs between items, the wide closing.
constexpr bcp_template_style SOURCE_0001_STYLE = {8, 7};

}  // namespace

int netbar_0001_write(bool online, const netbar_terminal &terminal) {
  terminal_record r(terminal, online);
  bcp_mac_record_form(terminal.key, r.mac, sizeof(r.mac));
  bcp_mac_record_form(terminal.ap_mac, r.ap_mac, sizeof(r.ap_mac));
  r.end_time = static_cast<unsigned long long>(time(nullptr));
  snprintf(r.equipment_id, sizeof(r.equipment_id), "%s", qz2fh_get_equipment_id(r.ap_mac));
  netbar_session_id(r.session_id, r.mac, terminal.online_time);
  r.ip_number = netbar_ipv4_number(terminal.ip);
  const char *route_ip = qz2fh_route_ip_known();
  r.src_ip_number = route_ip ? netbar_ipv4_number(route_ip) : 0;
  // Logged under the name its records have always been logged under.
  return bcp_emit("netbar_0001_business_handle", source_0001, source_0001_columns, r) == 0
             ? 0
             : -1;
}

namespace {

// A failed read of the socket.
void shell_recv_failed(int, int, int) {
  log_msg_as("netbar_recv_callback", ERROR, "read from domain fd failed");
}

ssize_t shell_receive(int sock, uint8_t *buf, size_t cap) {
  sockaddr_un from;
  socklen_t from_len = sizeof(from);
  return recvfrom(sock, buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &from_len);
}

int netbar_create_unix_sock() {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    log_msg(ERROR, "socket failed:");
    return -1;
  }
  // Our own socket of an earlier run is replaced; anything else there
  // (another account's directory or socket would make bind fail and lose
  // every terminal record) is moved aside first.
  fixed_file_clear_foreign(QZ_SHELL_SOCK_PATH, "socket", S_IFSOCK);
  unlink(QZ_SHELL_SOCK_PATH);
  sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, QZ_SHELL_SOCK_PATH, sizeof(addr.sun_path) - 1);
  // Only root's senders may write to it, whatever umask the daemon got.
  const mode_t umask_was = umask(0177);
  const int bound = bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
  umask(umask_was);
  if (bound != 0 || chmod(QZ_SHELL_SOCK_PATH, 0600) != 0) {
    log_msg(ERROR, "bind failed!");
    close(fd);
    return -1;
  }
  log_msg(DEBUG, "create sock fd ok: [fd:%d]\n", fd);
  return fd;
}

}  // namespace

const char *netbar_shell_parse(const uint8_t *data, size_t len, netbar_shell_msg *msg) {
  msg->count = 0;
  msg->text = nullptr;
  if (len < SHELL_HEADER)
    return "shorter than its command type";
  memcpy(&msg->cmd, data, SHELL_HEADER);
  const std::string_view text(reinterpret_cast<const char *>(data + SHELL_HEADER),
                              len - SHELL_HEADER);
  const size_t nul = text.find('\0');
  if (nul == std::string_view::npos)
    return "text without a terminator";
  msg->text = text.data();
  msg->count =
      static_cast<int>(text_split(text.substr(0, nul), msg->tokens, std::size(msg->tokens)));
  return nullptr;
}

uint32_t netbar_ipv4_number(const char *text) {
  const in_addr_t a = inet_addr(text);
  uint8_t b[4];
  memcpy(b, &a, sizeof(b));
  return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
         static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
}

bool netbar_shell_process(const uint8_t *data, size_t len) {
  // Part of the socket's read callback, also run for queued datagrams.
  static const char func[] = "netbar_recv_callback";
  log_msg_as(func, DEBUG, "read %d from shell \n", static_cast<int>(len));
  netbar_shell_msg msg;
  const char *why = netbar_shell_parse(data, len, &msg);
  if (why && len < SHELL_HEADER) {
    log_msg_as(func, DEBUG, "datagram refused: %s\n", why);
    return false;
  }
  if (msg.cmd != NETBAR_CMD_OFFLINE && msg.cmd != NETBAR_CMD_ONLINE) {
    log_msg_as(func, DEBUG, "UNKNOWN cmd type:%d\n", static_cast<int>(msg.cmd));
    return false;
  }
  if (why) {
    log_msg_as(func, DEBUG, "datagram refused: %s\n", why);
    return false;
  }
  if (msg.cmd == NETBAR_CMD_OFFLINE)
    return netbar_terminal_offline(msg);
  return netbar_terminal_online(msg);
}

const netbar_terminal_counters &netbar_terminal_counts() { return counters; }

void netbar_terminal_report() {
  const uint64_t ended = counters.refused - reported_refused;
  if (ended == 0)
    return;
  reported_refused = counters.refused;
  log_msg(WARN,
          "terminal table full (%u): %llu terminals online longest ended since the last report, "
          "their offline records written\n",
          static_cast<unsigned>(NETBAR_TERMINALS_MAX), static_cast<unsigned long long>(ended));
}

int netbar_terminal_init(bcp_dataset *ds) {
  // Reports under the set-up's name of old.
  static const char func[] = "netbar_init_sock";
  source_0001 = ds;
  netbar_terminal_table = str_table_new();
  oldest = newest = nullptr;
  counters = {};
  reported_refused = 0;
  if (!netbar_terminal_table)
    return -1;
  report_timer_init(&terminal_report, terminal_report_timer, REPORT_TICK_SECONDS,
                    report_order{report_owner_new(), report_phase::records});
  report_timer_add(&terminal_report);
  qz2fh_get_route_ip();
  int fd = netbar_create_unix_sock();
  if (fd < 0) {
    log_msg_as(func, ERROR, "init shell fd failed!\n");
    return -1;
  }
  if (feed_add_source(feed_source_desc{"online_offline", fd, NETBAR_SHELL_MSG_MAX, false,
                                             shell_receive, netbar_shell_process,
                                             shell_recv_failed}) < 0) {
    close(fd);
    return -1;
  }
  log_msg_as(func, DEBUG, "init shell fd success!\n");
  return 0;
}

const char *netbar_0001_template() {
  return bcp_make_template(source_0001_columns, SOURCE_0001_STYLE);
}

void netbar_session_id(char *out, const char *mac, unsigned long long when) {
  char digits[64];
  size_t n = 0;
  for (const char *p = mac; *p && n < sizeof(digits) - 1; p++) {
    if (*p == '-' || *p == ':')
      continue;
    digits[n++] = (*p >= 'A' && *p <= 'Z') ? static_cast<char>(*p - 'A' + 'a') : *p;
  }
  digits[n] = '\0';
  snprintf(out, NETBAR_SESSION_ID_SIZE, "%s%s%llu", qz2fh_get_netbar_wacode(), digits, when);
}
