// The kernel netlink feed: the router's kernel module reports traffic
// events of the place network's terminals; HTTP events become records.
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
#include "frame/feed_queue.h"
#include "frame/log.h"
#include "netbar/netbar.h"
#include "netbar/netbar_netlink.h"
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

int bcp_dispatch_http(const char *mac, int app, uint32_t ip, uint16_t port, uint32_t src_ip,
                      uint16_t src_port_start, uint16_t src_port_end, uint32_t dst_ip,
                      uint16_t dst_port) {
  return bcp_dispatch(QZ2FH_NETBAR_TYPE, NETBAR_SOURCE_0002, 9, mac, app, ip,
                      static_cast<unsigned>(port), src_ip, static_cast<unsigned>(src_port_start),
                      static_cast<unsigned>(src_port_end), dst_ip, static_cast<unsigned>(dst_port));
}

void http_event(const netlink_http_event &ev) {
  bcp_dispatch_http(ev.mac, 1, ev.ip, ev.port, HTTP_SRC_IP, HTTP_SRC_PORT, HTTP_SRC_PORT, ev.dst_ip,
                    ev.dst_port);
}

// Context of one WA_SOURCE_FJ_0002 record: the nine event arguments and
// what the handler derives from them.
struct http_record {
  const char *app;
  uint32_t ip;
  uint16_t port;
  uint32_t src_ip;
  uint16_t src_port_start, src_port_end;
  uint32_t dst_ip;
  uint16_t dst_port;
  const char *session_id;
  const char *mac;
  const char *equipment_id;
  const char *ap_mac;
  unsigned long long capture_time;
};

const http_record &ctx_of(const void *ctx) { return *static_cast<const http_record *>(ctx); }

bool src_ports_set(const http_record &r) { return r.src_port_start != 0 || r.src_port_end != 0; }

void put_session_id(bcp_line &l, const void *c) { l.put(ctx_of(c).session_id); }
void put_app(bcp_line &l, const void *c) { l.put(ctx_of(c).app); }
void put_ip(bcp_line &l, const void *c) { l.put_decimal(ctx_of(c).ip); }
void put_port(bcp_line &l, const void *c) { l.put_decimal(ctx_of(c).port); }
void put_src_ip(bcp_line &l, const void *c) {
  if (ctx_of(c).src_ip != 0)
    l.put_decimal(ctx_of(c).src_ip);
}
void put_src_port_start(bcp_line &l, const void *c) {
  if (src_ports_set(ctx_of(c)))
    l.put_decimal(ctx_of(c).src_port_start);
}
void put_src_port_end(bcp_line &l, const void *c) {
  if (src_ports_set(ctx_of(c)))
    l.put_decimal(ctx_of(c).src_port_end);
}
// Without source ports the IPv6 port columns carry 0.
void put_src_port_v6(bcp_line &l, const void *c) {
  if (!src_ports_set(ctx_of(c)))
    l.put_decimal(0u);
}
void put_dst_ip(bcp_line &l, const void *c) {
  if (ctx_of(c).dst_ip != 0)
    l.put_decimal(ctx_of(c).dst_ip);
}
void put_dst_port(bcp_line &l, const void *c) { l.put_decimal(ctx_of(c).dst_port); }
void put_mac(bcp_line &l, const void *c) { l.put(ctx_of(c).mac); }
void put_equipment_id(bcp_line &l, const void *c) { l.put(ctx_of(c).equipment_id); }
void put_ap_mac(bcp_line &l, const void *c) { l.put(ctx_of(c).ap_mac); }
void put_capture_time(bcp_line &l, const void *c) { l.put_decimal(ctx_of(c).capture_time); }

