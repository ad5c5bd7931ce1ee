"""A flood from a blocking sender while uploads stall: the daemon reads only
what it can keep and the sender waits for it, so every datagram sent is in
exactly one record of the zips received."""

import json
import os
import time
import unittest

import qz_router_sim as sim
import qz_sandbox
import qz_soak
from e2e_base import LONG_WAIT, SandboxCase, bcp_check, uploads

TERMINALS = 200
STATUS_LINE = "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n"


class FloodTest(SandboxCase):

    def test_blocking_flood_through_stalled_uploads_loses_nothing(self):
        sb = self.sb
        sb.write_config()
        sb.set_wtps(["1 00:1a:2b:3c:4d:5e up"])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        for i in range(TERMINALS):
            with open("/tmp/qztmp/clt_wifi_info/" + qz_soak.mac_of(i), "w") as f:
                f.write(STATUS_LINE)
        # Every upload holds the loop for half a second: 30 s of the daemon's
        # clock, well inside wput's time-outs, which run on that clock too.
        sb.ftp.set_delay(0.5)
        # Detached: a console line per record would slow the daemon down.
        d = sb.start_daemon(args=())
        d.wait(LONG_WAIT)
        qz_sandbox.wait_until(qz_sandbox.lock_holder, LONG_WAIT, "daemon running")
        qz_sandbox.wait_until(lambda: os.path.exists(sim.SHELL_SOCK_PATH), LONG_WAIT, "socket")

        # Bursts as fast as the daemon takes them, each more than the share
        # of the queue holds (about 8,000 datagrams of this size).
        burst = 30000
        sent = 0
        start = time.monotonic()
        with sim.ShellSender(block_timeout=LONG_WAIT) as shell:
            # Until two stalled uploads of the group have come and gone.
            while len(uploads(sb.ftp, "tmp/145")) < 2:
                self.assertLess(time.monotonic() - start, LONG_WAIT, "no uploads during the flood")
                for _ in range(burst):
                    shell.online(qz_soak.mac_of(sent % TERMINALS), qz_soak.flood_ip(sent), 1)
                    sent += 1
                time.sleep(1.5)
        sb.ftp.set_delay(0)
        # The cycle under way and the next one archive what is still open.
        for _ in range(2):
            mark = len(sb.ftp.uploads())
            qz_sandbox.wait_until(lambda: uploads(sb.ftp, "tmp/145") and any(
                u.remote == "tmp/145" for u in sb.ftp.uploads()[mark:]), LONG_WAIT, "upload")

        # Every zip passes the checker, its index rebuilt byte for byte.
        numbers = [k for u in uploads(sb.ftp, "tmp/145")
                   for k in qz_soak.read_flood_numbers(bcp_check(self, u.path))]
        self.assertGreater(sent, 1000)
        self.assertEqual(len(numbers), sent, "records received for %d datagrams sent" % sent)
        self.assertEqual(sorted(numbers), list(range(sent)))
        # The counters file agrees, a tick later at most.
        def counted():
            with open("/tmp/qz_fh_stats.json") as f:
                stats = json.load(f)
            return (stats["feeds"]["online_offline"]["handled"],
                    stats["datasets"]["WA_SOURCE_FJ_0001"]["records"])
        qz_sandbox.wait_until(lambda: counted() == (sent, sent), LONG_WAIT, "counters")
        with open("/tmp/qz_fh_stats.json") as f:
            feed = json.load(f)["feeds"]["online_offline"]
        self.assertEqual((feed["received"], feed["refused"]), (sent, 0))


if __name__ == "__main__":
    unittest.main()
