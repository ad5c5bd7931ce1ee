// Directories under /tmp that the daemon writes into and later zips,
// uploads or deletes from: they must be its own, since other accounts of
// the router can write to /tmp.
#pragma once

#include <sys/types.h>

#include <cstdio>

enum class trusted_dir_result {
  ok,        // already a directory of the daemon's own, mode 0700
  made,      // it had gone (or never was) and has been made
  replaced,  // a directory or file of someone else's was moved aside
  failed,    // unusable: logged
};

// Makes path a real directory (not a link) owned by the daemon's uid and
// writable by it alone. One of its own with a wider mode is chmod'ed to
// 0700; anything else is renamed to "<path>.untrusted.<epoch>" with an
// ERROR line and a new one is made. A missing one is made, with a WARN
// line when warn_missing is set.
trusted_dir_result trusted_dir_ensure(const char *path, bool warn_missing);

// True when st describes a regular file of the daemon's own that no other
// name links to: what the daemon may zip, send or delete.
bool trusted_dir_own_file(const struct stat &st);

// Opens path for appending as "a+" would, creating it 0600, but never
// through a link and never a file that another account or name shares
// (then null with errno EPERM).
FILE *trusted_dir_open_append(const char *path);
