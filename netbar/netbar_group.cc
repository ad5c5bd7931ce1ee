#include "netbar/netbar_group.h"

#include <unistd.h>

#include <cstdio>

#include "frame/feed.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "netbar/netbar_basic.h"
#include "netbar/netbar_netlink.h"
#include "netbar/netbar_terminal.h"
#include "output/archive.h"

bcp_group netbar_group;

int netbar_group_init() {
  // The feeds' datasets first, then the periodic ones, in index order.
  static bcp_dataset_decl decls[BCP_GROUP_DATASETS] = {
      {"WA_SOURCE_FJ_0001", netbar_0001_template, nullptr, nullptr, nullptr, 0},
      {"WA_SOURCE_FJ_0002", netbar_0002_template, nullptr, nullptr, nullptr, 0},
  };
  static_assert(NETBAR_BASIC_0001 + NETBAR_BASIC_DATASETS == BCP_GROUP_DATASETS, "six datasets");
  for (int i = 0; i < NETBAR_BASIC_DATASETS; i++)
    decls[NETBAR_BASIC_0001 + i] = netbar_basic_datasets[i];
  bcp_group_init(&netbar_group, QZ2FH_NETBAR_TYPE, "QZ2FH_NETBAR_TYPE", "netbar_report_timer",
                 group_archive_timer, decls, BCP_GROUP_DATASETS);
  netbar_basic_init(&netbar_group.datasets[NETBAR_BASIC_0001]);
  const int terminal = netbar_terminal_init(&netbar_group.datasets[NETBAR_SOURCE_0001]);
  const int netlink = netbar_netlink_init(&netbar_group.datasets[NETBAR_SOURCE_0002]);
  return terminal == 0 && netlink == 0 ? 0 : -1;
}

void netbar_feeds_finish() {
  unlink(QZ_SHELL_SOCK_PATH);
  feed_take_all();
  feed_close_sources();
}
