"""The device status report end to end: one run whose access-point listing
changes from tick to tick, and the DEVICESTATUS files that reach the FTP
server as tmp/144."""

import calendar

import qz_bcp
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


class StatusReportTest(SandboxCase):

    def test_status_files_follow_the_listing(self):
        self.sb.write_config()
        wum = TickWum(self.sb, [listing for listing, _ in TICKS])
        d = self.sb.start_daemon(["-D"])
        # Every report of interest is over when the tick after the last scans.
        wum.wait_tick(d, len(TICKS))
        d.stop()
        names = [n for n in qz_bcp.logged_names(d.stdout_text(), "tmp/144")
                 if int(n.split("-")[3]) < len(TICKS)]
        expected = [(tick, lines) for tick, (_, lines) in enumerate(TICKS) if lines]
        ups = uploads(self.sb.ftp, "tmp/144")
        self.assertGreaterEqual(len(ups), len(expected))
        got = [bcp_check(self, up.path, name) for name, up in zip(names, ups)]
        # Every report takes a number, the unsent one too.
        self.assertEqual([(g.source, g.sequence) for g in got],
                         [("350100", tick) for tick, _ in expected])
        times = [g.time for g in got]
        self.assertEqual(times, sorted(times))
        self.assertGreaterEqual(times[0], START_EPOCH + 300)
        for g, (tick, lines) in zip(got, expected):
            # Where a new access point enters the list is the daemon's choice;
            # the checker has checked fc and sc.
            self.assertEqual(sorted((s["dc"], int(s["ds"])) for s in g.status), sorted(lines),
                             tick)
