// Every name the daemon gives its files, and every path of a file in a
// spool directory or the store: made and read here only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

constexpr size_t NAME_SIZE = 256;
// The index of a zip.
constexpr char NAME_INDEX[] = "GAB_ZIP_INDEX.xml";
// A spool's files of the next cycle while the zip of its last cycle is
// made and sent: a dot name, which neither "./*" nor "/*" matches.
constexpr char NAME_NEXT_DIR[] = ".next";

// "<id>-<source>-<time>-<sequence, 5 digits>-<dataset>-0.bcp".
bool name_bcp(char *out, size_t size, uint32_t id, time_t when, unsigned sequence,
              const char *dataset);
// The dataset code a record file's name ends with, or empty.
std::string_view name_bcp_dataset(std::string_view name);
// "<id>-<org>-<source>-<destination>-<time>-<sequence, 5 digits>.zip".
bool name_zip(char *out, size_t size, uint32_t id, time_t when, unsigned sequence);
// The status report's "145-<source>-<time>-<sequence>-DEVICESTATUS-0.bjson".
bool name_status(char *out, size_t size, time_t when, unsigned sequence);
// True when name is one the daemon gives the files of that spool that it
// may keep to send again: the group's zips, or for the status report (144)
// its status files; in the store also with ".<n>" (1 to 99) after it,
// when a kept file had the name already (with_suffix).
bool name_is_own(uint32_t id, const char *name, bool with_suffix);
// A kept file's name in the store when k earlier ones had its name:
// "<name>" for k 0, else "<name>.<k>" (k at most 99).
bool name_kept(char *out, size_t size, const char *name, int k);
// "<dir>/<name>", or "<dir>/.next/<name>" for next. False (out empty) when
// it does not fit.
bool name_path(char *out, size_t size, const char *dir, const char *name, bool next = false);
