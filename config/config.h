// The daemon's settings: seventeen text values (and one optional one) from
// /etc/qz_fh_audit.json, read once at start-up and kept for the life of the
// process, and three built-in constants.
#pragma once

// Loads the file. 0 when every key was read, 1 otherwise (logged).
int qz2fh_config_init();
// Loads another file; for tests and tools. Same result as qz2fh_config_init.
int qz2fh_config_load(const char *path);

// Counts successful loads, so that texts derived from the values can be
// kept until the next load.
unsigned qz2fh_config_generation();

// The getters return the value as written in the file; valid only after a
// successful load.
const char *qz2fh_get_netbar_property_str();
const char *qz2fh_get_netbar_type_str();
const char *qz2fh_get_netbar_name();
const char *qz2fh_get_equipment_name();
const char *qz2fh_get_source_str();
const char *qz2fh_get_address();
const char *qz2fh_get_dst_str();
const char *qz2fh_get_longitude();
const char *qz2fh_get_latitude();
const char *qz2fh_get_org_name();
const char *qz2fh_get_org_tel_num();
const char *qz2fh_get_org_mail();
const char *qz2fh_get_org_address();
const char *qz2fh_get_ftp_ip();
const char *qz2fh_get_ftp_port();
const char *qz2fh_get_ftp_username();
const char *qz2fh_get_ftp_password();
// The optional "fh_unsent_dir": where unsent files are kept (durable mode),
// or null when the key is absent or empty.
const char *qz2fh_get_unsent_dir();

const char *qz2fh_get_org_code();
int qz2fh_get_equipment_type();
const char *qz2fh_get_contactor();
