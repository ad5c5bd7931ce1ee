// The netbar-type dataset group (145): terminals online and offline, their
// HTTP events, and the place, vendor and access-point records.
#pragma once

#include <cstddef>
#include <cstdint>

#include "output/bcp_dataset.h"

enum netbar_dataset_index {
  NETBAR_SOURCE_0001,
  NETBAR_SOURCE_0002,
  NETBAR_BASIC_0001,
  NETBAR_BASIC_0002,
  NETBAR_BASIC_0003_1,
  NETBAR_BASIC_0003_2,
};

extern bcp_group netbar_group;

// Registers the group, empties and creates /tmp/145, opens both feeds and
// sets up the six datasets with their timers.
void netbar_group_init();
// The group's archive timer.
report_result netbar_report_timer(void *arg);

// Online/offline feed and WA_SOURCE_FJ_0001.
void netbar_init_sock();
// Handles one datagram as received (at most 260 bytes).
void netbar_shell_process(const uint8_t *data, size_t len);

// Kernel netlink feed and WA_SOURCE_FJ_0002.
void init_netbar_0002();
// Handles one netlink message as received (at most 1040 bytes).
void netbar_netlink_process(const uint8_t *data, size_t len);

// WA_BASIC_FJ_0001, WA_BASIC_FJ_0002, WA_BASIC_FJ_0003_1, WA_BASIC_FJ_0003_2.
void netbar_basic_0001_init();
void netbar_basic_0002_init();
void netbar_basic_0003_1_init();
void netbar_basic_0003_2_init();
// Their writers: the place, the vendor, and two records for one scanned
// access point. 0 when the record was written.
int netbar_basic_0001_write();
int netbar_basic_0002_write();
int netbar_basic_0003_1_write(const char *mac);
int netbar_basic_0003_2_write(const char *mac);

// Session id: place code, the MAC's hex digits in lower case (separators
// dropped) and a time in seconds, cut to 64 characters.
constexpr size_t NETBAR_SESSION_ID_SIZE = 65;
void netbar_session_id(char *out, const char *mac, unsigned long long when);
