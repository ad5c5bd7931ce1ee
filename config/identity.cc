#include "config/identity.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/config.h"
#include "frame/command.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "frame/str_table.h"
#include "frame/text.h"
#include "frame/unique_fd.h"

namespace {

constexpr size_t STATUS_READ_MAX = 1023;
constexpr size_t COMMAND_READ_MAX = 1023;
constexpr size_t IFNAME_MAX = 15;

}  // namespace

bool qz2fh_mac_text_ok(std::string_view mac) {
  if (mac.empty() || mac.size() > QZ_MAC_TEXT_MAX || mac.find("..") != std::string_view::npos)
    return false;
  for (char ch : mac) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c >= 0x7f || c == '/' || c == '"' || c == '\\')
      return false;
  }
  return true;
}

const char *qz2fh_get_netbar_wacode() {
  static char wacode[15];
  // Built from the configuration, so the same until the next load; every
  // record asks for it.
  static unsigned built_for;
  if (built_for != qz2fh_config_generation()) {
    snprintf(wacode, sizeof(wacode), "%s%s%s%s", qz2fh_get_source_str(), "10", "AC", "1000");
    wacode[sizeof(wacode) - 1] = '\0';
    built_for = qz2fh_config_generation();
  }
  return wacode;
}

const char *qz2fh_get_equipment_id(const char *mac) {
  static char id[22];
  log_msg(DEBUG, "longCode:%s, mac:%s", qz2fh_get_org_code(), mac);
  // The organisation code, then the MAC's characters without separators,
  // upper case, cut to 20 characters in all.
  constexpr size_t ID_LENGTH = 20;
  const char *org = qz2fh_get_org_code();
  size_t n = strnlen(org, ID_LENGTH);
  memcpy(id, org, n);
  for (const char *p = mac; n < ID_LENGTH; p++) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c == '\0')
      break;
    if (c == '-' || c == ':')
      continue;
    id[n++] = static_cast<char>(c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c);
  }
  id[n] = '\0';
  return id;
}

bool route_iface_parse(std::string_view output, char *name, size_t size) {
  if (!output.empty() && output.back() == '\n')
    output.remove_suffix(1);
  if (output.empty() || output.size() > IFNAME_MAX || output.size() >= size)
    return false;
  for (char ch : output) {
    if (!isalnum(static_cast<unsigned char>(ch)) && ch != '.' && ch != '_' && ch != '-' &&
        ch != '@')
      return false;
  }
  memcpy(name, output.data(), output.size());
  name[output.size()] = '\0';
  return true;
}

bool route_addr_parse(std::string_view output, char *addr, size_t size) {
  // Several matching addresses give several lines; the first one is used.
  output = output.substr(0, output.find('\n'));
  const size_t slash = output.rfind('/');
  if (slash != std::string_view::npos)
    output = output.substr(0, slash);
  char text[INET_ADDRSTRLEN];
  if (output.empty() || output.size() >= sizeof(text) || output.size() >= size)
    return false;
  memcpy(text, output.data(), output.size());
  text[output.size()] = '\0';
  in_addr a;
  if (inet_pton(AF_INET, text, &a) != 1)
    return false;
  memcpy(addr, text, output.size() + 1);
  return true;
}

namespace {

constexpr char ROUTE_COMMAND[] = "route -n | head -n 3 | tail -n 1 | awk '{print $8}'";

char route_ip[1024];
const char *route_found;
command_job probe;
char probe_ifname[IFNAME_MAX + 1];

// The second pipeline of the probe: the interface's address.
bool addr_command(std::string_view route_output, char *cmd, size_t size) {
  if (route_output.empty())
    return false;
  if (!route_iface_parse(route_output, probe_ifname, sizeof(probe_ifname))) {
    log_msg_as("qz2fh_get_route_ip", DEBUG, "route: no usable interface name\n");
    return false;
  }
  snprintf(cmd, size, "ip add |awk '$1==\"inet\" && $NF~/^(%s)/{print $2}'", probe_ifname);
  return true;
}

bool addr_found(std::string_view addr_output) {
  if (addr_output.empty())
    return false;
  if (!route_addr_parse(addr_output, route_ip, sizeof(route_ip))) {
    log_msg_as("qz2fh_get_route_ip", DEBUG, "route: no IPv4 address on %s\n", probe_ifname);
    return false;
  }
  route_found = route_ip;
  return true;
}

void probe_addr_done(command_job *job, int status) {
  if (status >= 0)
    addr_found(command_output(job));
}

void probe_route_done(command_job *job, int status) {
  char cmd[1024];
  if (status >= 0 && addr_command(command_output(job), cmd, sizeof(cmd)))
    command_start(job, cmd, COMMAND_PROBE, probe_addr_done, COMMAND_READ_MAX);
}

}  // namespace

