"""The device status report end to end: one run whose access-point listing
changes from tick to tick, and the DEVICESTATUS files that reach the FTP
server as tmp/144."""

import calendar
import re

from e2e_base import SandboxCase, bcp_check, uploads
from tick_wum import TickWum

START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))
A_MAC, B_MAC = "00:1a:2b:3c:4d:5e", "A4-B1-C2-D3-E4-F5"
A_ID, B_ID = "507183926001A2B3C4D5", "507183926A4B1C2D3E4F"
# The listing of each tick, and the (device, ds) its file must hold; None:
# no file is uploaded.
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
SENT = re.compile(r"bjson_report_timer<\d+>: DEBUG:send bjson file :/tmp/144/"
                  r"(145-350100-(\d+)-(\d+)-DEVICESTATUS-0\.bjson)\n")


class StatusReportTest(SandboxCase):

    def test_status_files_follow_the_listing(self):
        self.sb.write_config()
        wum = TickWum(self.sb, [listing for listing, _ in TICKS])
        d = self.sb.start_daemon(["-D"])
        # Every report of interest is over when the tick after the last scans.
        wum.wait_tick(d, len(TICKS))
        d.stop()
        sent = [m for m in SENT.findall(d.stdout_text()) if int(m[2]) < len(TICKS)]
        expected = [(tick, lines) for tick, (_, lines) in enumerate(TICKS) if lines]
        # Every report takes a number, the unsent one too.
        self.assertEqual([int(seq) for _, _, seq in sent], [tick for tick, _ in expected])
        times = [int(t) for _, t, _ in sent]
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[0], START_EPOCH + 300)
        ups = uploads(self.sb.ftp, "tmp/144")
        self.assertGreaterEqual(len(ups), len(expected))
        for (name, _, _), up, (tick, lines) in zip(sent, ups, expected):
            with self.subTest(tick=tick):
                self.assertEqual(bcp_check(self, up.path, name).sequence, tick)
                # Where a new access point enters the list is the daemon's choice.
                self.assertEqual(sorted(up.read().decode().splitlines()), sorted(
                    '{"fc":"507183926", "sc":"35010010AC1000", "dc":"%s", "ds":"%d"}' % x
                    for x in lines))
        # The spool is empty at every scan: each report empties it, the
        # unsent file of the empty report included.
        ticks = wum.ticks()
        self.assertEqual(sorted(ticks)[:len(TICKS) + 1], list(range(len(TICKS) + 1)))
        for tick, calls in ticks.items():
            self.assertEqual([c.spool144 for c in calls], [[]] * len(calls), tick)
