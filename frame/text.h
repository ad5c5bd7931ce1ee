// Small routines for text that comes from outside the daemon: datagrams,
// status files, command output. They never read past the view they get.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Splits at blanks (a run counts as one, leading blanks are skipped) into at
// most max tokens; returns how many were found. A line feed is not a blank.
size_t text_split(std::string_view text, std::string_view *tokens, size_t max);
// True when the text holds no control character.
bool text_printable(std::string_view text);
// Copies text and its terminator into a field of size bytes; false, with
// the field untouched, when it does not fit.
bool text_copy(std::string_view text, char *field, size_t size);

// Backslash-escapes what the shell would interpret in an unquoted word;
// ordinary names, addresses and numbers come out unchanged.
std::string text_shell_word(std::string_view text);
// Percent-encodes all but unreserved URL characters, which wput decodes:
// user names and passwords with blanks, quotes or "@" still log in, and
// the shell never sees a character it interprets.
std::string text_url_credential(std::string_view text);
