// The archive step of a dataset group: index, zip, upload, empty spool.
#pragma once

#include "output/bcp_dataset.h"

// Closes the group's open files, writes GAB_ZIP_INDEX.xml describing every
// finished file, zips the spool directory, uploads the zip and empties the
// directory. Does nothing but reset the count when no file is listed. In
// durable mode a zip that could not be uploaded is kept, and kept files are
// sent again once an upload has worked.
void group_archive_cycle(bcp_group *group);
// The archive timer of every group: group_archive_cycle of the group it
// is given.
report_result group_archive_timer(void *group);
// Runs the early archive of every group that waits for one: the loop's
// step between two handlers, never inside a record's write.
void archive_run_due();
// Durable mode's stop: the same cycle, but the zip is kept for the next
// start instead of being uploaded.
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
