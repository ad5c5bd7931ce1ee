"""The rpcd plugin run as rpcd runs it ("list", then "call METHOD" with the
arguments as JSON on standard input) under busybox sh and dash, against
the counters file and configuration of a daemon running in the sandbox,
with stand-ins for jshn.sh, jsonfilter and ubus."""

import json
import os
import signal
import subprocess
import tempfile
import unittest

import qz_sandbox
from e2e_base import WAIT, wait_running
from openwrt_stubs import KEYS, RPCD, SHELLS, env

STATS = "/tmp/qz_fh_stats.json"
PASSWORD = "s3cret-\"pass\"'word"


class RpcdPluginTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.sb = qz_sandbox.Sandbox()
        cls.sb.write_config({"fh_ftp_password": PASSWORD})
        cls.daemon = cls.sb.start_daemon(["-D"])
        wait_running(cls.daemon, lambda: os.path.exists(STATS), "the counters file", WAIT)
        cls.work = tempfile.mkdtemp(dir=cls.sb.private)

    @classmethod
    def tearDownClass(cls):
        cls.sb.close()

    def plugin(self, shell, *args, pid=None, stdin=b"{}"):
        e = env(self.work, QZ_UBUS_PID="" if pid is None else str(pid))
        r = subprocess.run(SHELLS[shell] + [RPCD] + list(args), env=e, input=stdin,
                           capture_output=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertNotIn(PASSWORD.encode(), r.stdout + r.stderr)
        return json.loads(r.stdout)

    def test_list(self):
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.assertEqual(self.plugin(shell, "list"), {"status": {}, "config": {}})

    def test_status_is_the_counters_file(self):
        for shell in SHELLS:
            for pid in (self.daemon.pid, None):
                with self.subTest(shell=shell, pid=pid):
                    # The daemon rewrites the file every 5 s; hold it still.
                    self.daemon.signal(signal.SIGSTOP)
                    try:
                        with open(STATS, encoding="utf-8") as f:
                            counters = json.load(f)
                        status = self.plugin(shell, "call", "status", pid=pid)
                    finally:
                        self.daemon.signal(signal.SIGCONT)
                    self.assertEqual(status.pop("running"), pid is not None)
                    self.assertEqual(status.pop("pid", None), pid)
                    self.assertEqual(status, counters)
                    self.assertIn("groups", status)

    def test_config_hides_the_password(self):
        with open("/etc/qz_fh_audit.json", encoding="utf-8") as f:
            conf = json.load(f)
        for shell in SHELLS:
            with self.subTest(shell=shell):
                shown = self.plugin(shell, "call", "config")
                self.assertEqual(list(shown), KEYS)
                self.assertEqual(shown.pop("fh_ftp_password"), "***")
                self.assertEqual(shown, {k: conf[k] for k in KEYS if k != "fh_ftp_password"})

    def test_links_are_not_followed(self):
        # /tmp is every user's: a link there must not make the plugin (run
        # as root) show another file.
        secret = os.path.join(self.work, "secret.json")
        with open(secret, "w") as f:
            json.dump({"secret": PASSWORD}, f)
        moved = STATS + ".real"
        self.daemon.signal(signal.SIGSTOP)
        try:
            os.rename(STATS, moved)
            os.symlink(secret, STATS)
            for shell in SHELLS:
                with self.subTest(shell=shell):
                    status = self.plugin(shell, "call", "status", pid=self.daemon.pid)
                    self.assertEqual(status, {"running": True, "pid": self.daemon.pid,
                                              "error": "no counters in " + STATS})
        finally:
            os.unlink(STATS)
            os.rename(moved, STATS)
            self.daemon.signal(signal.SIGCONT)
