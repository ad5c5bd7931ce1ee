// The archive step of a dataset group: index, zip, upload, empty spool.
#pragma once

#include "output/bcp_dataset.h"

// Closes the group's open files, writes GAB_ZIP_INDEX.xml describing every
// finished file, and starts zipping the spool directory; the zip is then
// uploaded and the directory emptied, each command beside the loop, while
// new records go into the next cycle's files. Only the reset of the count
// when no file is listed. In durable mode a zip that could not be uploaded
// is kept, and kept files are sent again once an upload has worked.
void group_archive_cycle(bcp_group *group);
// The archive timer of every group: the cycle of the group it is given,
// which ends beside the loop; one that falls due while an early archive is
// in flight follows it.
report_result group_archive_timer(void *group);
// Starts the early archive of every group that waits for one and has none
// in flight: the loop's step between two handlers, never inside a
// record's write.
void archive_run_due();
// True while a group waits for its early archive behind one in flight:
// its spool directory is at its bound, so the feeds wait in the kernel.
bool archive_waiting();
// Durable mode's stop, once the commands in flight have ended: the same
// cycle run while the caller waits, but the zip is kept for the next start
// instead of being uploaded.
void group_archive_keep(bcp_group *group);

// The index's fixed header (204 bytes) and footer (50 bytes).
extern const char BCP_INDEX_HEADER[];
extern const char BCP_INDEX_FOOTER[];

// Durable mode's start-up, once every group is set up: what a run that
// could not archive left in a group's spool directory is kept, its BCP
// files archived first into a zip with its index (a line cut by the stop
// is dropped); then the directory is emptied and created as usual.
void archive_recover_leftovers(bcp_group *group);
// Durable mode's stop: group_archive_keep for every group.
void archive_keep_all();
