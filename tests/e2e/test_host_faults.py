"""A host that misbehaves around the daemon: a /tmp/145 that fills up, is
removed, or was made first by another user; a durable store planted with
links; a zip that fails; a flood bigger than the spool's file system.
Nothing is lost silently, nothing of another's is uploaded or deleted, and
every received zip passes the checker."""

import json
import os
import re
import socket
import stat
import struct
import subprocess
import sys
import time
import unittest
import zipfile

import qz_router_sim as sim
import qz_sandbox
import qz_soak
from e2e_base import LONG_WAIT, WAIT, SandboxCase, bcp_check, messages, uploads, wait_running
from tick_wum import TickWum

AP1 = "00:1a:2b:3c:4d:5e"
APS = ["1 %s online AP-Lobby" % AP1]
WEB = "00:11:22:aa:bb:cc"  # the terminal of every HTTP event
STATS = "/tmp/qz_fh_stats.json"
SPOOL = "/tmp/145"
UNSENT = "/tmp/qz_unsent"
NOBODY = 65534
S2 = "WA_SOURCE_FJ_0002"
RECORD_2 = "QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:"
NOT_WRITTEN = re.compile(r"^WA_SOURCE_FJ_0002: (\d+) records not written since the last "
                         r"report: (.*)\n$")
ERROR_STAMP = re.compile(r"^(\d+-\d+-\d+ \d+:\d+:\d+) \w+<\d+>: ERROR:WA_SOURCE_FJ_0002: ",
                         re.M)
MOVED = "%s is not the daemon's own directory: moved aside to (%s\\.untrusted\\.\\d+)\n"
GONE = "%s had gone: made again\n"
EARLY = re.compile(r"^group 145 holds (\d+) bytes in one cycle, archiving early\n$")
UPLOAD_FAILED = re.compile(r"WARN:upload of (145-\S+) failed with status \d+: kept")
SECRET = b"root:$6$qz-host-faults-secret$0123456789abcdef:19000:0:99999:7:::\n"
MIB = 1 << 20


def http_event(n):
    """HTTP event number n: its source address carries the number."""
    addr = socket.inet_ntoa(struct.pack(">I", qz_soak.HTTP_BASE + n))
    return sim.build_event(sim.DATA_HTTP, WEB, addr, "93.184.216.34", 40000 + n % 20000, 80)


def run(*cmd):
    subprocess.run(cmd, check=True, stdin=subprocess.DEVNULL, capture_output=True, timeout=WAIT)


def read_stats():
    try:
        with open(STATS) as f:
            return json.load(f)
    except (FileNotFoundError, ValueError):
        return None


def owner_mode(path):
    st = os.lstat(path)
    return st.st_uid, stat.S_IFMT(st.st_mode), stat.S_IMODE(st.st_mode)


def fingerprint(path):
    """What must not change about a file another owns."""
    st = os.lstat(path)
    with open(path, "rb") as f:
        data = f.read()
    return st.st_uid, st.st_mode, st.st_mtime_ns, data


def tree_fingerprint(top):
    """fingerprint() of every file under top, by path."""
    out = {}
    for root, _, files in os.walk(top):
        for name in files:
            out[os.path.join(root, name)] = fingerprint(os.path.join(root, name))
    return out


def as_nobody(code):
    """Runs Python code as uid/gid 65534; returns (status, stderr)."""
    r = subprocess.run([sys.executable, "-c", code], user=NOBODY, group=NOBODY,
                       extra_groups=[], capture_output=True, text=True, timeout=WAIT)
    return r.returncode, r.stderr


def upload_bytes(up):
    """Every byte the platform got in one upload: the file, and the
    contents and names of a zip's members."""
    parts = [up.read()]
    if zipfile.is_zipfile(up.path):
        with zipfile.ZipFile(up.path) as z:
            for name in z.namelist():
                parts += [name.encode(), z.read(name)]
    return parts


