"""The terminal group (146) end to end: one run over five accelerated
cycles, with credentials the shell would mangle, leftovers of an earlier
run, an access-point line that ends with its MAC, and the FTP server away
for one cycle.  The tests look at what the run left behind."""

import calendar
import glob
import os
import unittest
import urllib.parse

import qz_bcp
import qz_sandbox
from e2e_base import LONG_WAIT, bcp_check, uploads
from tick_wum import TickWum

START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))
DATASETS = ("WA_BASIC_FJ_1001", "WA_BASIC_FJ_1002", "WA_BASIC_FJ_1003", "WA_BASIC_FJ_1004")
A_MAC, B_MAC = "00:1a:2b:3c:4d:5e", "a4:b1:c2:d3:e4:f5"
# Nothing after the first MAC: no line feed may follow it into a record.
LISTING = ["1 " + A_MAC, "2 %s up AP-02" % B_MAC]
USER = "us er"
# Quotes, command substitution, a separator, backquotes, a backslash and
# URL syntax, all to arrive as text.  The double quotes are balanced, so a
# command line with the password pasted in would run both touches.
PASSWORD = 'p"w$(touch /tmp/pwned);x`touch /tmp/pwned2`"y\\z\'%41@:z'
LEFTOVERS = {
    "/tmp/146/146-350100-1700000000-00009-WA_BASIC_FJ_1002-0.bcp": b"LEFTOVER\n",
    "/tmp/146/GAB_ZIP_INDEX.xml": b"LEFTOVER",
    "/tmp/146/146-507183926-350100-350000-1700000000-00009.zip": b"LEFTOVER",
    "/tmp/144/145-350100-1700000000-9-DEVICESTATUS-0.bjson": b'{"sc":"LEFTOVER"}\n',
}


def equipment_id(mac):
    return (qz_bcp.ORG_CODE + mac.replace(":", "").upper())[:20]


class TerminalRunTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.sb = sb = qz_sandbox.Sandbox(ftp=False)
        cls.addClassCleanup(sb.close)
        sb.ftp = qz_sandbox.FtpSink(os.path.join(sb.private, "ftp"), USER, PASSWORD).start()
        cls.addClassCleanup(sb.ftp.stop)
        for path, data in LEFTOVERS.items():
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
        sb.write_config()
        wum = TickWum(sb, [LISTING])
        d = sb.start_daemon(["-D"])
        # The status report's directory is the last one set up.
        d.wait_for(r"qz2fh_create_dir<\d+>: DEBUG:mkdir /tmp/144 ")
        cls.after_start = [os.listdir("/tmp/146"), os.listdir("/tmp/144")]
        # The server goes away once zip 0 is sent and is back once zip 1 has
        # failed.
        d.wait_for(r"form zip file :146-\S+-00000\.zip", timeout=LONG_WAIT)
        cls.before_outage = len(uploads(sb.ftp, "tmp/146"))
        sb.ftp.stop()
        d.wait_for(r"form zip file :146-\S+-00001\.zip", timeout=LONG_WAIT)
        sb.ftp.start()
        # Every report of tick 3 is over when tick 4 scans.
        wum.wait_tick(d, 4)
        cls.pwned = glob.glob("/tmp/pwned*") + glob.glob(os.path.join(sb.work_dir, "pwned*"))
        d.stop()
        cls.out, cls.err = d.stdout_text(), d.stderr_text()
        cls.zip_names = qz_bcp.logged_names(cls.out, "tmp/146")
        cls.ticks = wum.ticks()

    def test_cycles_make_numbered_zips_and_a_lost_one_stays_lost(self):
        self.assertEqual(self.before_outage, 1)
        self.assertEqual([n[-9:-4] for n in self.zip_names], ["00000", "00001", "00002", "00003"])
        zips = uploads(self.sb.ftp, "tmp/146")
        self.assertEqual(len(zips), 3, self.zip_names)
        times = [START_EPOCH + 300] + [int(n.split("-")[-2]) for n in self.zip_names]
        # The first archive, at 600 s, holds the records written at 300 s.
        self.assertGreaterEqual(times[1], START_EPOCH + 600)
        for up, cycle in zip(zips, (0, 2, 3)):
            with self.subTest(cycle=cycle):
                got = bcp_check(self, up.path, self.zip_names[cycle])
                self.assertEqual([(f["dataset"], f["records"], f["file"].split("-")[3])
                                  for f in got.files],
                                 [(code, n, "%05d" % cycle)
                                  for code, n in zip(DATASETS, (2, 2, 1, 1))])
                aps = list(got.records(DATASETS[0]))
                self.assertEqual([r["COLLECTION_EQUIPMENTID"] for r in aps],
                                 [equipment_id(A_MAC), equipment_id(B_MAC)])
                # Written in the tick after the previous archive.
                for r in aps:
                    self.assertTrue(times[cycle] <= int(r["TIME"]) < times[cycle + 1], r)

    def test_other_uploads_pass_the_checker(self):
        # The netbar group writes the access points' MAC text itself.
        others = [u for u in self.sb.ftp.uploads() if u.remote != "tmp/146"]
        self.assertEqual({u.remote for u in others}, {"tmp/144", "tmp/145"})
        for up in others:
            with self.subTest(upload=up.path):
                bcp_check(self, up.path)

    def test_spools_are_emptied_at_start_and_every_cycle(self):
        self.assertEqual(self.after_start, [[], []])
        self.assertEqual(sorted(self.ticks)[:5], list(range(5)))
        for up in self.sb.ftp.uploads():
            self.assertNotIn(b"LEFTOVER", b"".join(qz_bcp.read(up.path).stored.values()), up.path)

    def test_odd_credentials_reach_the_server_and_run_nothing(self):
        self.assertEqual(self.pwned, [])
        self.assertIn("system cmd: wput", self.out)
        for shown in (PASSWORD, urllib.parse.quote(PASSWORD, safe=""), "pwned"):
            self.assertNotIn(shown, self.out + self.err)
        self.assertEqual({u.user for u in self.sb.ftp.uploads()}, {USER})
        self.assertEqual(set(self.sb.ftp.logins()), {USER})


if __name__ == "__main__":
    unittest.main()
