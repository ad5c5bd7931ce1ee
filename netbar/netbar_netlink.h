// Messages of the kernel netlink feed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "output/bcp_dataset.h"

constexpr size_t NETLINK_MSG_MAX = 1040;
// An event is at least this long; anything shorter is an error.
constexpr size_t NETLINK_MSG_MIN = 72;

struct netlink_http_event {
  char mac[64];  // "xx:xx:xx:xx:xx:xx", lower case
  uint32_t ip;   // host byte order
  uint16_t port;
  uint32_t dst_ip;
  uint16_t dst_port;
};

struct netlink_event {
  uint8_t type;  // 1 app, 2 http, 3 dpi, others unknown
  netlink_http_event http;
};

// The kernel netlink feed and WA_SOURCE_FJ_0002: sets up the dataset, then
// the socket and its read callback, and registers with the kernel side.
// Opens the netlink socket, registers the feed and the daemon with the
// kernel module, and writes the feed's records to ds. 0, or -1 when the
// socket could not be opened (logged; the daemon runs on without it).
int netbar_netlink_init(bcp_dataset *ds);
// The index template of WA_SOURCE_FJ_0002, built from its columns.
const char *netbar_0002_template();
// Handles one netlink message as received (at most 1040 bytes).
bool netbar_netlink_process(const uint8_t *data, size_t len);

// Reads an event message, never past len; false when it is too short. The
// header's nlmsg_len is not consulted: the fields used all lie in the first
// NETLINK_MSG_MIN bytes, which a message of that length holds.
bool netlink_parse(const uint8_t *data, size_t len, netlink_event *ev);

// Writes the event's WA_SOURCE_FJ_0002 record. 0 when written, 1 when the
// terminal's access point is unknown, no file could be opened or the line
// was refused.
int netbar_0002_write(const netlink_http_event &event);
