// The terminal-type dataset group (146): the collecting equipment's own
// records: access points, place and vendor.
#pragma once

#include "output/bcp_dataset.h"

extern bcp_group source_group;

// Registers the group, empties and creates /tmp/146 and sets up its six
// datasets with their timers.
void source_group_init();
// The group's archive timer.
void source_report_timer(void *arg);
