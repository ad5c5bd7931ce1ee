// Spool directories and upload, through standard shell commands.
#pragma once

#include <string>
#include <string_view>

#include "output/bcp_dataset.h"

// "mkdir /tmp/<id> 2>/dev/null".
void qz2fh_create_dir(int id, bcp_group_state *st);
// "rm /tmp/<id>/* 2>/dev/null"; returns the command's wait status.
int qz2fh_delete_dir_file(int id, bcp_group_state *st);
// Moves every file of the spool directory into the zip st->zip_name there.
void qz2fh_form_zip_file(int id, bcp_group_state *st);
// Uploads /tmp/<id>/<zip_name> with wput to the configured FTP server.
void qz2fh_send_zip_file(int id, bcp_group_state *st);
// Uploads any file of a spool directory the same way (the status report).
void qz2fh_send_file(const char *local_path, const char *remote_dir);

// Backslash-escapes what the shell would interpret in an unquoted word;
// ordinary names, addresses and numbers come out unchanged.
std::string shell_word(std::string_view text);
// Percent-encodes all but unreserved URL characters, which wput decodes:
// user names and passwords with blanks, quotes or "@" still log in, and
// the shell never sees a character it interprets.
std::string url_credential(std::string_view text);
