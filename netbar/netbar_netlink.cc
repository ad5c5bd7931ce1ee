// The kernel netlink feed: the router's kernel module reports traffic
// events of the place network's terminals; HTTP events become records.
#include "netbar/netbar_netlink.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include "config/config.h"
#include "config/identity.h"
#include "frame/eloop.h"
#include "frame/feed.h"
#include "frame/log.h"
#include "netbar/netbar_terminal.h"
#include "output/bcp_values.h"

namespace {

constexpr int NETLINK_QZ_PROTOCOL = 28;
constexpr size_t REGISTRATION_SIZE = 80;
// A larger receive buffer rides out bursts while the loop is busy.
constexpr int NETLINK_RCVBUF = 4 * 1024 * 1024;

enum { QZ_APP_DATA = 1, QZ_HTTP_DATA = 2, QZ_DPI_DATA = 3 };

// Source address and ports of every HTTP event, as the platform expects
// them (the numbers 1, 1 and 1 in network byte order, read as host order).
constexpr uint32_t HTTP_SRC_IP = 16777216;
constexpr uint16_t HTTP_SRC_PORT = 256;

int netlink_fd = -1;
bcp_dataset *source_0002;  // where the feed's records go

uint32_t read_u32(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof(v));
  return v;
}

uint16_t read_u16(const uint8_t *p) {
  uint16_t v;
  memcpy(&v, p, sizeof(v));
  return v;
}

// Context of one WA_SOURCE_FJ_0002 record: the event, and what the writer
// derives from it.
struct http_record {
  explicit http_record(const netlink_http_event &e) : event(e) {}
  const netlink_http_event &event;
  unsigned long long capture_time;
  char session_id[NETBAR_SESSION_ID_SIZE];
  char mac[sizeof(netlink_http_event::mac)];
  char ap_mac[sizeof(wifi_info::ap_mac)];
  char equipment_id[24];
};

// Every record of this dataset is an HTTP event (network application 1)
// from the same source address and ports.
void put_http_app(bcp_line &l) { l.put_decimal(1); }
void put_http_src_ip(bcp_line &l) { l.put_decimal(HTTP_SRC_IP); }
void put_http_src_port(bcp_line &l) { l.put_decimal(HTTP_SRC_PORT); }

void put_session_id(bcp_line &l, const http_record &r) { l.put(r.session_id); }
void put_ip(bcp_line &l, const http_record &r) { l.put_decimal(r.event.ip); }
void put_port(bcp_line &l, const http_record &r) { l.put_decimal(r.event.port); }
void put_dst_ip(bcp_line &l, const http_record &r) {
  if (r.event.dst_ip != 0)
    l.put_decimal(r.event.dst_ip);
}
void put_dst_port(bcp_line &l, const http_record &r) { l.put_decimal(r.event.dst_port); }
void put_mac(bcp_line &l, const http_record &r) { l.put(r.mac); }
void put_equipment_id(bcp_line &l, const http_record &r) { l.put(r.equipment_id); }
void put_ap_mac(bcp_line &l, const http_record &r) { l.put(r.ap_mac); }
void put_capture_time(bcp_line &l, const http_record &r) { l.put_decimal(r.capture_time); }

