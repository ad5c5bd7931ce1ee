// Terminals online, and the datagrams that announce them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "output/bcp_dataset.h"

// One online terminal, owned by the terminal table from its online message
// to its offline message.
struct netbar_terminal {
  char auth_type[8];  // 7-digit code of the authentication type
  char account[64];
  char ip[24];
  unsigned long long online_time;
  char ap_mac[32];  // access point serving the terminal, as its status line gives it
  char field_strength[32];
  // The MAC as received: the table's key, owned here.
  char key[32];
  // The table's age list, oldest first.
  netbar_terminal *older;
  netbar_terminal *newer;
};

// The most terminals the table holds. A terminal coming online when it is
// full ends the one that has been online longest: its offline record is
// written then, as if its offline message had come. At this size that one
// is almost always a terminal whose offline message was lost.
constexpr size_t NETBAR_TERMINALS_MAX = 16384;

struct netbar_terminal_counters {
  uint64_t now;      // terminals online
  uint64_t peak;     // the most ever online at once
  uint64_t refused;  // terminals the full table ended to make room
};
const netbar_terminal_counters &netbar_terminal_counts();
// One WARN when the full table ended terminals since the last report, with
// how many. Called every 5-s tick.
void netbar_terminal_report();

// Writes the terminal's WA_SOURCE_FJ_0001 record: online, or offline with
// the current time as its end. Records show the MACs in record form; the
// terminal is left as it is. 0 when written, -1 when no file could be
// opened or the line was refused.
int netbar_0001_write(bool online, const netbar_terminal &terminal);

enum { NETBAR_CMD_OFFLINE = 2, NETBAR_CMD_ONLINE = 3 };

constexpr size_t NETBAR_SHELL_MSG_MAX = 260;

// A datagram: command type, then a NUL-terminated text of blank-separated
// tokens (runs of blanks count as one).
struct netbar_shell_msg {
  uint32_t cmd;
  const char *text;  // inside the received bytes
  std::string_view tokens[5];
  int count;  // tokens found, at most 5
};

// Splits a datagram, never reading past len. Returns null, or why the
// datagram cannot be used (then msg->cmd may still be set).
const char *netbar_shell_parse(const uint8_t *data, size_t len, netbar_shell_msg *msg);

// The online/offline feed and WA_SOURCE_FJ_0001: creates the terminal
// table and the socket, registers the read callback, sets up the dataset.
// Creates the terminal table and the online/offline socket, registers the
// feed, and writes its records to ds. 0, or -1 when the socket could not
// be opened (logged; the daemon runs on without it).
int netbar_terminal_init(bcp_dataset *ds);
// The index template of WA_SOURCE_FJ_0001, built from its columns.
const char *netbar_0001_template();

// Session id: place code, the MAC's hex digits in lower case (separators
// dropped) and a time in seconds, cut to 64 characters.
constexpr size_t NETBAR_SESSION_ID_SIZE = 65;
void netbar_session_id(char *out, const char *mac, unsigned long long when);
// Handles one datagram as received (at most 260 bytes).
bool netbar_shell_process(const uint8_t *data, size_t len);

// The little-endian reading of an address's four network-order bytes, as
// the platform expects it: 192.168.1.10 gives 167880896. 4294967295 for a
// text that is not an address.
uint32_t netbar_ipv4_number(const char *text);
