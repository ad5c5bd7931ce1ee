// The counters file an operator or a monitoring agent reads: what the
// feeds took in, what each dataset wrote and what each spool sent, since
// start, rewritten every tick.
#pragma once

#include <ctime>

// Writes QZ_STATS_PATH atomically (a temporary file of its own, then a
// rename). 0, or -1 when it could not be written (logged at WARN once until
// it can be again).
int stats_write(time_t started);
