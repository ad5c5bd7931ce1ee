// Prints what the pure parsers make of each seed, one line per file, so
// that builds for other architectures can be compared with the host's:
//
//   qz_parse_dump TARGET FILE...      TARGET: a fuzz target's name
//
// Seeds are stored as an x86 sender writes them. A datagram's command word
// and a netlink header are the sender's host-order integers, so they are
// read as little-endian and rewritten in this machine's order first, as a
// sender on this machine would have written them.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "config/identity.h"
#include "config/wtps.h"
#include "netbar/netbar_netlink.h"
#include "netbar/netbar_terminal.h"

namespace {

std::string shown(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (c < 0x20 || c >= 0x7f || c == '\\') {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\x%02x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Rewrites the little-endian integer of n bytes at p in host order.
void le_to_host(uint8_t *p, size_t n) {
  uint64_t v = 0;
  for (size_t i = n; i-- > 0;)
    v = (v << 8) | p[i];
  if (n == 2) {
    const uint16_t h = static_cast<uint16_t>(v);
    memcpy(p, &h, 2);
  } else {
    const uint32_t h = static_cast<uint32_t>(v);
    memcpy(p, &h, 4);
  }
}

std::string dump_shell(std::vector<uint8_t> &in, const char *) {
  if (in.size() >= 4)
    le_to_host(in.data(), 4);
  netbar_shell_msg msg{};
  const char *why = netbar_shell_parse(in.data(), in.size(), &msg);
  std::string out = "cmd=" + std::to_string(msg.cmd) + " " + (why ? shown(why) : "ok");
  if (!why)
    for (int i = 0; i < msg.count; i++)
      out += " [" + shown(msg.tokens[i]) + "]";
  return out;
}

std::string dump_netlink(std::vector<uint8_t> &in, const char *) {
  // struct nlmsghdr: u32 length, u16 type, u16 flags, u32 sequence, u32 port
  static const size_t fields[][2] = {{0, 4}, {4, 2}, {6, 2}, {8, 4}, {12, 4}};
  for (const auto &f : fields)
    if (in.size() >= f[0] + f[1])
      le_to_host(in.data() + f[0], f[1]);
  netlink_event ev{};
  if (!netlink_parse(in.data(), in.size(), &ev))
    return "refused";
  char out[256];
  snprintf(out, sizeof(out), "type=%u mac=%s ip=%u port=%u dst_ip=%u dst_port=%u", ev.type,
           shown(ev.http.mac).c_str(), ev.http.ip, ev.http.port, ev.http.dst_ip, ev.http.dst_port);
  return out;
}

std::string dump_wifi_info(std::vector<uint8_t> &in, const char *) {
  // As the daemon reads the file: at most 1023 bytes, then a terminator.
  std::string text(in.begin(), in.end());
  text.resize(std::min<size_t>(text.size(), 1023));
  wifi_info info{};
  if (!wifi_info_parse(text.c_str(), text.size(), &info))
    return "refused";
  return "ap_mac=[" + shown(info.ap_mac) + "] strength=[" + shown(info.field_strength) +
         "] aux1=[" + shown(info.aux1) + "] aux2=[" + shown(info.aux2) + "]";
}

std::string dump_wtps(std::vector<uint8_t> &in, const char *) {
  std::string macs;
  const wtps_result r =
      wtps_parse(std::string_view(reinterpret_cast<const char *>(in.data()), in.size()), "dump",
                 [&macs](const char *mac) {
                   macs += " [" + shown(mac) + "]";
                   return true;
                 });
  return "result=" + std::to_string(static_cast<int>(r)) + macs;
}

std::string dump_route(std::vector<uint8_t> &in, const char *) {
  const std::string_view text(reinterpret_cast<const char *>(in.data()), in.size());
  char name[16] = "", addr[64] = "";
  const bool has_name = route_iface_parse(text, name, sizeof(name));
  const bool has_addr = route_addr_parse(text, addr, sizeof(addr));
  return std::string("iface=") + (has_name ? "[" + shown(name) + "]" : "refused") +
         " addr=" + (has_addr ? "[" + shown(addr) + "]" : "refused");
}

std::string dump_config(std::vector<uint8_t> &, const char *path) {
  if (qz2fh_config_load(path) != 0)
    return "refused";
  const char *(*const getters[])() = {
      qz2fh_get_netbar_property_str, qz2fh_get_netbar_type_str, qz2fh_get_netbar_name,
      qz2fh_get_equipment_name,      qz2fh_get_source_str,      qz2fh_get_address,
      qz2fh_get_dst_str,             qz2fh_get_longitude,       qz2fh_get_latitude,
      qz2fh_get_org_name,            qz2fh_get_org_tel_num,     qz2fh_get_org_mail,
      qz2fh_get_org_address,         qz2fh_get_ftp_ip,          qz2fh_get_ftp_port,
      qz2fh_get_ftp_username,        qz2fh_get_ftp_password,    qz2fh_get_netbar_wacode};
  std::string out;
  for (auto get : getters)
    out += "[" + shown(get()) + "]";
  return out;
}

struct dumper {
  const char *target;
  std::string (*dump)(std::vector<uint8_t> &input, const char *path);
};

constexpr dumper dumpers[] = {
    {"fuzz_shell", dump_shell}, {"fuzz_netlink", dump_netlink}, {"fuzz_wifi_info", dump_wifi_info},
    {"fuzz_wtps", dump_wtps},   {"fuzz_route", dump_route},     {"fuzz_config", dump_config},
};

bool read_file(const char *path, std::vector<uint8_t> *out) {
  FILE *f = fopen(path, "rb");
  if (!f)
    return false;
  int c;
  out->clear();
  out->reserve(1);  // data() is never null, even for an empty file
  while ((c = getc(f)) != EOF)
    out->push_back(static_cast<uint8_t>(c));
  const bool ok = !ferror(f);
  fclose(f);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  const dumper *d = nullptr;
  for (const dumper &candidate : dumpers)
    if (argc > 1 && strcmp(argv[1], candidate.target) == 0)
      d = &candidate;
  if (!d || argc < 3) {
    fprintf(stderr, "usage: qz_parse_dump TARGET FILE...\n");
    return 2;
  }
  std::vector<uint8_t> input;
  for (int i = 2; i < argc; i++) {
    if (!read_file(argv[i], &input)) {
      perror(argv[i]);
      return 1;
    }
    const char *base = strrchr(argv[i], '/');
    printf("%s %s\n", base ? base + 1 : argv[i], d->dump(input, argv[i]).c_str());
  }
  return 0;
}