class HostCase(SandboxCase):
    """The netbar group fed by HTTP events through the netlink stand-in."""

    def start(self, values=None, pauses=(), accel=qz_sandbox.DEFAULT_ACCEL):
        stub = os.path.join(os.path.dirname(qz_sandbox.daemon_binary()), "tools",
                            "libqz_nlstub.so")
        self.assertTrue(os.path.isfile(stub), "build the qz_nlstub target")
        self.sb.write_config(values)
        self.wum = TickWum(self.sb, [APS])
        for tick in pauses:
            self.wum.pause_at(tick)
        sim.write_wifi_info(WEB, AP1)
        self.kernel = sim.FakeKernel(block=True, block_timeout=LONG_WAIT)
        self.addCleanup(self.kernel.close)
        d = self.sb.start_daemon(["-D"], preload=(stub,), accel=accel)
        self.kernel.wait_registration(LONG_WAIT, expected_pid=d.pid)
        d.wait_for(r"init shell fd success!")
        self._parsed = {}
        return d

    def send(self, numbers):
        self.kernel.send_many([http_event(n) for n in numbers])

    def wait_written(self, d, count):
        """Waits until count WA_SOURCE_FJ_0002 records are on the console."""
        wait_running(d, lambda: d.stdout_text().count(RECORD_2) >= count,
                     "%d records on the console" % count)

    def wait_handled(self, d, count):
        """Waits until the counters file says count HTTP events were handled."""
        def handled():
            s = read_stats()
            return s is not None and s["feeds"]["http"]["handled"] >= count and s
        return wait_running(d, handled, "%d HTTP events handled" % count)

    def received(self):
        """Event numbers in the uploads of tmp/145 so far."""
        numbers = []
        for up in uploads(self.sb.ftp, "tmp/145"):
            if up.path not in self._parsed:
                self._parsed[up.path] = qz_soak.read_records(up.path)[1]
            numbers += self._parsed[up.path]
        return numbers

    def wait_received(self, d, numbers):
        wanted = set(numbers)
        wait_running(d, lambda: wanted <= set(self.received()),
                     "%d events received" % len(wanted))

    def check_uploads(self):
        """Every zip of tmp/145 passes the checker: no cut line, each index
        block counts its file's lines."""
        for up in uploads(self.sb.ftp, "tmp/145"):
            bcp_check(self, up.path)

    def assert_once(self, numbers):
        """The events arrived, each once, in zips that pass the checker."""
        self.assertEqual(sorted(self.received()), sorted(numbers))
        self.check_uploads()

    def stderr_messages(self, d, level):
        return messages(d.stderr_text(), level)


