// The netbar-type dataset group (145): terminals online and offline, their
// HTTP events, and the place, vendor and access-point records.
#pragma once

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

// Registers the group, empties and creates /tmp/145, sets up the six
// datasets with their timers and opens both feeds. 0, or -1 when a feed
// could not be opened (logged; the daemon runs on without it).
int netbar_group_init();
// A stopping daemon takes in what its feeds hold, and no more: the datagram
// socket's name goes first, so that a later send fails at its sender
// instead of waiting in a socket that is about to close; then both sockets
// are read to their end and closed.
void netbar_feeds_finish();
