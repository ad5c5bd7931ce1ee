// Files at fixed names in /tmp, where other local accounts may have put
// something first: nothing found at those names is followed or waited on.
#pragma once

#include <sys/types.h>

#include <cstddef>

// Opens (creating it 0600 when absent) the lock file for flock. Only a
// regular file of the process's own uid with a single link is taken: a
// link (dangling or not), FIFO, directory, device or foreign file there is
// refused without being followed, waited on or created elsewhere. The
// descriptor (close-on-exec), or -1 with errno set.
int fixed_file_open_lock(const char *path);

// Renames whatever another account put at path (anything whose owner is
// not the process's uid; a link counts by its own owner), and with a type
// (S_IFSOCK, ...) also anything of the process's own of another type, to
// "<path>.untrusted.<epoch>", logging an ERROR line that names it as not
// "the daemon's own <what>". 1 when something was moved aside, 0 when
// nothing to move is there, -1 when it could not be moved (logged).
int fixed_file_clear_foreign(const char *path, const char *what, mode_t type = 0);
// The rename itself: under a name nobody has taken, written into aside.
// False (errno set) when none was free or the rename failed.
bool fixed_file_move_aside(const char *path, char *aside, size_t size);

// Replaces path with the len bytes of data: they go into a new file
// "<path>.<pid>.tmp" (O_CREAT | O_EXCL | O_NOFOLLOW, mode as umask allows),
// which is then renamed over path, so a reader sees the old or the new file
// whole and a link at path is replaced, not followed. Whatever sits at the
// temporary name is removed first (never followed). 0, or -1 with errno
// set and the temporary file removed.
int fixed_file_replace(const char *path, const char *data, size_t len, mode_t mode);

// Writes all of data to fd, through short writes and interruptions; false
// on an error (errno set).
bool fixed_file_write_all(int fd, const char *data, size_t len);
