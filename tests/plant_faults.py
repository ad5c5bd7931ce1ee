#!/usr/bin/python3
"""Plants one fault at a time in the daemon's sources and checks that the
test suite catches it.

Each fault is an exact piece of source text (found exactly once) and what
replaces it.  For each: the tree is patched, the build directory rebuilt,
the unit tests run, then (if they all passed) the end-to-end and tool tests;
the fault is caught when any test fails.  The source is restored whatever
happens.

    tests/plant_faults.py [--build DIR] [--dry] [ID ...]    (root: e2e tests)

Prints one Markdown row per fault: id, area, what was planted, and the
first tests that failed (or MISSED).  Exit status 1 when any was missed.
"""
import argparse
import os
import pathlib
import re
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
     "const int sequence = st.zip_sequence++;",
     "const int sequence = st.zip_sequence;",
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
    ("A8", "archive", "output/unsent.cc",
     "  if (unsent_enabled()) {\n    const char *slash",
     "  if (false) {\n    const char *slash",
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
     "    if (listed(g, name))\n      continue;",
     "    continue;",
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
     "  netbar_terminal_report();\n  qz2fh_get_route_ip();",
     "  netbar_terminal_report();",
     "the route cache is never refreshed after a failed first probe"),
    ("H12", "host", "netbar/netbar_terminal.cc",
     "  const char *route_ip = qz2fh_route_ip_known();",
     "  const char *route_ip = qz2fh_get_route_ip();",
     "a record runs the route probe while it is built"),
    ("A9", "archive", "output/unsent.cc",
     "    if (sent == UNSENT_RESEND_MAX)", "    if (sent == UNSENT_RESEND_MAX + 60)",
     "every kept file is sent again in one cycle"),
    ("A10", "archive", "output/spool.cc",
     "\"rm %s/* 2>/dev/null\"", "\"rm %s/*.bcp 2>/dev/null\"",
     "the spool clean-up leaves the zip and the index"),
    # Event loop, scheduler, command runner, feed queue
    ("L1", "loop", "frame/report_timer.cc",
     "    if (t->countdown > REPORT_TICK_SECONDS) {", "    if (t->countdown >= REPORT_TICK_SECONDS) {",
     "every job runs one tick late"),
    ("L2", "loop", "frame/report_timer.cc",
     "result == report_result::done ? t->period : REPORT_TICK_SECONDS",
     "t->period", "a job that asks to retry waits a whole period"),
    ("L3", "loop", "frame/report_timer.cc",
     "(a.owner == b.owner && a.phase < b.phase)", "(a.owner == b.owner && a.phase > b.phase)",
     "periodic records run before their group's archive"),
    ("L4", "loop", "frame/eloop.cc",
     "    if (table.changed)\n      break;", "",
     "a handler that changed the socket table is followed by stale entries"),
    ("L5", "loop", "frame/command.cc",
     "  kill(-pid, SIGKILL);", "  kill(pid, SIGKILL);",
     "a command past its limit is killed without its process group"),
    ("L6", "loop", "frame/command.cc",
     "  return killed ? -1 : status;", "  return status;",
     "a killed command counts as its shell's status"),
    ("L7", "loop", "frame/feed_queue.cc",
     "  return s.bytes + entry_size(s.desc.max_len) <= FEED_SHARE_BYTES;", "  return true;",
     "a feed's share has no bound"),
    ("L8", "loop", "frame/feed_queue.cc",
     "      handle_first(sources[i]);\n      if (++since_pull",
     "      while (sources[i].bytes)\n        handle_first(sources[i]);\n      if (++since_pull",
     "a backlog is handled one feed after the other, not in turn"),
    ("L9", "loop", "frame/feed_queue.cc",
     "    if (!feed_queue_empty())\n      return;\n", "",
     "a read callback handles new input before older queued input"),
    ("L10", "loop", "frame/feed_queue.cc",
     "    if (*n >= 0)\n      s.counters.deferred++;", "",
     "input left in the kernel is never reported"),
    ("L11", "loop", "frame/feed_queue.cc",
     "    if (*err == ENOBUFS)\n      s.counters.overruns++;", "",
     "netlink overruns are not counted"),
    ("L12", "loop", "config/identity.cc",
     "    if (since >= 0 && since < ROUTE_RETRY_USEC)\n      return nullptr;", "",
     "a missing route is probed again for every record"),
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
     "  return lost ? -1 : status;", "  return status;",
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
]


def run(cmd, log, **kw):
    with open(log, "ab") as out:
        return subprocess.run(cmd, stdout=out, stderr=subprocess.STDOUT, **kw).returncode


def failed_tests(log):
    text = pathlib.Path(log).read_text(errors="replace")
    return re.findall(r"^\s+\d+ - (\S+)", text, re.M)


def check(fault, build, logdir):
    fid, area, rel, old, new, what = fault
    path = ROOT / rel
    source = path.read_text()
    if source.count(old) != 1:
        return f"NOT PLANTED (text found {source.count(old)} times)"
    log = logdir / f"{fid}.log"
    log.unlink(missing_ok=True)
    try:
        path.write_text(source.replace(old, new))
        if run(["cmake", "--build", build, f"-j{os.cpu_count()}"], log) != 0:
            return "NOT BUILT"
        selections = [["-L", "packaging"]] if area == "package" else [["-L", "unit"], ["-LE", "unit"]]
        for selection in selections:
            rc = run(["ctest", "--test-dir", build, f"-j{os.cpu_count()}", "--stop-on-failure",
                      "--output-on-failure", "--timeout", "300", *selection], log)
            if rc != 0:
                return "caught: " + ", ".join(failed_tests(log)[:3])
        return "MISSED"
    finally:
        path.write_text(source)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build-faults"))
    ap.add_argument("--dry", action="store_true", help="only check that each fault applies")
    ap.add_argument("ids", nargs="*")
    args = ap.parse_args()
    if args.dry:
        bad = [f[0] for f in FAULTS if (ROOT / f[2]).read_text().count(f[3]) != 1]
        print(f"{len(FAULTS)} faults, {len(bad)} not found once: {' '.join(bad)}")
        return 1 if bad else 0
    build = args.build
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", str(ROOT), "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo"],
                       check=True, stdout=subprocess.DEVNULL)
    logdir = pathlib.Path(build) / "faults"
    logdir.mkdir(exist_ok=True)
    missed = 0
    print("| id | area | fault | result |\n|---|---|---|---|", flush=True)
    for fault in FAULTS:
        if args.ids and fault[0] not in args.ids:
            continue
        result = check(fault, build, logdir)
        missed += not result.startswith("caught")
        print(f"| {fault[0]} | {fault[1]} | {fault[5]} | {result} |", flush=True)
    # Leave the build as the sources are.
    subprocess.run(["cmake", "--build", build, f"-j{os.cpu_count()}"], stdout=subprocess.DEVNULL)
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
