// The archive step of a dataset group: index, zip, upload, empty spool.
#pragma once

#include "output/bcp_dataset.h"

// Closes the group's open files, writes GAB_ZIP_INDEX.xml describing every
// finished file, zips the spool directory, uploads the zip and empties the
// directory. Does nothing but reset the count when no file is listed.
void group_archive_cycle(bcp_group *group);

// The index's fixed header (204 bytes) and footer (50 bytes).
extern const char BCP_INDEX_HEADER[];
extern const char BCP_INDEX_FOOTER[];
