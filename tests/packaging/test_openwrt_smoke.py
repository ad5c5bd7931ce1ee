"""The smoke run of tests/e2e/test_smoke.py on OpenWrt's userland: the
daemon configured in UCI with a password full of shell and URL
metacharacters, its JSON file written by the init script, started and
supervised by procd, every upload sent by the package's wput (curl), its
WARN and ERROR lines kept by logd. The uploads equal the golden output,
so the password reached the server unchanged, and it reached no shell."""

import os
import re

import test_smoke
from openwrt_case import HOSTILE, PWNED, UCI_FILE, options, uci_text
from qz_ftp_sink import FtpSink
import qz_openwrt


class ProcdDaemon:
    """What the smoke run asks of a started daemon, of the one procd runs."""

    def __init__(self, router):
        self.router = router
        self.pid = router.wait(router.daemon_pid, "the daemon")

    def running(self):
        return self.router.daemon_pid() == self.pid

    def stdout_text(self):
        with open(self.router.stdout, encoding="utf-8", errors="replace") as f:
            return f.read()

    def stderr_text(self):
        """Its standard error, as logd got it from procd."""
        tag = "qz_fh_audit[%d]: " % self.pid
        return "".join(line.split(tag, 1)[1] + "\n" for line in self.router.logread()
                       if tag in line)

    def wait_for(self, pattern, timeout=60, **_):
        return self.router.wait(lambda: re.search(pattern, self.stdout_text(), re.M), pattern,
                                timeout)

    def stop(self):
        self.router.sh("/etc/init.d/qz_fh_audit stop")

    def describe(self):
        return self.router.describe()


class OpenWrtSmokeTest(test_smoke.SmokeTest):

    def setUp(self):
        super().setUp()
        self.sb.ftp.stop()
        self.sb.ftp = FtpSink(os.path.join(self.sb.private, "ftp-hostile"), password=HOSTILE).start()
        self.addCleanup(self.sb.ftp.stop)
        self.router = qz_openwrt.Router(self.sb, qz_openwrt.userland())
        self.router.boot()
        self.sb.write_config = self.write_uci
        self.sb.start_daemon = lambda *args, **kw: self.start()
        self.addCleanup(lambda: self.assertFalse(os.path.lexists(PWNED),
                                                 "the password reached a shell"))

    def write_uci(self, values=None):
        changes = self.sb.config_values(values)
        self.assertEqual(changes["fh_ftp_password"], HOSTILE)
        with open(self.router.path(UCI_FILE), "w", encoding="utf-8") as f:
            f.write(uci_text(options(**changes)))

    def start(self):
        self.router.sh("/etc/init.d/qz_fh_audit start")
        return ProcdDaemon(self.router)
