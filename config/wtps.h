// The router's list of managed access points, "wum -c wtps": one line per
// access point, its MAC the second blank-separated token.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

enum wtps_result {
  WTPS_DONE = 0,     // every line was read
  WTPS_CUT = 1,      // a line without a MAC (or the callback) ended the reading
};

// Called with each MAC, NUL-terminated. Returning false ends the reading.
using wtps_mac_fn = std::function<bool(const char *mac)>;

// Largest listing read; the rest is discarded.
constexpr size_t WTPS_OUTPUT_MAX = 1024 * 1024;

// The command that lists them.
constexpr char WTPS_COMMAND[] = "wum -c wtps";

// Passes each line's MAC of the listing to fn. Lines are taken without
// their terminator, so a MAC that ends its line is clean. A MAC text that
// could break a record or a path is skipped with a log line under caller's
// name.
wtps_result wtps_parse(std::string_view listing, const char *caller, const wtps_mac_fn &fn);