constexpr bcp_column<http_record> source_0002_columns[] = {
    {{"H010013", "SESSIONID", "会话ID"}, put_session_id},
    {{"G020004", "NETSERVERPORT_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"H010041", "NETWORK_APP", "网络应用服务类型"}, put_http_app},
    {{"F020001", "IP_ADDRESS", "场所内网IP地址"}, put_ip},
    {{"F020003", "PORT", "场所内网端口号"}, put_port},
    {{"F020004", "SRC_IP", "源外网IPv4地址"}, put_http_src_ip},
    // No IPv6 address reaches the daemon; with IPv4 source ports the IPv6
    // port columns stay empty.
    {{"F020010", "SRC_IPV6", "源外网IPv6地址"}, bcp_put_empty},
    {{"F020019", "SRC_PORT_START", "源外网IPv4起始端口号"}, put_http_src_port},
    {{"F020020", "SRC_PORT_END", "源外网IPv4结束端口号"}, put_http_src_port},
    {{"F020021", "SRC_PORT_START_V6", "源外网IPv6起始端口号"}, bcp_put_empty},
    {{"F020022", "SRC_PORT_END_V6", "源外网IPv6结束端口号"}, bcp_put_empty},
    {{"F020005", "DST_IP", "目的公网IPv4地址"}, put_dst_ip},
    {{"F020011", "DST_IPV6", "目的公网IPv6地址"}, bcp_put_empty},
    {{"F020007", "DST_PORT", "目的公网IPv4端口号"}, put_dst_port},
    {{"F020013", "DST_PORT_V6", "目的公网IPv6端口号"}, put_dst_port},
    {{"C040002", "MAC", "终端MAC地址"}, put_mac},
    {{"I070011", "COLLECTION_EQUIPMENT_ID", "AP设备编号"}, put_equipment_id},
    {{"F030011", "AP_MAC", "AP设备MAC地址"}, put_ap_mac},
    {{"F010001", "LONGITUDE", "移动AP经度"}, bcp_put_longitude},
    {{"F010002", "LATITUDE", "移动AP纬度"}, bcp_put_latitude},
    {{"H010014", "CAPTURE_TIME", "日志记录时间"}, put_capture_time},
};

}  // namespace

int netbar_0002_write(const netlink_http_event &event) {
  // Logged under the name its records have always been logged under.
  static const char func[] = "netbar_0002_business_handle";
  http_record r(event);
  r.capture_time = static_cast<unsigned long long>(time(nullptr));
  netbar_session_id(r.session_id, event.mac, r.capture_time);
  const wifi_info *wifi = qz2fh_get_wifi_info(event.mac);
  if (!wifi) {
    log_msg_as(func, DEBUG, "can not find access mac:%s\n", event.mac);
    return 1;
  }
  bcp_mac_record_form(wifi->ap_mac, r.ap_mac, sizeof(r.ap_mac));
  bcp_mac_record_form(event.mac, r.mac, sizeof(r.mac));
  snprintf(r.equipment_id, sizeof(r.equipment_id), "%s", qz2fh_get_equipment_id(r.ap_mac));
  return bcp_emit(func, source_0002, source_0002_columns, r);
}

namespace {

// A message header for one buffer and a netlink address.
msghdr one_buffer_msg(sockaddr_nl *addr, iovec *iov) {
  msghdr msg = {};
  msg.msg_name = addr;
  msg.msg_namelen = sizeof(*addr);
  msg.msg_iov = iov;
  msg.msg_iovlen = 1;
  return msg;
}

// A failed receive (an overrun,
// ENOBUFS, is reported by one receive only).
void netlink_recv_failed(int ret, int sock, int err) {
  log_msg_as("netbar_netlink_recv_callback", ERROR,
             "stop waiting for kernel broadcast ...ret:%d,sock_fd:%d,errno:%d\n", ret, sock, err);
}

ssize_t netlink_receive(int sock, uint8_t *buf, size_t cap) {
  sockaddr_nl from;
  iovec iov = {buf, cap};
  msghdr msg = one_buffer_msg(&from, &iov);
  return recvmsg(sock, &msg, MSG_DONTWAIT);
}

void netlink_send(int sock) {
  uint8_t reg[REGISTRATION_SIZE] = {};
  nlmsghdr hdr = {};
  hdr.nlmsg_len = REGISTRATION_SIZE;
  hdr.nlmsg_pid = static_cast<uint32_t>(getpid());
  memcpy(reg, &hdr, sizeof(hdr));
  const uint32_t one = 1;
  memcpy(reg + 16, &one, sizeof(one));
  reg[20] = 1;
  reg[21] = 1;
  sockaddr_nl kernel = {};
  kernel.nl_family = AF_NETLINK;
  iovec iov = {reg, sizeof(reg)};
  msghdr msg = one_buffer_msg(&kernel, &iov);
  if (sendmsg(sock, &msg, 0) < 0)
    log_msg(DEBUG, "sock_fd:%d\n", sock);
}

// Socket, bind and registration with the loop; failures are reported under
// the set-up's name.
int open_netlink_socket() {
  static const char func[] = "init_netbar_0002";
  int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_QZ_PROTOCOL);
  if (fd < 0) {
    log_msg_as(func, ERROR, "create netlink socket error:%d:%s!\n", fd, strerror(errno));
    return -1;
  }
  sockaddr_nl local = {};
  local.nl_family = AF_NETLINK;
  local.nl_pid = static_cast<uint32_t>(getpid());
  if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0) {
    log_msg_as(func, ERROR, "bind netlink socket error! %d:%s\n", fd, strerror(errno));
    close(fd);
    return -1;
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &NETLINK_RCVBUF, sizeof(NETLINK_RCVBUF)) != 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &NETLINK_RCVBUF, sizeof(NETLINK_RCVBUF));
  if (feed_add_source(feed_source_desc{"http", fd, NETLINK_MSG_MAX, true, netlink_receive,
                                             netbar_netlink_process, netlink_recv_failed}) < 0) {
    log_msg_as(func, ERROR, "register read catcher fd fail\n");
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

bool netlink_parse(const uint8_t *data, size_t len, netlink_event *ev) {
  if (len < NETLINK_MSG_MIN)
    return false;
  ev->type = data[16];
  if (ev->type != QZ_HTTP_DATA)
    return true;
  const uint8_t *m = data + 32;
  snprintf(ev->http.mac, sizeof(ev->http.mac), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2],
           m[3], m[4], m[5]);
  ev->http.ip = ntohl(read_u32(data + 40));
  ev->http.dst_ip = ntohl(read_u32(data + 44));
  ev->http.port = ntohs(read_u16(data + 48));
  ev->http.dst_port = ntohs(read_u16(data + 50));
  return true;
}

bool netbar_netlink_process(const uint8_t *data, size_t len) {
  // Part of the socket's read callback, also run for queued messages.
  static const char func[] = "netbar_netlink_recv_callback";
  netlink_event ev;
  if (!netlink_parse(data, len, &ev)) {
    log_msg_as(func, ERROR, "recv err data from kernel broadcast ...\n");
    return false;
  }
  switch (ev.type) {
    case QZ_HTTP_DATA:
      log_msg_as(func, DEBUG, "recv QZ_HTTP_DATA\n");
      netbar_0002_write(ev.http);
      break;
    case QZ_APP_DATA:
      log_msg_as(func, DEBUG, "recv QZ_APP_DATA\n");
      break;
    case QZ_DPI_DATA:
      log_msg_as(func, DEBUG, "recv QZ_DPI_DATA\n");
      break;
    default:
      log_msg_as(func, DEBUG, "recv data UNKNOWN\n");
      break;
  }
  return true;
}

int netbar_netlink_init(bcp_dataset *ds) {
  source_0002 = ds;
  netlink_fd = open_netlink_socket();
  if (netlink_fd < 0) {
    log_msg_as("init_netbar_0002", ERROR, "netbar 0002 init socket fail\n");
    return -1;
  }
  netlink_send(netlink_fd);
  return 0;
}

const char *netbar_0002_template() {
  return bcp_make_template(source_0002_columns, BCP_STYLE_WIDE_CLOSE);
}
