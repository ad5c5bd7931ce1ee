"""The smoke run of tests/e2e/test_smoke.py with /etc/qz_fh_audit.json
written by the init script from a UCI file: every value reaches the
uploads as the golden output has it. The FTP password holds shell and URL
metacharacters: the uploads only arrive when wput got it unchanged, and
nothing in it is ever run."""

import os
import shutil
import stat
import tempfile

import test_smoke
from openwrt_stubs import CONF, InitRun, uci_text
from qz_ftp_sink import FtpSink

PWNED = "/tmp/qz_pwned"
HOSTILE = "p$(touch %s)`touch %s`;touch %s \"'\\&|<>*?#%%@:/x" % (PWNED, PWNED, PWNED)


class UciSmokeTest(test_smoke.SmokeTest):

    def setUp(self):
        super().setUp()
        # A server that expects the hostile password.
        self.sb.ftp.stop()
        self.sb.ftp = FtpSink(tempfile.mkdtemp(dir=self.sb.private), password=HOSTILE).start()
        self.addCleanup(self.sb.ftp.stop)
        self.work = tempfile.mkdtemp(dir=self.sb.private)
        self.addCleanup(shutil.rmtree, self.work)
        os.mkdir(os.path.join(self.work, "config"))
        self.sb.write_config = self.write_config_with_uci
        self.addCleanup(lambda: self.assertFalse(os.path.lexists(PWNED),
                                                 "the password reached a shell"))

    def write_config_with_uci(self, values=None):
        config = self.sb.config_values(values)
        self.assertEqual(config["fh_ftp_password"], HOSTILE)
        options = [("enabled", "1"), ("use_uci", "1")] + list(config.items())
        with open(os.path.join(self.work, "config", "qz_fh_audit"), "w", encoding="utf-8") as f:
            f.write(uci_text(options))
        run = InitRun("busybox", self.work)
        self.assertEqual((run.status, run.logger), (0, []), run.stderr)
        self.assertEqual(len(run.instances()), 1)
        self.assertEqual(stat.S_IMODE(os.stat(CONF).st_mode), 0o600)
        with open(CONF, "rb") as f:
            return f.read()