class FullSpoolTest(HostCase):
    """/tmp/145 on a 512 KiB file system that fills in the middle of a cycle."""

    def test_a_full_file_system_cuts_no_line_and_counts_every_record(self):
        os.makedirs("/tmp/fill")
        run("mount", "-t", "tmpfs", "-o", "size=512k,mode=0755", "qzfill", "/tmp/fill")
        self.addCleanup(subprocess.run, ["umount", "-l", "/tmp/fill"])
        os.mkdir("/tmp/fill/145", 0o700)
        os.mkdir(SPOOL, 0o700)
        run("mount", "--bind", "/tmp/fill/145", SPOOL)
        self.addCleanup(subprocess.run, ["umount", "-l", SPOOL])
        # Room for about 90 lines: far below the spool's bound (128 KiB),
        # so the file system is full before the bound is reached.
        fs = os.statvfs("/tmp/fill")
        with open("/tmp/fill/filler", "wb") as f:
            f.write(b"\0" * (fs.f_bavail * fs.f_bsize - 24 * 1024))

        # 30 s cycles: both batches land in the first one.
        d = self.start(accel=10)
        full, later = range(0, 300), range(300, 500)
        self.send(full)
        s = self.wait_handled(d, len(full))
        ds = s["datasets"][S2]
        self.assertEqual(ds["records"] + ds["refused"], len(full), s)
        self.assertGreater(ds["refused"], 0, "the file system did not fill")
        self.assertGreater(ds["records"], 0, s)
        refused_while_full = ds["refused"]

        def reported():
            return sum(int(m.group(1)) for m in map(NOT_WRITTEN.match,
                                                    self.stderr_messages(d, "ERROR")) if m)
        wait_running(d, lambda: reported() >= refused_while_full, "ERROR lines for the refused")
        os.unlink("/tmp/fill/filler")
        self.send(later)
        self.wait_handled(d, len(full) + len(later))
        self.wait_received(d, later)

        s = read_stats()
        ds = s["datasets"][S2]
        got = self.received()
        # The figure for bench/README.md.
        files = []
        for up in uploads(self.sb.ftp, "tmp/145"):
            with zipfile.ZipFile(up.path) as z:
                files += [(n, z.read(n).count(b"\n")) for n in z.namelist() if S2 in n]
        sys.stderr.write("\nENOSPC figure: sent %d (%d while full, %d after), written %d, "
                         "refused %d, received %d; ERROR lines %d; files %s\n"
                         % (len(full) + len(later), len(full), len(later), ds["records"],
                            ds["refused"], len(got), len(self.stderr_messages(d, "ERROR")),
                            files))
        self.assertEqual(len(got), len(set(got)), "duplicates")
        self.assertEqual(ds["records"], len(got), s)
        self.assertEqual(ds["records"] + ds["refused"], len(full) + len(later), s)
        self.assertEqual(ds["refused"], refused_while_full, s)
        self.assertGreaterEqual(s["groups"]["145"]["write_errors"], 1, s)
        self.assertEqual(reported(), ds["refused"])
        for msg in self.stderr_messages(d, "ERROR"):
            m = NOT_WRITTEN.match(msg)
            self.assertTrue(m, msg)
            self.assertEqual(m.group(2), "No space left on device")
        # One line a tick at most: never two in one second of the daemon's clock.
        stamps = ERROR_STAMP.findall(d.stderr_text())
        self.assertEqual(len(stamps), len(set(stamps)), stamps)
        self.check_uploads()


class GoneSpoolTest(HostCase):

    def test_a_removed_spool_directory_is_made_again_and_later_records_arrive(self):
        d = self.start()
        before = range(0, 20)
        self.send(before)
        self.wait_written(d, len(before))
        run("rm", "-rf", SPOOL)
        d.wait_for("WARN:" + re.escape(GONE % SPOOL), stream="stderr", timeout=LONG_WAIT)
        after = range(20, 60)
        self.send(after)
        self.wait_received(d, after)
        self.assertEqual(owner_mode(SPOOL), (0, stat.S_IFDIR, 0o700))
        got = self.received()
        self.assertEqual(len(got), len(set(got)), "duplicates")
        self.assertLessEqual(set(got), set(before) | set(after))
        # The lines removed with the directory are counted as not written.
        def counted():
            s = read_stats()
            ds = s["datasets"][S2] if s else {"records": -1, "refused": -1}
            return (ds["records"], ds["refused"] + ds["records"]) == (len(got), 60) and s
        s = wait_running(d, counted, "records and refused adding up")
        self.assertGreaterEqual(s["groups"]["145"]["dirs_replaced"], 1, s)
        for msg in self.stderr_messages(d, "ERROR"):
            self.assertTrue(NOT_WRITTEN.match(msg), msg)
        self.check_uploads()


