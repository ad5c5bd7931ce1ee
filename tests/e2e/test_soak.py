"""A short soak: steady traffic over several archive cycles, one slow
upload and one failed one; every delivered event is archived exactly once
(bar the failed cycle's), memory stays flat, and nothing logs an error.
The long version with figures is bench/soak_bench.py."""

import os
import unittest

import qz_soak


def stub_path():
    return os.path.join(os.path.dirname(os.path.realpath(os.environ["QZ_BIN"])), "tools",
                        "libqz_nlstub.so")


class SoakTest(unittest.TestCase):
    def test_no_event_lost_while_commands_run(self):
        r = qz_soak.run(os.environ["QZ_BIN"], stub_path(), cycles=6, rate=400, http_rate=100,
                        slow_cycles=(3,), down_cycle=5, slow_seconds=5.0, accel=60, hold=150,
                        log=lambda *a: None)
        summary = "\n".join("%s: %s" % kv for kv in sorted(r.items()))
        self.assertEqual(r["errors"], [], summary)
        # The daemon kept its socket drained even during the slow upload.
        self.assertEqual(r["shell_refused"], 0, summary)
        self.assertEqual(r["http_dropped"], 0, summary)
        for feed in ("shell", "http"):
            self.assertEqual(r[feed + "_duplicates"], 0, summary)
            self.assertEqual(r[feed + "_unexpected"], 0, summary)
            self.assertTrue(r[feed + "_lost_in_one_run"], summary)
            self.assertEqual(r[feed + "_received"] + r[feed + "_lost_with_failed_upload"],
                             r[feed + "_sent"], summary)
        # Something was lost with the failed upload, and only then.
        self.assertGreater(r["shell_lost_with_failed_upload"], 0, summary)
        # Memory does not grow from cycle to cycle once running.
        rss = r["rss_kib"]
        self.assertLessEqual(max(rss[-3:]), max(rss[1:3]) + 512, summary)


if __name__ == "__main__":
    unittest.main()
