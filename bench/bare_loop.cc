// The floor the daemon's feed is measured against: receive the same
// datagrams on the same socket, read the terminal's status file where the
// daemon does (online), and write a fixed line per datagram. Exits after N
// datagrams.
//   bare_loop N
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
  const long n = argc > 1 ? strtol(argv[1], nullptr, 10) : 0;
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, "/tmp/qz_hk_audit_srv");
  unlink(addr.sun_path);
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
    perror("bind");
    return 1;
  }
  puts("ready");
  fflush(stdout);
  FILE *out = fopen("/tmp/bare_loop.bcp", "a+");
  static const char line[] =
      "1029999\t02:00:00:00:00:01\t35010010AC1000\t9\t\t\t\t\t\t\t1709622302\t\t167880896\t33574154"
      "\t\t80\t80\t\t\t02-00-00-00-00-01\t507183926001A2B3C4D5\t00-1A-2B-3C-4D-5E\t119.30\t26.08\t"
      "35010010AC1000020000000001170962230\t-45\t\t\t\t\t\t\t\t\n";
  char buf[260];
  for (long i = 0; i < n; i++) {
    ssize_t len = recv(fd, buf, sizeof(buf) - 1, 0);
    if (len < 5)
      continue;
    buf[len] = '\0';
    uint32_t cmd;
    memcpy(&cmd, buf, sizeof(cmd));
    // The daemon reads a terminal's status file when it comes online.
    if (cmd != 3) {
      fwrite(line, 1, sizeof(line) - 1, out);
      continue;
    }
    char *mac = buf + 4;
    char *end = strchr(mac, ' ');
    if (end)
      *end = '\0';
    char path[128];
    snprintf(path, sizeof(path), "/tmp/qztmp/clt_wifi_info/%s", mac);
    int f = open(path, O_RDONLY);
    if (f >= 0) {
      char status[1024];
      if (read(f, status, sizeof(status) - 1) < 0)
        perror("read");
      close(f);
    }
    fwrite(line, 1, sizeof(line) - 1, out);
  }
  fclose(out);
  return 0;
}
