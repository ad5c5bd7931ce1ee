// The terminal-type dataset group (146): the collecting equipment's own
// records: access points, place and vendor.
#pragma once

#include "output/bcp_dataset.h"

extern bcp_group source_group;

// Registers the group, empties and creates /tmp/146 and sets up its six
// datasets with their timers. 0 (nothing here can fail).
int source_group_init();

// The writers of the four basic datasets: access-point presence and
// collection equipment for one scanned MAC, the place, the vendor. 0 when
// the record was written.
int source_basic_1001_write(const char *mac);
int source_basic_1002_write(const char *mac);
int source_basic_1003_write();
int source_basic_1004_write();