constexpr bcp_column source_0002_columns[] = {
    {{"H010013", "SESSIONID", "会话ID"}, put_session_id},
    {{"G020004", "NETSERVERPORT_WACODE", "上网服务场所编码"}, bcp_put_wacode},
    {{"H010041", "NETWORK_APP", "网络应用服务类型"}, put_app},
    {{"F020001", "IP_ADDRESS", "场所内网IP地址"}, put_ip},
    {{"F020003", "PORT", "场所内网端口号"}, put_port},
    {{"F020004", "SRC_IP", "源外网IPv4地址"}, put_src_ip},
    // No IPv6 address reaches the daemon.
    {{"F020010", "SRC_IPV6", "源外网IPv6地址"}, bcp_put_empty},
    {{"F020019", "SRC_PORT_START", "源外网IPv4起始端口号"}, put_src_port_start},
    {{"F020020", "SRC_PORT_END", "源外网IPv4结束端口号"}, put_src_port_end},
    {{"F020021", "SRC_PORT_START_V6", "源外网IPv6起始端口号"}, put_src_port_v6},
    {{"F020022", "SRC_PORT_END_V6", "源外网IPv6结束端口号"}, put_src_port_v6},
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

int netbar_0002_business_handle(uint32_t, uint32_t, uint8_t, va_list *ap, bcp_dataset *) {
  const char *mac_arg = va_arg(*ap, const char *);
  const int app = va_arg(*ap, int);
  http_record r;
  r.ip = va_arg(*ap, uint32_t);
  r.port = static_cast<uint16_t>(va_arg(*ap, unsigned));
  r.src_ip = va_arg(*ap, uint32_t);
  r.src_port_start = static_cast<uint16_t>(va_arg(*ap, unsigned));
  r.src_port_end = static_cast<uint16_t>(va_arg(*ap, unsigned));
  r.dst_ip = va_arg(*ap, uint32_t);
  r.dst_port = static_cast<uint16_t>(va_arg(*ap, unsigned));
  if (!mac_arg)
    return 1;

  char app_text[32];
  snprintf(app_text, sizeof(app_text), "%d", app);
  r.app = app_text;
  r.capture_time = static_cast<unsigned long long>(time(nullptr));
  char session_id[NETBAR_SESSION_ID_SIZE];
  netbar_session_id(session_id, mac_arg, r.capture_time);
  r.session_id = session_id;

  const wifi_info *wifi = qz2fh_get_wifi_info(mac_arg);
  if (!wifi) {
    log_msg(DEBUG, "can not find access mac:%s\n", mac_arg);
    return 1;
  }
  char ap_mac[sizeof(wifi->ap_mac)];
  memcpy(ap_mac, wifi->ap_mac, sizeof(ap_mac));
  bcp_mac_to_record_form(ap_mac);
  char mac[64];
  snprintf(mac, sizeof(mac), "%s", mac_arg);
  bcp_mac_to_record_form(mac);
  char equipment_id[24];
  snprintf(equipment_id, sizeof(equipment_id), "%s", qz2fh_get_equipment_id(ap_mac));
  r.mac = mac;
  r.ap_mac = ap_mac;
  r.equipment_id = equipment_id;
  return bcp_emit(__func__, &netbar_group.datasets[NETBAR_SOURCE_0002], source_0002_columns, &r);
}

// A message header for one buffer and a netlink address.
msghdr one_buffer_msg(sockaddr_nl *addr, iovec *iov) {
  msghdr msg = {};
  msg.msg_name = addr;
  msg.msg_namelen = sizeof(*addr);
  msg.msg_iov = iov;
  msg.msg_iovlen = 1;
  return msg;
}

// A failed receive, from the callback or the feed queue (an overrun,
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

int netlink_feed = -1;

void netbar_netlink_recv_callback(int, void *, void *) { feed_queue_serve(netlink_feed); }

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
  if (eloop_add_reader(fd, netbar_netlink_recv_callback, nullptr, nullptr) != 0) {
    log_msg_as(func, ERROR, "register read catcher fd fail\n");
    close(fd);
    return -1;
  }
  netlink_feed = feed_queue_add_source(feed_source_spec{
      "http", fd, NETLINK_MSG_MAX, true, netlink_receive, netbar_netlink_process,
      netlink_recv_failed});
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

void netbar_netlink_process(const uint8_t *data, size_t len) {
  // Part of the socket's read callback, also run for queued messages.
  static const char func[] = "netbar_netlink_recv_callback";
  netlink_event ev;
  if (!netlink_parse(data, len, &ev)) {
    log_msg_as(func, ERROR, "recv err data from kernel broadcast ...\n");
    return;
  }
  switch (ev.type) {
    case QZ_HTTP_DATA:
      log_msg_as(func, DEBUG, "recv QZ_HTTP_DATA\n");
      http_event(ev.http);
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
}

void init_netbar_0002() {
  bcp_dataset_init(&netbar_group.datasets[NETBAR_SOURCE_0002], "WA_SOURCE_FJ_0002",
                   bcp_make_template(source_0002_columns, BCP_STYLE_WIDE_CLOSE),
                   netbar_0002_business_handle);
  netlink_fd = open_netlink_socket();
  if (netlink_fd < 0) {
    log_msg(ERROR, "netbar 0002 init socket fail\n");
    return;
  }
  netlink_send(netlink_fd);
}
