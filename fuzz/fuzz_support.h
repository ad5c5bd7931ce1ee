// Shared set-up of the fuzz targets: a private /tmp, a loaded
// configuration, and shell commands answered without starting processes.
#pragma once

#include <cstddef>
#include <cstdint>

// Once per process: private mount namespace with a tmpfs on /tmp, the
// test configuration loaded, canned answers for route/ip/wum, rm really
// run (so spool directories do not fill up).
void fuzz_setup();
// Sets up the netbar group as the daemon does (sockets, datasets) and the
// status files of a few terminals.
void fuzz_setup_netbar();
// Every so many calls, archives the netbar group to bound disk use.
void fuzz_maybe_archive();