class ForeignSpoolTest(HostCase):
    """/tmp/145 made before the daemon by uid 65534, who plants links to a
    root-only file: nothing of it is uploaded, it is untouched, and the
    daemon's /tmp/145 ends up its own."""

    # name: (how /tmp/145 is found, moved aside with an ERROR line)
    CASES = {
        "nobodys_0777_directory_is_moved_aside": ("nobody's 0777 directory", True),
        "link_to_a_root_only_directory_is_moved_aside": ("link to a root-only directory", True),
        "roots_0777_directory_is_closed": ("root's 0777 directory", False),
    }
    VICTIM = "/etc/qz_victim"

    def plant(self, kind):
        """Lays out /tmp/145; returns the root-only file its links name."""
        secret = "/etc/qz_secret"
        with open(secret, "wb") as f:
            f.write(SECRET)
        os.chmod(secret, 0o600)
        if kind == "link to a root-only directory":
            # What `rm /tmp/145/*` through the link would empty.
            os.mkdir(self.VICTIM, 0o700)
            for name in ("shadow", "145-350100-1709000000-00000-WA_SOURCE_FJ_0002-0.bcp"):
                with open(os.path.join(self.VICTIM, name), "wb") as f:
                    f.write(SECRET)
            self.assertEqual(as_nobody("import os; os.symlink(%r, %r)"
                                       % (self.VICTIM, SPOOL))[0], 0)
            return secret
        os.mkdir(SPOOL)
        os.chmod(SPOOL, 0o777)
        if kind == "nobody's 0777 directory":
            os.chown(SPOOL, NOBODY, NOBODY)
        self.assertEqual(as_nobody("import os; os.symlink(%r, %r)" % (secret, SPOOL + "/zz"))[0],
                         0)
        return secret

    def check_foreign_spool(self, kind, moved):
        secret = self.plant(kind)
        before = fingerprint(secret)
        victim = tree_fingerprint(self.VICTIM)
        inode = os.stat(SPOOL).st_ino
        d = self.start()
        if moved:
            m = d.wait_for("ERROR:" + MOVED % (re.escape(SPOOL), re.escape(SPOOL)),
                           stream="stderr")
            self.assertTrue(os.path.lexists(m.group(1)), m.group(1))
        else:
            wait_running(d, lambda: owner_mode(SPOOL)[2] == 0o700, "chmod to 0700")
            self.assertEqual(os.stat(SPOOL).st_ino, inode, "not the same directory")
        self.assertEqual(owner_mode(SPOOL), (0, stat.S_IFDIR, 0o700))
        # Too late now: the directory is root's and closed to others.
        status, err = as_nobody("import os; os.symlink(%r, %r)" % (secret, SPOOL + "/yy"))
        self.assertNotEqual(status, 0)
        self.assertIn("PermissionError", err)

        self.send(range(10))
        self.wait_received(d, range(10))
        self.assert_nothing_of(secret, before)
        self.assertEqual(tree_fingerprint(self.VICTIM), victim)
        self.assertEqual(owner_mode(SPOOL), (0, stat.S_IFDIR, 0o700))
        self.check_uploads()

    def test_only_the_daemons_own_regular_files_are_zipped(self):
        secret = "/etc/qz_secret"
        with open(secret, "wb") as f:
            f.write(SECRET)
        os.chmod(secret, 0o600)
        before = fingerprint(secret)
        d = self.start(pauses=(0,))
        self.send(range(10))
        self.wait_written(d, 10)
        # Planted while the cycle's files are open, before its zip.
        planted = {"zz": lambda p: os.symlink(secret, p),
                   "ff": lambda p: os.mkfifo(p, 0o600),
                   "notes.txt": lambda p: open(p, "wb").write(SECRET)}
        for name, make in planted.items():
            make(os.path.join(SPOOL, name))
        self.wum.wait_paused(d, 0)
        self.wum.resume(0)
        self.wait_received(d, range(10))
        for up in uploads(self.sb.ftp, "tmp/145"):
            with zipfile.ZipFile(up.path) as z:
                self.assertEqual([n for n in z.namelist() if os.path.basename(n) in planted], [])
        self.assert_nothing_of(secret, before)
        wait_running(d, lambda: not any(os.path.lexists(os.path.join(SPOOL, n))
                                        for n in planted), "planted files deleted")
        self.check_uploads()

    def assert_nothing_of(self, secret, before):
        for up in self.sb.ftp.uploads():
            for part in upload_bytes(up):
                self.assertNotIn(b"qz-host-faults-secret", part, up)
        self.assertEqual(fingerprint(secret), before, "the root-only file changed")


