#!/usr/bin/python3
"""Plants one fault at a time in a copy of the daemon's sources and reports
every test that catches it.

Each fault is an exact piece of a source file (found there once) and what
replaces it.  The tracked files are copied to DIR/jobN/tree (the working
tree is never touched); for each fault the copy is patched and built in
DIR/jobN/build, and every unit test (for the package's files every package
test too) and every end-to-end row runs.  An end-to-end row that fails is
run again and counts only if it fails twice: a loaded machine must not
make a catcher.  The copy is restored after each fault.  Faults run N at a
time, each in a copy of its own.

    tests/plant_faults.py [--dir DIR] [--jobs N] [--dry] [ID ...]    (root)

Prints one Markdown row per fault: id, what was planted, every test that
failed (or MISSED).  Exit status 1 when any was missed; logs in DIR/logs.
"""
import argparse
import concurrent.futures
import os
import pathlib
import queue
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# (id, area, file, source text, replacement, what the fault does)
FAULTS = [
    # Writing records
    ("W1", "writing", "output/bcp_dataset.cc",
     "if (++ds->record_count == BCP_MAX_RECORDS)\n",
     "if (++ds->record_count == BCP_MAX_RECORDS + 1)\n",
     "a file rolls over after 5001 records"),
    ("W2", "writing", "output/bcp_dataset.cc",
     "  ds->bcp_sequence++;\n", "\n",
     "the file sequence number never advances"),
    ("W3", "writing", "output/bcp_record.cc",
     "plan.text += i + 1 == count ? '\\n' : '\\t';",
     "plan.text += '\\t';",
     "a line whose last column is fixed lacks its line feed"),
    ("W4", "writing", "output/bcp_record.cc",
     "  if (len_ + text.size() >= sizeof(buf_)) {",
     "  if (len_ + text.size() > sizeof(buf_)) {",
     "a line one byte too long is accepted (terminator overwritten)"),
    ("W5", "writing", "output/bcp_dataset.cc",
     "  ds->records++;\n", "\n",
     "records are not counted"),
    ("W6", "writing", "output/bcp_dataset.cc",
     "constexpr int BCP_LIST_EARLY = BCP_LIST_ROOM - BCP_GROUP_DATASETS;",
     "constexpr int BCP_LIST_EARLY = BCP_LIST_ROOM;",
     "the early archive comes too late for the open files"),
    ("W7", "writing", "output/bcp_dataset.cc",
     "  if (!unflushed)\n    return;", "  return;",
     "lines stay in stdio's buffer until the file closes"),
    ("W8", "writing", "netbar/netbar_terminal.cc",
     "  if (!r.online)\n    l.put_decimal(r.end_time);",
     "  l.put_decimal(r.end_time);",
     "an online record carries an end time"),
    ("W9", "writing", "output/bcp_record.cc",
     "    *--p = static_cast<char>('0' + value % 10);",
     "    *--p = static_cast<char>('0' + value % 10 % 9);",
     "the digit 9 is written as 0"),
    # Archive cycle and unsent files
    ("A1", "archive", "output/archive.cc",
     "  ok = ok && fputs(BCP_INDEX_FOOTER, fp) != EOF;\n", "\n",
     "the index has no footer"),
    ("A2", "archive", "output/archive.cc",
     "g->state.zip_sequence++);",
     "g->state.zip_sequence);",
     "the zip sequence number never advances"),
    ("A3", "archive", "output/archive.cc",
     "  qz2fh_delete_dir_file(g->spool);\n  g->bcp_file_count = 0;\n",
     "  qz2fh_delete_dir_file(g->spool);\n",
     "the next cycle indexes the last cycle's files again"),
    ("A4", "archive", "output/bcp_record.cc",
     "\"\\t\\t\\t\\t\\t\\t\\t<ITEM key=\\\"I010034\\\" val=\\\"%d\\\" rmk=\\\"记录行数\\\"/>\\t\\t\\t\\t\\t\\t\\n\"",
     "\"\\t\\t\\t\\t\\t\\t\\t<ITEM key=\\\"I010034\\\" val=\\\"%d\\\" rmk=\\\"记录行数\\\"/>\\t\\t\\t\\t\\t\\t\\t\\n\"",
     "one tab too many in every index block"),
    ("A5", "archive", "output/bcp_dataset.cc",
     "  if (pos != end && ftruncate(fd.get(), end) != 0) {",
     "  if (false && ftruncate(fd.get(), end) != 0) {",
     "a line cut by a crash is archived as it is"),
    ("A6", "archive", "output/unsent.cc",
     "    if (count <= 1 || (count <= UNSENT_MAX_FILES && bytes <= UNSENT_MAX_BYTES))",
     "    if (count <= 1 || (count < UNSENT_MAX_FILES && bytes <= UNSENT_MAX_BYTES))",
     "one kept file fewer than the bound"),
    ("A7", "archive", "output/unsent.cc",
     "    return x.written_ns < y.written_ns;", "    return x.written_ns > y.written_ns;",
     "kept files are sent newest first"),
    ("A8", "archive", "output/upload.cc",
     "    if (unsent_enabled() && unsent_keep(t->id, t->path) == 0)",
     "    if (false)",
     "a failed upload is not kept in durable mode"),
    # A host that misbehaves
    ("H1", "host", "output/bcp_dataset.cc",
     "  if (fwrite(line, 1, len, ds->fp) != len || ferror(ds->fp)) {",
     "  if (fwrite(line, 1, len, ds->fp) != len && false) {",
     "a failed record write is ignored"),
    ("H2", "host", "output/bcp_dataset.cc",
     "  if (fflush(ds->fp) != 0 || ferror(ds->fp)) {",
     "  if (false) {",
     "a failed flush of a file's last buffer, as it ends, is ignored"),
    ("H3", "host", "output/bcp_dataset.cc",
     "  return g->spool_bytes >= g->spool_bound || g->bcp_file_count >= BCP_LIST_EARLY;",
     "  return g->bcp_file_count >= BCP_LIST_EARLY;",
     "the bound on a spool directory's bytes is not applied"),
    ("H4", "host", "output/trusted_dir.cc",
     "  if (lstat(path, &st) == 0) {\n    if (own_dir(st)) {",
     "  if (stat(path, &st) == 0) {\n    if (own_dir(st)) {",
     "a link to a directory is followed and trusted"),
    ("H5", "host", "output/archive.cc",
     "    if (listed(g, name) || strcmp(name, NAME_NEXT_DIR) == 0 ||",
     "    if (true ||",
     "the zip takes whatever lies in the spool directory"),
    ("H6", "host", "output/archive.cc",
     "  if (status == 0 && lstat(zip.text, &zst) == 0 && trusted_dir_own_file(zst)) {",
     "  if (true) {",
     "a failed zip is taken as formed"),
    ("H7", "host", "output/unsent.cc",
     "    if (!unsent_own_name(id, e->d_name))\n      continue;",
     "",
     "files of any name in the store are sent and deleted"),
    ("H8", "host", "output/unsent.cc",
     "    if (count <= 1 || (count",
     "    if ((count",
     "the store's bound deletes the newest file too"),
    ("H9", "host", "output/bcp_dataset.cc",
     "      if (ds.fp && fstat(fileno(ds.fp), &st) == 0 && st.st_nlink == 0) {",
     "      if (false) {",
     "records written into a removed directory are counted as written"),
    ("H10", "host", "output/bcp_dataset.cc",
     "  mark_archive_due(g);\n  return 0;",
     "  mark_archive_due(g);\n  extern void archive_run_due();\n  archive_run_due();\n  return 0;",
     "an early archive is started inside a record write"),
    ("H11", "host", "netbar/netbar_terminal.cc",
     "  netbar_terminal_report();\n  qz2fh_route_probe();",
     "  netbar_terminal_report();",
     "the tick never probes the route after a failed first probe"),
    ("H12", "host", "netbar/netbar_terminal.cc",
     "  const char *route_ip = qz2fh_route_ip_known();",
     "  const char *route_ip = qz2fh_get_route_ip();",
     "a record runs the route probe while it is built"),
    ("A9", "archive", "output/upload.cc",
     "t->resent == UNSENT_RESEND_MAX)",
     "t->resent == UNSENT_RESEND_MAX + 60)",
     "every kept file is sent again in one cycle"),
    ("A10", "archive", "output/spool.cc",
     "\"rm %s/* 2>/dev/null\"", "\"rm %s/*.bcp 2>/dev/null\"",
     "the spool clean-up leaves the zip and the index"),
    # Event loop, scheduler, command runner, feed queue
    ("L1", "loop", "frame/report_timer.cc",
     "t->due > tick_at",
     "t->due >= tick_at",
     "every job runs one tick late"),
    ("L2", "loop", "frame/report_timer.cc",
     "timer->due + timer->period : tick_at + REPORT_TICK_SECONDS",
     "timer->due + timer->period : timer->due + timer->period",
     "a job that asks to retry waits a whole period"),
    ("L3", "loop", "frame/report_timer.cc",
     "timer->order.phase < pos->prev->order.phase",
     "timer->order.phase > pos->prev->order.phase",
     "periodic records run before their group's archive"),
    ("L4", "loop", "frame/eloop.cc",
     "    if (table.changed)\n      break;", "",
     "a handler that changed the socket table is followed by stale entries"),
    ("L5", "loop", "frame/command.cc",
     "POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);",
     "POSIX_SPAWN_SETSIGDEF);",
     "a command gets no process group of its own: its group cannot be ended"),
    ("L6", "loop", "frame/command.cc",
     "  const int status = job->killed ? -1 : job->status;",
     "  const int status = job->status;",
     "a killed command counts as its shell's status"),
    ("L7", "loop", "frame/feed.cc",
     "      s.counters.deferred++;\n",
     "",
     "a feed held in the kernel is not counted"),
    ("L8", "loop", "frame/feed.cc",
     "    if (yield_check && yield_check())\n      break;\n",
     "",
     "a batch goes on after a handler made an archive due"),
    ("L9", "loop", "frame/feed.cc",
     "feed_serve(i) == FEED_BATCH",
     "feed_serve(i) < 0",
     "a stop takes one batch of what waits in the kernel"),
    ("L11", "loop", "frame/feed.cc",
     "      if (err == ENOBUFS)\n        s.counters.overruns++;\n",
     "",
     "netlink overruns are not counted"),
    # Shell and URL quoting
    ("Q1", "quoting", "frame/text.cc",
     "  if (c == '~')  // tilde expansion\n    return false;\n", "",
     "a leading ~ reaches the shell unquoted"),
    ("Q2", "quoting", "frame/text.cc",
     "  return url_unreserved(c) || c == '/' || c == ':' || c == ',' || c == '+' || c == '=' ||\n"
     "         c == '@' || c == '%';",
     "  return url_unreserved(c) || c == '/' || c == ':' || c == ',' || c == '+' || c == '=' ||\n"
     "         c == '@' || c == '%' || c == '$';",
     "$ reaches the shell unquoted"),
    ("Q3", "quoting", "frame/text.cc",
     "    if (url_unreserved(c)) {", "    if (url_unreserved(c) || c == '@') {",
     "@ in a credential is not percent-encoded"),
    ("Q4", "quoting", "output/spool.cc",
     "user.c_str(), \"[KEY DATA REMOVED]\", host.c_str()",
     "user.c_str(), qz2fh_get_ftp_password(), host.c_str()",
     "the password appears in the log"),
    ("Q5", "quoting", "output/spool.cc",
     "  if (n < 0 || static_cast<size_t>(n) >= COMMAND_SIZE) {",
     "  if (n < 0 || static_cast<size_t>(n) > COMMAND_SIZE) {",
     "a command cut to its buffer is run"),
    # Checks of outside input
    ("I1", "input", "frame/text.cc",
     "    if (c < 0x20 || c == 0x7f)", "    if (c < 0x20)",
     "DEL is accepted in outside text"),
    ("I2", "input", "config/identity.cc",
     "c == '/' || c == '\"' || c == '\\\\')", "c == '\"' || c == '\\\\')",
     "a MAC with / is used in a path"),
    ("I3", "input", "config/identity.cc",
     "  if (mac.empty() || mac.size() > QZ_MAC_TEXT_MAX || mac.find(\"..\") != std::string_view::npos)",
     "  if (mac.empty() || mac.size() > QZ_MAC_TEXT_MAX)",
     "a MAC with .. is used in a path"),
    ("I4", "input", "netbar/netbar_netlink.cc",
     "  if (len < NETLINK_MSG_MIN)\n    return false;", "  if (len < 17)\n    return false;",
     "a short kernel message is read past its end"),
    ("I5", "input", "config/config.cc",
     "s[0] != '/' || strstr(s, \"..\") != nullptr)", "s[0] != '/')",
     "an unsent directory with .. is accepted"),
    ("I6", "input", "netbar/netbar_terminal.cc",
     "    if (msg.count < 5 || !text_printable(msg.tokens[4]) ||",
     "    if (msg.count < 5 ||",
     "a type-4 account with a control character reaches a record"),
    ("I7", "input", "netbar/netbar_terminal.cc",
     "  if (nul == std::string_view::npos)\n    return \"text without a terminator\";", "",
     "a datagram without its terminator is taken"),
    ("I8", "input", "netbar/netbar_terminal.cc",
     "  if (msg.tokens[1].size() >= sizeof(netbar_terminal::ip))\n    return \"ip too long\";", "",
     "an address too long for its field is cut"),
    # Fixed names in /tmp, children, the terminal table
    ("N1", "host", "frame/fixed_file.cc",
     "O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY",
     "O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY",
     "the lock is opened through a link"),
    ("N2", "host", "frame/fixed_file.cc",
     "  if (!S_ISREG(st.st_mode) || st.st_uid", "  if (st.st_uid",
     "the lock need not be a regular file"),
    ("N3", "host", "frame/fixed_file.cc",
     "O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK",
     "O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC",
     "the counters' temporary file is opened through whatever is at its name"),
    ("N4", "host", "config/config.cc",
     "  const std::string path = canonical_path(std::string_view(s, len));",
     "  const std::string path(s, len);",
     "an unsent directory spelled //tmp or /tmp//145 is taken"),
    ("N5", "host", "frame/command.cc",
     "  job->status = w == job->pid ? status : -1;",
     "  job->status = status;",
     "a wait that ends in ECHILD counts as success"),
    ("N6", "host", "daemon/main.cc",
     "  sa.sa_handler = SIG_DFL;\n  sigaction(SIGCHLD, &sa, nullptr);\n", "",
     "SIGCHLD is left ignored when the parent ignored it"),
    ("N7", "host", "daemon/main.cc",
     "  sa.sa_handler = SIG_IGN;\n  sigaction(SIGPIPE, &sa, nullptr);\n", "",
     "a console that goes away ends the daemon by SIGPIPE"),
    ("N8", "host", "frame/command.cc",
     "POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF", "POSIX_SPAWN_SETPGROUP",
     "commands inherit the daemon's ignored SIGPIPE"),
    ("N9", "host", "netbar/netbar_terminal.cc",
     "  make_room(rec->key);\n", "",
     "the terminal table has no bound"),
    ("N10", "host", "netbar/netbar_terminal.cc",
     "  netbar_0001_write(false, *oldest);\n", "",
     "a terminal ended by the full table gets no offline record"),
    # The OpenWrt package's files (area "package": only the packaging tests run)
    ("P1", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "START=99\nUSE_PROCD=1\n\n# procd service of qz_fh_audit.\n",
     "\n# procd service of qz_fh_audit.\n#\n#\n#\n#\n#\n#\n#\n#\nSTART=99\nUSE_PROCD=1\n",
     "START= and USE_PROCD= stand below the lines rpcd reads"),
    ("P2", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "\t\teval \"value=\\$$key\"\n",
     "\t\teval \"value=\\$$key\"\n\t\t[ -n \"$value\" ] || [ \"$key\" = fh_unsent_dir ] || "
     "refuse \"option $key is missing\" || return 1\n",
     "an option left out, uci's only empty value, is refused as missing"),
    ("P3", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "\t\tif ! daemon_running; then", "\t\tif true; then",
     "a refused reload declares no instance, and procd stops the daemon"),
    ("P4", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "'fh_ftp_port:string'", "'fh_ftp_port:port'",
     "a validation type stricter than the init script's rules"),
    ("P5", "package", "packaging/openwrt/files/qz_fh_audit.acl.json",
     '"qz_fh_audit": [ "status", "config" ]', '"*": [ "*" ]',
     "the ACL opens every object"),
    ("P6", "package", "packaging/openwrt/files/qz_fh_audit.rpcd",
     '\t\t\t[ "$key" = fh_ftp_password ] && value="***"\n', "",
     "the rpcd plugin shows the password"),
    ("P7", "package", "packaging/openwrt/files/qz_fh_audit.init",
     '\t[ -e "$1" ] || return 0\n', "\treturn 0\n",
     "the store is not checked on disk"),
    ("P8", "package", "packaging/openwrt/files/qz_fh_audit.init",
     '\treal=$(readlink -f "${head:-/}") || return 1\n', '\treal=${head:-/}\n',
     "a link on the store's way to /tmp is not followed"),
    ("P9", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "\tprocd_set_param respawn\n", "",
     "procd does not respawn the daemon"),
    ("P10", "package", "packaging/openwrt/files/qz_fh_audit.init",
     '\tprocd_add_reload_trigger "$NAME"\n', "",
     "a change saved through ubus reloads nothing"),
    ("P11", "package", "packaging/openwrt/files/qz_fh_audit.init",
     '\tif [ -f "$CONF" ] && [ ! -L "$CONF" ] && [ "$(cat "$CONF")" = "$text" ]; then',
     "\tif false; then",
     "an unchanged rendering is written again"),
    ("P12", "package", "packaging/openwrt/files/qz_fh_audit.init",
     '\t[ -z "$refusal" ] || json_add_string config_refused "$refusal"\n', "\t:\n",
     "a refused change is not reported in the status"),
    ("P13", "package", "packaging/openwrt/files/wput-curl",
     "\t\tquoted=$quoted$head\\\\$char\n", "\t\tquoted=$quoted$head$char\n",
     "wput-curl does not escape quotes and backslashes for curl"),
    ("P14", "package", "packaging/openwrt/files/qz_fh_audit.init",
     "\tcase $key in\n\tfh_source_str | fh_dst_str)\n",
     "\tcase $key in\n\tfh_ftp_port) case $value in *[!0-9]*) echo \"not a port number\" ;; esac ;;\n"
     "\tfh_source_str | fh_dst_str)\n",
     "the init script refuses a port the daemon takes"),
    # The status report, the log, the counters file, the access-point listing
    ("S1", "status", "status/bjson.cc",
     "    const int gone = node->seen_count == 0 ? 1 : 0;", "    const int gone = 0;",
     "an access point that has gone is reported as present"),
    ("S2", "status", "status/bjson.cc",
     "    } else if (lines > 0) {",
     "    } else {",
     "an empty status file is uploaded"),
    ("G1", "log", "frame/log.cc",
     "level == log_level::DEBUG ? stdout : stderr;", "stdout;",
     "WARN and ERROR lines go to standard output"),
    ("G2", "log", "frame/log.cc",
     "  localtime_r(&now, &tmv);", "  gmtime_r(&now, &tmv);",
     "log lines carry UTC, not local time"),
    ("G3", "log", "frame/log.cc",
     "void log_sigusr2(int) { syslog_mode_off(); }", "void log_sigusr2(int) {}",
     "SIGUSR2 does not switch syslog off"),
    ("C1", "counters", "daemon/stats.cc",
     "data.size(), 0644);", "data.size(), 0600);",
     "the counters file is not readable by other accounts"),
    ("C2", "counters", "daemon/stats.cc",
     "\"uploads_failed\", number(c.uploads_failed)", "\"uploads_failed\", number(c.uploads_ok)",
     "failed uploads are counted as the good ones"),
    ("C3", "counters", "daemon/stats.cc",
     "\"now\", json_integer(static_cast<json_int_t>(time(nullptr)))",
     "\"now\", json_integer(static_cast<json_int_t>(started))",
     "the counters' time stands still"),
    ("T1", "listing", "config/wtps.cc",
     "      continue;\n    }\n    if (!fn(mac))", "      return WTPS_CUT;\n    }\n    if (!fn(mac))",
     "a bad MAC ends the listing instead of its line"),
    ("T3", "listing", "config/wtps.cc",
     "qz2fh_mac_text_ok(tokens[1]) || !text_copy(tokens[1],",
     "qz2fh_mac_text_ok(tokens[0]) || !text_copy(tokens[0],",
     "the line's first token is taken as the MAC"),
    # Fixed names, status files and the store (what another account plants)
    ("F1", "hardened", "config/identity.cc",
     "open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC)", "open(path, O_RDONLY | O_CLOEXEC)",
     "a status file is read through a link and waited on"),
    ("F2", "hardened", "config/identity.cc",
     '    why = "owned by another account";', '    why = nullptr;',
     "a status file of another account is used"),
    ("F3", "hardened", "output/unsent.cc",
     "  else if ((st.st_mode & 07777) != 0700)", "  else if (false)",
     "an existing /etc is taken as the store"),
    ("F4", "hardened", "output/unsent.cc",
     "    leads_into = leads_into || (resolve(dir, spool, sizeof(spool)) && inside(real, spool));", "",
     "a store linked into a spool directory is used"),
    ("F5", "hardened", "output/unsent.cc",
     "  return avail >= need && avail - need >= total / 4;", "  return true;",
     "the store fills its file system"),
    ("F6", "hardened", "output/names.cc",
     "  return p - s <= 64 && *p == end ? p + 1 : nullptr;",
     "  return p > s && p - s <= 64 && *p == end ? p + 1 : nullptr;",
     "a zip with an empty source code cannot be kept"),
    ("F7", "hardened", "output/unsent.cc",
     "    if (lstat(dst, &st) != 0 && errno == ENOENT)", "    if (true)",
     "a kept file is replaced by a new one of its name"),
    ("F8", "hardened", "netbar/netbar_terminal.cc",
     '  fixed_file_clear_foreign(QZ_SHELL_SOCK_PATH, "socket", S_IFSOCK);\n', "",
     "a directory at the socket's name loses every terminal record"),
    ("F9", "hardened", "daemon/main.cc",
     '  fixed_file_clear_foreign(QZ_FILE_LOCK_PATH, "lock file");\n', "",
     "a foreign file at the lock's name keeps the daemon from starting"),
    # Commands beside the loop
    ("B1", "commands", "output/upload.cc",
     "    t->sent = false;\n    const char *slash", "    t->sent = false;\n    resend_next(t);\n    return;\n    const char *slash",
     "a failed upload skips its rm and its keeping: steps out of order"),
    ("B2", "commands", "frame/command.cc",
     "    deadline_passed(job);\n  if (job->exited && job->out_fd < 0) {",
     "    deadline_passed(job);\n  job->exited = true;\n  close_output(job);\n  if (job->exited && job->out_fd < 0) {",
     "the owner hears of a killed command at its SIGTERM; SIGKILL never follows"),
    ("B3", "commands", "frame/report_timer.cc",
     "(sec = until(tick_at + REPORT_TICK_SECONDS, &usec)) < 0 || (sec == 0 && usec == 0);",
     "false;",
     "countdowns run on ticks: a held loop moves every later cycle"),
    ("B4", "commands", "output/archive.cc",
     "  bcp_hold(g);\n", "",
     "records of a cycle in flight are written into its spool and lost with its zip"),
]


