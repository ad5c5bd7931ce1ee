// Sends terminal events to the daemon as fast as it takes them (blocking
// sends): online/offline datagrams on /tmp/qz_hk_audit_srv, or HTTP events
// to the netlink stand-in's socket of a process.
//   feed_sender pairs N        online i, offline i, for i < N
//   feed_sender online N [FIRST]
//   feed_sender http N PID
//   feed_sender flood N T [RATE]   N online datagrams for T terminals
// Terminal i has MAC 02:00:xx:xx:xx:xx (i in the last four bytes). A flood
// datagram k is for terminal k % T and carries k in its address
// 10.x.y.z; with RATE it is sent without blocking, paced at RATE per
// second, and a refused send is counted and not repeated ("taken N refused
// M" on standard output).
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

std::string mac_of(unsigned i) {
  char mac[32];
  snprintf(mac, sizeof(mac), "02:00:%02x:%02x:%02x:%02x", (i >> 24) & 255, (i >> 16) & 255,
           (i >> 8) & 255, i & 255);
  return mac;
}

void send_all(int fd, const sockaddr *to, socklen_t len, const void *data, size_t size) {
  while (sendto(fd, data, size, 0, to, len) < 0) {
    perror("sendto");
    exit(1);
  }
}

void shell(int fd, const sockaddr_un &to, uint32_t cmd, const std::string &text) {
  char buf[260];
  memcpy(buf, &cmd, 4);
  const size_t n = text.size() + 1 < sizeof(buf) - 4 ? text.size() + 1 : sizeof(buf) - 4;
  memcpy(buf + 4, text.c_str(), n);
  send_all(fd, reinterpret_cast<const sockaddr *>(&to), sizeof(to), buf, 4 + n);
}

double now_seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int flood(int fd, const sockaddr_un &to, unsigned n, unsigned terminals, double rate) {
  unsigned long taken = 0, refused = 0;
  const double start = now_seconds();
  for (unsigned k = 0; k < n; k++) {
    if (rate > 0) {
      // Paced: wait until datagram k is due (bursts of whatever is due).
      while (now_seconds() - start < k / rate) {
      }
    }
    char ip[32];
    snprintf(ip, sizeof(ip), "10.%u.%u.%u", (k >> 16) & 255, (k >> 8) & 255, k & 255);
    const std::string text = mac_of(k % (terminals ? terminals : 1)) + " " + ip + " 1";
    char buf[260];
    const uint32_t cmd = 3;
    memcpy(buf, &cmd, 4);
    memcpy(buf + 4, text.c_str(), text.size() + 1);
    const size_t len = 4 + text.size() + 1;
    if (rate > 0) {
      if (sendto(fd, buf, len, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof(to)) ==
          static_cast<ssize_t>(len))
        taken++;
      else if (errno == EAGAIN || errno == EWOULDBLOCK)
        refused++;
      else
        perror("sendto");
    } else {
      send_all(fd, reinterpret_cast<const sockaddr *>(&to), sizeof(to), buf, len);
      taken++;
    }
  }
  printf("taken %lu refused %lu\n", taken, refused);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: feed_sender pairs|online|http|flood N [FIRST|PID|T [RATE]]\n");
    return 2;
  }
  const std::string mode = argv[1];
  const unsigned n = static_cast<unsigned>(strtoul(argv[2], nullptr, 10));
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un to = {};
  to.sun_family = AF_UNIX;
  if (mode == "http") {
    const char *pid = argc > 3 ? argv[3] : "0";
    // Abstract address of the stand-in's socket for that process.
    const std::string name = std::string("qz_nl28/") + pid;
    memcpy(to.sun_path + 1, name.data(), name.size());
    const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    uint8_t ev[200] = {};
    const uint32_t total = sizeof(ev);
    memcpy(ev, &total, 4);
    ev[16] = 2;
    const uint8_t addrs[12] = {10, 0, 0, 0, 93, 184, 216, 34, 0xc7, 0x38, 0, 80};
    for (unsigned i = 0; i < n; i++) {
      const uint8_t mac[6] = {2, 0, static_cast<uint8_t>(i >> 24), static_cast<uint8_t>(i >> 16),
                              static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
      memcpy(ev + 32, mac, 6);
      memcpy(ev + 40, addrs, 12);
      ev[43] = static_cast<uint8_t>(i & 255);
      send_all(fd, reinterpret_cast<const sockaddr *>(&to), len, ev, sizeof(ev));
    }
    return 0;
  }
  strcpy(to.sun_path, "/tmp/qz_hk_audit_srv");
  if (mode == "flood")
    return flood(fd, to, n, argc > 3 ? static_cast<unsigned>(strtoul(argv[3], nullptr, 10)) : 1,
                 argc > 4 ? strtod(argv[4], nullptr) : 0);
  const unsigned first = argc > 3 ? static_cast<unsigned>(strtoul(argv[3], nullptr, 10)) : 0;
  for (unsigned i = first; i < first + n; i++) {
    char ip[32];
    snprintf(ip, sizeof(ip), "10.%u.%u.%u", (i >> 16) & 255, (i >> 8) & 255, i & 255);
    shell(fd, to, 3, mac_of(i) + " " + ip + " 1");
    if (mode == "pairs")
      shell(fd, to, 2, mac_of(i));
  }
  return 0;
}
