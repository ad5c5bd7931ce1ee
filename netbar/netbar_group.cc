#include "netbar/netbar_group.h"

#include <unistd.h>

#include <cstdio>

#include "config/identity.h"
#include "frame/feed_queue.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "netbar/netbar_basic.h"
#include "netbar/netbar_netlink.h"
#include "netbar/netbar_terminal.h"
#include "output/archive.h"

bcp_group netbar_group;

report_result netbar_report_timer(void *) {
  group_archive_cycle(&netbar_group);
  return report_result::done;
}

void netbar_group_init() {
  bcp_group_init(&netbar_group, QZ2FH_NETBAR_TYPE, "QZ2FH_NETBAR_TYPE", "netbar_report_timer",
                 netbar_report_timer);
  netbar_init_sock();
  init_netbar_0002();
  netbar_basic_0001_init();
  netbar_basic_0002_init();
  netbar_basic_0003_1_init();
  netbar_basic_0003_2_init();
}

void netbar_feeds_finish() {
  unlink(QZ_SHELL_SOCK_PATH);
  feed_queue_take_all();
  feed_queue_close_sources();
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