def run(cmd, log, env=None):
    with open(log, "ab") as out:
        out.write(("\n$ %s\n" % " ".join(cmd)).encode())
        out.flush()
        return subprocess.run(cmd, stdout=out, stderr=subprocess.STDOUT, env=env,
                              stdin=subprocess.DEVNULL).returncode


def failed_rows(log, since):
    text = pathlib.Path(log).read_text(errors="replace")[since:]
    return sorted(set(re.findall(r"^FAILED \S*test_row\[(\S+)\]", text, re.M)))


class Job:
    """A copy of the tree and its build directory."""

    def __init__(self, base, n, e2e_workers, tries):
        self.tree = base / ("job%d" % n) / "tree"
        self.build = base / ("job%d" % n) / "build"
        self.logs = base / "logs"
        self.workers = e2e_workers
        self.tries = tries
        # Afresh: a run stopped half-way leaves a fault in its copy and build.
        shutil.rmtree(self.tree.parent, ignore_errors=True)
        files = subprocess.run(["git", "-C", str(ROOT), "ls-files", "-z"], check=True,
                               capture_output=True).stdout.decode().split("\0")
        for rel in filter(None, files):
            if (ROOT / rel).is_file():
                (self.tree / rel).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / rel, self.tree / rel)
        subprocess.run(["cmake", "-S", str(self.tree), "-B", str(self.build),
                        "-DCMAKE_BUILD_TYPE=RelWithDebInfo"], check=True, stdout=subprocess.DEVNULL)

    def tests(self, log, labels="unit"):
        """Every unit test (or test of the ctest labels) and end-to-end row
        that fails: a list of names."""
        if run(["cmake", "--build", str(self.build), "-j2"], log) != 0:
            return None
        failed = []
        run(["ctest", "--test-dir", str(self.build), "-L", labels, "-j2", "--timeout", "300",
             "--output-on-failure"], log)
        text = pathlib.Path(log).read_text(errors="replace")
        # "  12 - Name (Failed)", or "Name  # GetParam() = x (Failed)" for a table's case.
        failed += re.findall(r"^\s+\d+ - (\S+)", text.split("The following tests FAILED:")[-1],
                             re.M) if "The following tests FAILED:" in text else []
        # A planted fault may keep a row waiting for what never comes.
        env = dict(os.environ, QZ_BIN=str(self.build / "qz_fh_audit"), QZ_E2E_LONG_WAIT="60")
        e2e = self.tree / "tests" / "e2e"
        select, rows = [str(e2e)], []
        for _ in range(self.tries):
            since = len(pathlib.Path(log).read_text(errors="replace"))
            run(["/usr/bin/python3", "-m", "pytest", "-q", "-rf", "-n", str(self.workers)] + select,
                log, env)
            rows = failed_rows(log, since)
            if not rows:
                break
            select = ["%s/test_scenarios.py::test_row[%s]" % (e2e, r) for r in rows]
        return failed + ["e2e:" + r for r in rows]

    def check(self, fault):
        fid, _, rel, old, new, _ = fault
        path = self.tree / rel
        source = path.read_text()
        if source.count(old) != 1:
            return "NOT PLANTED (text found %d times)" % source.count(old)
        log = self.logs / ("%s.log" % fid)
        log.unlink(missing_ok=True)
        try:
            path.write_text(source.replace(old, new))
            # The package's own files are the package's tests' too.
            failed = self.tests(log, "unit|packaging" if rel.startswith("packaging/") else "unit")
        finally:
            path.write_text(source)
        if failed is None:
            return "NOT BUILT"
        return ", ".join(failed) if failed else "MISSED"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--dir", default=str(ROOT / "build-faults"))
    ap.add_argument("--jobs", type=int, default=2, help="faults planted at once")
    ap.add_argument("--e2e-workers", type=int, default=4, help="end-to-end rows at once, per job")
    ap.add_argument("--once", action="store_true",
                    help="a row that fails once is a catcher (a quiet machine: no second run)")
    ap.add_argument("--dry", action="store_true", help="only check that each fault applies")
    ap.add_argument("ids", nargs="*")
    args = ap.parse_args()
    faults = [f for f in FAULTS if not args.ids or f[0] in args.ids]
    if args.dry:
        bad = [f[0] for f in faults if (ROOT / f[2]).read_text().count(f[3]) != 1]
        print("%d faults, %d not found once: %s" % (len(faults), len(bad), " ".join(bad)))
        return 1 if bad else 0
    base = pathlib.Path(args.dir)
    (base / "logs").mkdir(parents=True, exist_ok=True)
    jobs = queue.Queue()
    for n in range(min(args.jobs, len(faults))):
        jobs.put(Job(base, n, args.e2e_workers, 1 if args.once else 2))
    # Nothing may fail before a fault is planted.
    job = jobs.get()
    clean = job.tests(base / "logs" / "clean.log")
    jobs.put(job)
    if clean != []:
        sys.exit("the tests fail without a fault: %s (%s)" % (clean, base / "logs" / "clean.log"))

    def one(fault):
        job = jobs.get()
        try:
            result = job.check(fault)
        finally:
            jobs.put(job)
        print("%s: %s" % (fault[0], result), file=sys.stderr, flush=True)
        return result

    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        results = list(pool.map(one, faults))
    print("| id | fault planted | tests that failed |\n|---|---|---|")
    for fault, result in zip(faults, results):
        print("| %s | %s | %s |" % (fault[0], fault[5], result))
    return 1 if any(r == "MISSED" or r.startswith("NOT ") for r in results) else 0


if __name__ == "__main__":
    sys.exit(main())