for _name, _row in ForeignSpoolTest.CASES.items():
    setattr(ForeignSpoolTest, "test_" + _name,
            lambda self, row=_row: self.check_foreign_spool(*row))


class ForeignStoreTest(HostCase):
    """A durable store, or its group directories, planted by uid 65534 as
    links to a root-only directory: nothing there is uploaded or deleted.
    Kept files go into a store of the daemon's own, and arrive."""

    CASES = {
        "store_of_nobody_with_linked_group_directories": "nobody's store, group links",
        "store_linked_to_a_root_only_directory": "store a link",
        "store_of_roots_with_linked_group_directories": "root's store, group links",
    }
    PRIVATE = "/etc/qz_private"
    # Named like the daemon's zips and status files, and not.
    FILES = ["145-507183926-350100-350000-1709000000-00000.zip",
             "146-507183926-350100-350000-1709000000-00001.zip",
             "145-350100-1709000000-0-DEVICESTATUS-0.bjson",
             "shadow-copy", "upload.part"]

    def fill(self, directory):
        for path in (self.PRIVATE, directory):
            os.makedirs(path, exist_ok=True)
            os.chmod(path, 0o700)
        for name in self.FILES:
            with open(os.path.join(directory, name), "wb") as f:
                f.write(SECRET + name.encode())
            os.utime(os.path.join(directory, name), (1709000000, 1709000000))

    def plant(self, kind):
        """Lays out the store; returns the path its ERROR line names."""
        if kind == "nobody's store, group links":
            self.fill(self.PRIVATE)
            os.mkdir(UNSENT)
            os.chown(UNSENT, NOBODY, NOBODY)
            os.chmod(UNSENT, 0o777)
            code = "; ".join("os.symlink(%r, %r)" % (self.PRIVATE, "%s/%d" % (UNSENT, g))
                             for g in (144, 145, 146))
            self.assertEqual(as_nobody("import os; " + code)[0], 0)
            return UNSENT
        if kind == "store a link":
            for g in (144, 145, 146):
                self.fill("%s/%d" % (self.PRIVATE, g))
            self.assertEqual(as_nobody("import os; os.symlink(%r, %r)"
                                       % (self.PRIVATE, UNSENT))[0], 0)
            return UNSENT
        if kind == "root's store, group links":
            self.fill(self.PRIVATE)
            os.mkdir(UNSENT, 0o700)
            for g in (144, 145, 146):
                os.symlink(self.PRIVATE, "%s/%d" % (UNSENT, g))
                os.lchown("%s/%d" % (UNSENT, g), NOBODY, NOBODY)
            return UNSENT + "/145"
        raise ValueError(kind)

    def check_planted_store(self, kind):
        named = self.plant(kind)
        before = tree_fingerprint(self.PRIVATE)
        self.assertEqual(len(before), len(self.FILES) * (3 if kind == "store a link" else 1))
        d = self.start({"fh_unsent_dir": UNSENT}, pauses=(0,))
        d.wait_for("ERROR:" + MOVED % (re.escape(named), re.escape(named)), stream="stderr")
        self.send(range(10))
        self.wait_written(d, 10)
        # The first cycle's upload fails: its zip is kept, in a store of the
        # daemon's own, and sent a cycle later.
        self.wum.wait_paused(d, 0)
        self.sb.ftp.stop()
        self.wum.resume(0)
        m = d.wait_for(UPLOAD_FAILED.pattern, stream="stderr", timeout=LONG_WAIT)
        self.assertEqual(owner_mode(UNSENT), (0, stat.S_IFDIR, 0o700))
        self.assertEqual(owner_mode(UNSENT + "/145"), (0, stat.S_IFDIR, 0o700))
        self.sb.ftp.start()
        d.wait_for(r"DEBUG:sent kept file :%s\n" % re.escape(m.group(1)), timeout=LONG_WAIT)
        # And a cycle more, in which the store is looked at again.
        count = len(uploads(self.sb.ftp, "tmp/145"))
        self.send(range(10, 20))
        wait_running(d, lambda: len(uploads(self.sb.ftp, "tmp/145")) > count + 1,
                     "two more uploads")
        self.assert_once(range(20))
        self.assertEqual(tree_fingerprint(self.PRIVATE), before)
        for up in self.sb.ftp.uploads():
            for part in upload_bytes(up):
                self.assertNotIn(b"qz-host-faults-secret", part, up)

    def test_files_not_named_as_the_daemons_are_left_alone(self):
        foreign = ["notes.txt", "old-00.zip", "145-x.zip", "upload.part",
                   "145-507183926-350100-350000-1709000000-0000.zip",
                   "145-350100-1709000000-0-DEVICESTATUS-0.bjson.tmp", "notes.txt.part"]
        # Kept by an earlier run: these go out, and prove the store was read.
        kept = {"144/145-350100-1709000000-0-DEVICESTATUS-0.bjson": "tmp/144",
                "146/146-507183926-350100-350000-1709000000-00000.zip": "tmp/146"}
        os.mkdir(UNSENT, 0o700)
        for group in ("144", "145", "146"):
            os.mkdir(os.path.join(UNSENT, group), 0o700)
            for name in foreign:
                with open(os.path.join(UNSENT, group, name), "wb") as f:
                    f.write(SECRET + name.encode())
        for name in kept:
            with open(os.path.join(UNSENT, name), "wb") as f:
                f.write(b"kept " + name.encode())
        before = {k: v for k, v in tree_fingerprint(UNSENT).items()
                  if os.path.relpath(k, UNSENT) not in kept}
        d = self.start({"fh_unsent_dir": UNSENT})
        self.send(range(10))
        self.wait_received(d, range(10))
        count = len(uploads(self.sb.ftp, "tmp/145"))
        self.send(range(10, 20))
        wait_running(d, lambda: len(uploads(self.sb.ftp, "tmp/145")) > count,
                     "a second upload")
        self.assert_once(range(20))
        for name, remote in kept.items():
            self.assertIn(b"kept " + name.encode(),
                          [u.read() for u in uploads(self.sb.ftp, remote)], name)
        after = tree_fingerprint(UNSENT)
        self.assertEqual((sorted(set(before) - set(after)), sorted(set(after) - set(before))),
                         ([], []), "files gone, files added")
        self.assertEqual(after, before)
        for up in self.sb.ftp.uploads():
            for part in upload_bytes(up):
                self.assertNotIn(b"qz-host-faults-secret", part, up)
        groups = read_stats()["groups"]
        self.assertEqual([groups[g]["unsent_files"] for g in ("144", "145", "146")], [0, 0, 0])


