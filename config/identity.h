// Codes derived from the configuration and from MAC addresses, and facts
// read from the router. Results live in static buffers overwritten by the
// next call of the same operation; callers copy what they keep.
#pragma once

#include <cstddef>
#include <string_view>

// Longest MAC text taken from outside the daemon (a terminal record holds 31).
constexpr size_t QZ_MAC_TEXT_MAX = 31;

struct wifi_info {
  char ap_mac[32];
  char field_strength[32];
  char aux1[64];
  char aux2[64];
};

// Place code: fh_source_str followed by "10AC1000", at most 14 characters.
const char *qz2fh_get_netbar_wacode();
// Equipment id: "507183926" and the MAC's first eleven hex digits (upper
// case, separators dropped), 20 characters.
const char *qz2fh_get_equipment_id(const char *mac);
// Address of the interface of the first route, found once and then kept;
// null while it cannot be found. At start-up: runs the probe's two
// commands while the caller waits, unless it was found before.
const char *qz2fh_get_route_ip();
// Once the loop runs: starts the probe beside it, unless the address was
// found or a probe is under way.
void qz2fh_route_probe();
// The address found so far, or null; never runs a command, so that no
// command runs while a record is built.
const char *qz2fh_route_ip_known();
// Wireless record of a client from the router's status files, or null.
// Only a regular file of root's or the daemon's own with a single name is
// read, never through a link and never waiting on it; any other file there
// counts as missing, with one WARN line per path and tick.
const wifi_info *qz2fh_get_wifi_info(const char *mac);
// The tick: paths reported unusable may be reported again.
void qz2fh_status_files_tick();

// A MAC text from outside that is safe to use as a file name and in a
// record: 1 to 31 printable characters, no blank, no "/", no "..", no quote
// or backslash.
bool qz2fh_mac_text_ok(std::string_view mac);

// Parsers of outside text, kept pure for tests and fuzzing.
// A status line: tokens 3 to 6 into info. False for fewer than six tokens,
// a token longer than its field, or a control character in a token that is
// written into records (the line's own line feed stays in token 6).
bool wifi_info_parse(const char *text, size_t len, wifi_info *info);
// Interface name from the route command's output (one line). False unless
// it is a plausible interface name, since it is put into the next command.
bool route_iface_parse(std::string_view output, char *name, size_t size);
// Dotted IPv4 address from the address command's output (address/prefix
// lines; the first is taken). False unless a valid address is found.
bool route_addr_parse(std::string_view output, char *addr, size_t size);
