"""Durable mode ("fh_unsent_dir") end to end: one daemon whose first upload
fails and is sent again a cycle later, stopped by SIGTERM in the middle of a
cycle; a second one killed with SIGKILL; a third one that sends everything
the first two kept.  Every record arrives once, in zips that pass the
checker, and the counters file agrees with what the server received.  Then
the bound on kept files, and SIGTERM without the key."""

import calendar
import json
import os
import re
import signal
import time
import unittest

import qz_bcp
import qz_router_sim as sim
import qz_sandbox
import qz_soak
from e2e_base import LONG_WAIT, SandboxCase, bcp_check, uploads, wait_running

UNSENT = "/tmp/qz_unsent"
DURABLE = {"fh_unsent_dir": UNSENT}
AP = "00:1a:2b:3c:4d:5e"
STATUS_LINE = "t1 t2 -45 %s x y\n" % AP
RECORD = "QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:"
FAILED = re.compile(r"WARN:upload of (\S+) failed with status (\d+): kept to be sent again\n")
RESENT = re.compile(r"DEBUG:sent kept file :(\S+)\n")
ZIP_ANY = re.compile(r"DEBUG:form zip file :(\S+)\n")
HOUR = 3600
START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))  # the sandbox's default start


def send_batch(first, count):
    """Online datagrams first..first+count-1, each for a terminal of its own
    whose address carries its number."""
    with sim.ShellSender() as shell:
        for k in range(first, first + count):
            with open("/tmp/qztmp/clt_wifi_info/" + qz_soak.mac_of(k), "w") as f:
                f.write(STATUS_LINE)
            shell.online(qz_soak.mac_of(k), qz_soak.flood_ip(k), 1)


def wait_count(daemon, text, count):
    """Waits until text has appeared count times on the daemon's console."""
    wait_running(daemon, lambda: daemon.stdout_text().count(text) >= count,
                 "%d x %r" % (count, text))


def kept(group):
    path = os.path.join(UNSENT, str(group))
    return sorted(os.listdir(path)) if os.path.isdir(path) else []


class DurableRunTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.sb = sb = qz_sandbox.Sandbox()
        cls.addClassCleanup(sb.close)
        sb.write_config(DURABLE)
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        sb.set_wtps(["1 %s up" % AP])

        # First run: batch A, and the server is away for the first archive.
        sb.ftp.stop()
        d = sb.start_daemon(["-D"])
        d.wait_for(r"mkdir /tmp/144")
        send_batch(0, 20)
        wait_count(d, RECORD, 20)
        d.wait_for(r"DEVICESTATUS-0.bjson failed with status", stream="stderr")
        d.wait_for(r"upload of 145-\S+ failed with status", stream="stderr")
        cls.failed = FAILED.findall(d.stderr_text())
        cls.kept_bytes = {}
        for name, _ in cls.failed:
            group = "144" if "DEVICESTATUS" in name else name.split("-")[0]
            path = os.path.join(UNSENT, group, name)
            wait_running(d, lambda: os.path.exists(path), path)
            with open(path, "rb") as f:
                cls.kept_bytes[name] = f.read()
        sb.ftp.start()
        # Next cycle: its own zip, then the kept ones.
        wait_count(d, "sent kept file", 2)
        # Batch B, then SIGTERM in the middle of the cycle.
        send_batch(20, 15)
        wait_count(d, RECORD, 35)
        start = time.monotonic()
        d.signal(signal.SIGTERM)
        cls.term_status = d.wait(LONG_WAIT)
        cls.term_seconds = time.monotonic() - start
        cls.kept_at_stop = {g: kept(g) for g in (145, 146)}
        with open("/tmp/qz_fh_stats.json") as f:
            cls.stats = json.load(f)
        cls.uploads_first_run = list(sb.ftp.uploads())
        cls.out1, cls.err1 = d.stdout_text(), d.stderr_text()

        # Second run: batch C is written, then the daemon is killed.
        d = sb.start_daemon(["-D"], start=START_EPOCH + HOUR)
        d.wait_for(r"mkdir /tmp/144")
        send_batch(35, 10)
        wait_count(d, RECORD, 10)
        # Handled lines are in their file before the loop waits again.
        wait_running(d, lambda: sum(open(os.path.join("/tmp/145", n)).read().count("\n")
                                    for n in os.listdir("/tmp/145")
                                    if "WA_SOURCE_FJ_0001" in n) == 10, "lines in the file")
        d.signal(signal.SIGKILL)
        d.wait(LONG_WAIT)
        cls.kill_left = sorted(os.listdir("/tmp/145"))

        # Third run: everything kept goes out in its first cycles.
        d = sb.start_daemon(["-D"], start=START_EPOCH + 2 * HOUR)
        wait_running(d, lambda: not kept(145) and not kept(146), "kept files sent")
        # The status report follows the groups in their tick: a stop in the
        # middle of its upload would rightly keep its file too.
        reports = d.stdout_text().count("send bjson file :")
        wait_count(d, "send bjson file :", reports + 1)
        d.signal(signal.SIGTERM)
        d.wait(LONG_WAIT)
        cls.kept_at_third_stop = sorted(ZIP_ANY.findall(d.stdout_text())[-2:])

    def test_failed_upload_is_kept_and_arrives_unchanged_a_cycle_later(self):
        # The groups and the status report send side by side: either fails first.
        names = sorted(name for name, _ in self.failed)
        self.assertEqual(len(names), 2, self.failed)
        self.assertTrue(names[1].startswith("145-507183926-350100-350000-"), names)
        self.assertIn("DEVICESTATUS", names[0])
        self.assertEqual(qz_bcp.logged_names(self.out1, "tmp/145")[0], names[1])
        self.assertEqual(sorted(RESENT.findall(self.out1)), names)
        received = [u.read() for u in self.uploads_first_run]
        for name, data in self.kept_bytes.items():
            self.assertIn(data, received, name)
        zip_145 = [u for u in self.uploads_first_run if u.read() == self.kept_bytes[names[1]]]
        bcp_check(self, zip_145[0].path, names[1])

    def test_sigterm_keeps_the_open_cycle_and_exits_at_once(self):
        self.assertEqual(self.term_status, 0, self.err1)
        self.assertLess(self.term_seconds, 5)
        self.assertEqual(len(self.kept_at_stop[145]), 1, self.kept_at_stop)
        self.assertEqual(len(self.kept_at_stop[146]), 1, self.kept_at_stop)

    def test_sigkill_leaves_every_handled_line_in_its_file(self):
        self.assertEqual(len([n for n in self.kill_left if "WA_SOURCE_FJ_0001" in n]), 1,
                         self.kill_left)

    def test_every_record_arrives_once_in_checked_zips(self):
        numbers = []
        for up in uploads(self.sb.ftp, "tmp/145"):
            numbers += qz_soak.read_flood_numbers(bcp_check(self, up.path))
        self.assertEqual(sorted(numbers), list(range(45)))
        for up in uploads(self.sb.ftp, "tmp/146"):
            bcp_check(self, up.path)
        # What the third run kept at its stop is its own open cycles.
        self.assertEqual(kept(144) + kept(145) + kept(146), self.kept_at_third_stop)

    def test_counters_agree_with_the_server(self):
        s = self.stats
        got = {g: len(uploads(self.sb.ftp, "tmp/%d" % g)) for g in (144, 145, 146)}
        first = {g: len([u for u in self.uploads_first_run if u.remote == "tmp/%d" % g])
                 for g in (144, 145, 146)}
        self.assertGreater(got[145], first[145])
        for g in (144, 145, 146):
            c = s["groups"][str(g)]
            self.assertEqual(c["uploads_ok"], first[g], (g, c))
            self.assertEqual(c["uploads_failed"], 1 if g != 146 else 0, (g, c))
            self.assertEqual(c["unsent_files"], len(self.kept_at_stop.get(g, [])), (g, c))
        self.assertEqual(s["groups"]["145"]["last_zip"], self.kept_at_stop[145][0])
        self.assertEqual(s["datasets"]["WA_SOURCE_FJ_0001"], {"records": 35, "refused": 0})
        feed = s["feeds"]["online_offline"]
        self.assertEqual((feed["received"], feed["handled"], feed["refused"]), (35, 35, 0))
        self.assertEqual(set(s["feeds"]), {"online_offline"})
        self.assertLessEqual(s["started"], s["now"])


class DurableLimitsTest(SandboxCase):

    def test_kept_files_are_bounded_oldest_deleted_first(self):
        sb = self.sb
        sb.write_config(DURABLE)
        sb.set_wtps(["1 %s up" % AP])
        os.makedirs(os.path.join(UNSENT, "145"))
        os.chmod(UNSENT, 0o700)  # a store made by hand is the daemon's own only so
        # Only names of the daemon's own zips count in the store.
        old = ["145-507183926-350100-350000-%d-%05d.zip" % (1000000000 + i, i) for i in range(64)]
        for i in range(64):
            path = os.path.join(UNSENT, "145", old[i])
            with open(path, "w") as f:
                f.write("x")
            os.utime(path, (1000000000 + i, 1000000000 + i))
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        sb.ftp.stop()
        d = sb.start_daemon(["-D"])
        d.wait_for(r"mkdir /tmp/144")
        send_batch(0, 1)
        d.wait_for(r"WARN:more than 64 files or 16 MiB kept for group 145: %s deleted\n" % old[0],
                   stream="stderr", timeout=LONG_WAIT)
        failed = re.compile(FAILED.pattern.replace(r"(\S+)", r"(145-\S+)"))
        d.wait_for(failed.pattern, stream="stderr")
        names = kept(145)
        self.assertEqual(len(names), 64)
        self.assertNotIn(old[0], names)
        self.assertIn(failed.search(d.stderr_text()).group(1), names)

    def test_without_the_key_sigterm_ends_the_daemon_as_before(self):
        sb = self.sb
        sb.write_config()
        sb.set_wtps(["1 %s up" % AP])
        d = sb.start_daemon(["-D"])
        d.wait_for(r"mkdir /tmp/144")
        d.signal(signal.SIGTERM)
        self.assertEqual(d.wait(LONG_WAIT), -signal.SIGTERM)
        self.assertFalse(os.path.exists(UNSENT))


if __name__ == "__main__":
    unittest.main()
