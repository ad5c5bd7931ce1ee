// The netbar-type dataset group (145): terminals online and offline, their
// HTTP events, and the place, vendor and access-point records.
#pragma once

#include <cstddef>

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
// A stopping daemon takes in what its feeds hold, and no more: the datagram
// socket's name goes first, so that a later send fails at its sender
// instead of waiting in a socket that is about to close; then both sockets
// are read to their end and closed.
void netbar_feeds_finish();

// Session id: place code, the MAC's hex digits in lower case (separators
// dropped) and a time in seconds, cut to 64 characters.
constexpr size_t NETBAR_SESSION_ID_SIZE = 65;
void netbar_session_id(char *out, const char *mac, unsigned long long when);