for _name, _row in ForeignStoreTest.CASES.items():
    setattr(ForeignStoreTest, "test_" + _name,
            lambda self, row=_row: self.check_planted_store(row))


ZIP_STAND_IN = """#!/bin/sh
# The first zip of group 145 fails; every other call is the real zip.
case "$*" in
*145-507183926-*)
    if [ ! -e '@STATE@' ]; then
        : > '@STATE@'
        @FAIL@
    fi ;;
esac
exec /usr/bin/zip "$@"
"""


class FailingZipTest(HostCase):

    # name: (mode, what the zip does the first time, status it is logged with)
    CASES = {
        "durable_mode_keeps_the_files_of_a_zip_that_failed": ("durable", "exit 12", "12"),
        "durable_mode_keeps_the_files_of_a_zip_that_made_nothing": ("durable", "exit 0", r"-?\d+"),
        "default_mode_deletes_them_as_before": ("default", "exit 12", "12"),
    }

    def check_failing_zip(self, mode, fail, status):
        path = os.path.join(self.sb.bin_dir, "zip")
        with open(path, "w") as f:
            f.write(ZIP_STAND_IN.replace("@STATE@", path + ".failed").replace("@FAIL@", fail))
        os.chmod(path, 0o755)
        durable = mode == "durable"
        d = self.start({"fh_unsent_dir": UNSENT} if durable else None, pauses=(0,))
        first, later = range(0, 30), range(30, 60)
        self.send(first)
        self.wait_written(d, len(first))
        self.wum.wait_paused(d, 0)
        self.wum.resume(0)
        suffix = ": its files are kept for the next cycle" if durable else ""
        d.wait_for(r"WARN:zip of 145-507183926-\S+\.zip failed \(status %s\)%s\n"
                   % (status, re.escape(suffix)), stream="stderr", timeout=LONG_WAIT)
        self.assertTrue(os.path.exists(path + ".failed"))
        self.send(later)
        self.wait_received(d, later)
        if durable:
            self.wait_received(d, first)
            self.assert_once(range(60))
        else:
            # Without the key, as always: that cycle's files are deleted.
            self.assert_once(later)