const char *qz2fh_route_ip_known() { return route_found; }

const char *qz2fh_get_route_ip() {
  std::string out;
  char cmd[1024];
  if (!route_found && command_read(ROUTE_COMMAND, &out, COMMAND_READ_MAX) >= 0 &&
      addr_command(out, cmd, sizeof(cmd)) && command_read(cmd, &out, COMMAND_READ_MAX) >= 0)
    addr_found(out);
  return route_found;
}

void qz2fh_route_probe() {
  if (route_found || command_busy(&probe))
    return;
  command_start(&probe, ROUTE_COMMAND, COMMAND_PROBE, probe_route_done, COMMAND_READ_MAX);
}

bool wifi_info_parse(const char *text, size_t len, wifi_info *info) {
  std::string_view tokens[6];
  if (text_split(std::string_view(text, strnlen(text, len)), tokens, 6) < 6)
    return false;
  // Tokens 3 and 4 are written into records; the others are only kept. A
  // token too long for its field is refused, not cut: a cut MAC or signal
  // value would be a wrong value in a record.
  if (!text_printable(tokens[2]) || !text_printable(tokens[3]))
    return false;
  return text_copy(tokens[2], info->field_strength, sizeof(info->field_strength)) &&
         text_copy(tokens[3], info->ap_mac, sizeof(info->ap_mac)) &&
         text_copy(tokens[4], info->aux1, sizeof(info->aux1)) &&
         text_copy(tokens[5], info->aux2, sizeof(info->aux2));
}

namespace {

// Paths already reported unusable in this tick: a planted FIFO or link is
// named once per tick, not once per record. Bounded; past the bound the
// rest of the tick is quiet.
constexpr unsigned WARNED_MAX = 64;
GHashTable *warned;

void status_file_refused(const char *path, const char *why) {
  if (!warned)
    warned = str_table_new();
  if (!warned || str_table_get(warned, path) || g_hash_table_size(warned) >= WARNED_MAX)
    return;
  const size_t len = strlen(path);
  auto *copy = static_cast<char *>(malloc(len + 1));
  if (!copy)
    return;
  memcpy(copy, path, len + 1);
  str_table_put(warned, copy, copy);
  log_msg_as("qz2fh_get_wifi_info", WARN, "status file %s not used: %s\n", path, why);
}

// A status file as the router's writers (root) leave it: a regular file of
// root's or the daemon's, with one name. Anything else another account can
// plant in /tmp (a FIFO that would block the read, a link that would put
// another file's words in a record) counts as missing.
unique_fd open_status_file(const char *path) {
  unique_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    if (errno == ELOOP)
      status_file_refused(path, "a link");
    else if (errno != ENOENT && errno != ENOTDIR)
      status_file_refused(path, strerror(errno));
    return fd;
  }
  struct stat st;
  const char *why = nullptr;
  if (fstat(fd.get(), &st) != 0)
    why = strerror(errno);
  else if (!S_ISREG(st.st_mode))
    why = "not a regular file";
  else if (st.st_uid != 0 && st.st_uid != geteuid())
    why = "owned by another account";
  else if (st.st_nlink != 1)
    why = "another name links to it";
  if (why) {
    status_file_refused(path, why);
    fd.reset();
  }
  return fd;
}

}  // namespace

void qz2fh_status_files_tick() {
  if (warned)
    g_hash_table_remove_all(warned);
}

const wifi_info *qz2fh_get_wifi_info(const char *mac) {
  static wifi_info info;
  if (!mac || !qz2fh_mac_text_ok(mac)) {
    log_msg(DEBUG, "refused mac text for status file\n");
    return nullptr;
  }
  char path[1024];
  snprintf(path, sizeof(path), "%s%s", QZ_CLT_WIFI_INFO_DIR, mac);
  unique_fd fd = open_status_file(path);
  if (!fd) {
    if (access(QZ_AC_STATUS_PATH, F_OK) != 0)
      return nullptr;
    snprintf(path, sizeof(path), "%s%s", QZ_CLT_AP_INFO_DIR, mac);
    fd = open_status_file(path);
    if (!fd)
      return nullptr;
  }
  char text[STATUS_READ_MAX + 1];
  size_t len = 0;
  while (len < STATUS_READ_MAX) {
    ssize_t n = read(fd.get(), text + len, STATUS_READ_MAX - len);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    len += static_cast<size_t>(n);
  }
  if (len == 0)
    return nullptr;
  text[len] = '\0';
  if (!wifi_info_parse(text, len, &info)) {
    log_msg(DEBUG, "bad status line for %s\n", mac);
    return nullptr;
  }
  return &info;
}
