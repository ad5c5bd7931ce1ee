"""The device status report end to end: one run whose access-point listing
changes from tick to tick, and the DEVICESTATUS files that reach the FTP
server as tmp/144."""

import calendar
import os
import re
import time
import unittest

import qz_sandbox
from tick_wum import TickWum, bcp_check, wait_running

ACCEL = 60
START_EPOCH = calendar.timegm(time.strptime(qz_sandbox.DEFAULT_START, "%Y-%m-%d %H:%M:%S"))
CYCLE = 300
WAIT = 120

A_MAC = "00:1a:2b:3c:4d:5e"
B_MAC = "A4-B1-C2-D3-E4-F5"
A_ID = "507183926001A2B3C4D5"
B_ID = "507183926A4B1C2D3E4F"

# The listing of each tick, and what that tick's status file must hold
# (None: no file is uploaded).
TICKS = [
    (["1 %s up AP-01" % A_MAC, "2 %s up AP-02" % B_MAC], [(A_ID, 0), (B_ID, 0)]),
    # B has gone; A named twice is still one access point.
    (["1 %s up AP-01" % A_MAC, "7 %s up AP-01" % A_MAC], [(A_ID, 0), (B_ID, 1)]),
    (["1 %s up AP-01" % A_MAC], [(A_ID, 0)]),
    ([], [(A_ID, 1)]),
    # Nothing known and nothing listed: an empty file, not uploaded.
    ([], None),
    (["2 %s up AP-02" % B_MAC], [(B_ID, 0)]),
]

SENT = re.compile(r"bjson_report_timer<\d+>: DEBUG:send bjson file :(.*)\n")
STATUS_PATH = re.compile(r"/tmp/144/145-350100-(\d+)-(0|[1-9]\d*)-DEVICESTATUS-0\.bjson")
SHOWN = re.compile(r"system cmd: wput -t 2 (/tmp/144/\S+) ")


def sequence(path):
    m = STATUS_PATH.fullmatch(path)
    return int(m.group(2)) if m else -1


def status_line(device, ds):
    return '{"fc":"507183926", "sc":"35010010AC1000", "dc":"%s", "ds":"%d"}\n' % (device, ds)


class StatusReportTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.sb = sb = qz_sandbox.Sandbox()
        cls.addClassCleanup(sb.close)
        sb.write_config()
        wum = TickWum(sb, [listing for listing, _ in TICKS])
        d = sb.start_daemon(["-D"], accel=ACCEL)
        # The first scan of the tick after the last one comes after every
        # report of interest has ended.
        wait_running(d, lambda: len(TICKS) in wum.ticks(), WAIT,
                     "the scans of tick %d" % len(TICKS))
        d.stop()
        out = d.stdout_text()
        # Leave out what a report after the last tick of interest logged.
        cls.sent = [p for p in SENT.findall(out) if sequence(p) < len(TICKS)]
        cls.shown = [p for p in SHOWN.findall(out) if sequence(p) < len(TICKS)]
        cls.uploads = [u for u in sb.ftp.uploads() if u.remote == "tmp/144"]
        cls.wum_ticks = wum.ticks()
        cls.expected = [lines for _, lines in TICKS if lines is not None]

    def test_file_names_and_sequence(self):
        self.assertEqual(len(self.sent), len(self.expected), self.sent)
        sequences, times = [], []
        for path in self.sent:
            m = STATUS_PATH.fullmatch(path)
            self.assertIsNotNone(m, path)
            times.append(int(m.group(1)))
            sequences.append(int(m.group(2)))
        # Every report takes a number, the unsent one too.
        self.assertEqual(sequences, [tick for tick, (_, lines) in enumerate(TICKS)
                                     if lines is not None])
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[0], START_EPOCH + CYCLE)
        # Only the files that were sent were offered to the server.
        self.assertEqual(self.shown, self.sent)

    def test_lines_follow_the_listing(self):
        self.assertGreaterEqual(len(self.uploads), len(self.expected))
        for number, (upload, lines) in enumerate(zip(self.uploads, self.expected)):
            with self.subTest(file=number):
                data = upload.read().decode()
                self.assertTrue(data.endswith("\n"), repr(data))
                # Where a new access point enters the list is the daemon's choice.
                self.assertEqual(sorted(data.splitlines(keepends=True)),
                                 sorted(status_line(dc, ds) for dc, ds in lines))

    def test_checker_accepts_the_files(self):
        for upload, path in zip(self.uploads, self.sent):
            with self.subTest(file=os.path.basename(path)):
                status, summary, faults = bcp_check(upload.path, os.path.basename(path))
                self.assertEqual((status, faults), (0, []))
                self.assertEqual(summary["sequence"], int(STATUS_PATH.fullmatch(path).group(2)))

    def test_spool_is_empty_after_each_report(self):
        # Every scan of the following ticks sees /tmp/144 as the previous
        # report left it, the unsent file of the empty report included.
        self.assertEqual(sorted(self.wum_ticks)[:len(TICKS) + 1], list(range(len(TICKS) + 1)))
        for tick, calls in sorted(self.wum_ticks.items()):
            with self.subTest(tick=tick):
                self.assertEqual([c.spool[144] for c in calls], [[]] * len(calls))


if __name__ == "__main__":
    unittest.main()