for _name, _row in FailingZipTest.CASES.items():
    setattr(FailingZipTest, "test_" + _name, lambda self, row=_row: self.check_failing_zip(*row))


class SpoolBoundTest(HostCase):
    """30,000 HTTP events (5 MB of lines here) into a 4 MiB /tmp/145 in
    one cycle: the spool's bound (a quarter of its file system) starts early
    archives, and every event arrives once."""

    def test_a_flood_bigger_than_the_file_system_arrives_whole(self):
        os.mkdir(SPOOL, 0o700)
        run("mount", "-t", "tmpfs", "-o", "size=4m,mode=0700", "qzspool", SPOOL)
        self.addCleanup(subprocess.run, ["umount", "-l", SPOOL])
        fs = os.statvfs(SPOOL)
        bound = min(fs.f_blocks * fs.f_frsize // 4, 16 * MIB)
        self.assertEqual(bound, MIB)
        # 25 s cycles: the flood takes a few seconds.
        d = self.start(accel=12)
        total = 30000
        start = time.monotonic()
        self.send(range(total))
        seconds = time.monotonic() - start
        self.wait_received(d, range(total))
        self.assert_once(range(total))

        early = [int(m.group(1)) for m in map(EARLY.match, self.stderr_messages(d, "WARN")) if m]
        # How many depends on how many cycles the flood spans (more on a
        # slow or sanitized build): at least one, each at the bound.
        self.assertGreaterEqual(len(early), 1, early)
        for size in early:
            # Reached by the records of one wake-up of the feed: a few lines more.
            self.assertTrue(bound <= size < bound + 64 * 1024, early)
        lines = 0
        for up in uploads(self.sb.ftp, "tmp/145"):
            with zipfile.ZipFile(up.path) as z:
                lines += sum(i.file_size for i in z.infolist() if S2 in i.filename)
        self.assertGreater(lines, fs.f_blocks * fs.f_frsize, "the flood fits the file system")
        s = self.wait_handled(d, total)
        self.assertEqual(s["groups"]["145"]["early_archives"], len(early), s)
        self.assertEqual(s["datasets"][S2]["refused"], 0, s)
        self.assertEqual(self.stderr_messages(d, "ERROR"), [])
        sys.stderr.write("\nflood of %d events (%d bytes of lines) sent in %.1f s; "
                         "%d early archives at %s bytes\n"
                         % (total, lines, seconds, len(early), early))


if __name__ == "__main__":
    unittest.main()
