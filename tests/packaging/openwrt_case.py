"""A router of OpenWrt's own userland with the package installed, booted
once per test class (tools/qz_openwrt.py), and the values its tests
configure."""

import json
import os
import re
import unittest

import qz_openwrt
import qz_sandbox
from qz_config_keys import KEYS, OPTIONAL_KEYS, config_doc  # noqa: F401 (for the test modules)

FILES = os.path.join(qz_openwrt.ROOT, "packaging", "openwrt", "files")
CONF = "/etc/qz_fh_audit.json"
UCI_FILE = "/etc/config/qz_fh_audit"
PWNED = "/tmp/qz_pwned"
# Shell, JSON and URL metacharacters, quotes of both kinds, a backslash and
# UTF-8: all must reach the JSON file and the FTP server as they are, and
# none a shell.
HOSTILE = "p$(touch %s)`touch %s`;touch %s \"'\\&|<>*?{}[]~#!%%@:/x 密码é" % ((PWNED,) * 3)
VALUES = config_doc({
    "fh_netbar_property_str": "1",
    "fh_netbar_type_str": "9",
    "fh_netbar_name": "海滨咖啡馆 \"Harbour\"",
    "fh_equipment_name": "AP-01",
    "fh_source_str": "350100",
    "fh_address": "福州市鼓楼区示例路1号, O'Brien St.",
    "fh_dst_str": "350000",
    "fh_longitude": "119.30",
    "fh_latitude": "26.08",
    "fh_org_name": "Example Networks Co., Ltd.",
    "fh_org_tel_num": "0591-87000000",
    "fh_org_mail": "support@example.com",
    "fh_org_address": "Example Road 5\\Fuzhou",
    "fh_ftp_ip": "192.0.2.10",
    "fh_ftp_port": "21",
    "fh_ftp_username": "audit user",
    "fh_ftp_password": HOSTILE,
})


def uci_text(options):
    """/etc/config/qz_fh_audit with the section main of options (pairs of
    name and text; None leaves the option out)."""
    lines = ["config qz_fh_audit 'main'"]
    lines += ["\toption %s '%s'" % (k, v.replace("'", "'\\''"))
              for k, v in options if v is not None]
    return "\n".join(lines) + "\n"


def options(enabled="1", use_uci="1", **changes):
    return [("enabled", enabled), ("use_uci", use_uci)] + list(dict(VALUES, **changes).items())


def expected_json(**changes):
    """The file the init script writes for options(**changes)."""
    values = dict(VALUES, **changes)
    doc = {k: values[k] or "" for k in KEYS}
    if values.get("fh_unsent_dir"):
        doc["fh_unsent_dir"] = values["fh_unsent_dir"]
    return doc


class RouterCase(unittest.TestCase):
    """A sandbox with a router in it, booted for the class."""

    @classmethod
    def setUpClass(cls):
        cls.sb = qz_sandbox.Sandbox()
        try:
            cls.router = qz_openwrt.Router(cls.sb, qz_openwrt.userland())
            cls.router.boot()
        except BaseException:
            cls.sb.close()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.sb.close()

    def write(self, path, text, mode=0o600):
        """Writes the router's path (0600 as opkg installs configuration)."""
        full = self.router.path(path)
        with open(full, "w", encoding="utf-8") as f:
            f.write(text)
        os.chmod(full, mode)

    def read_json(self, path=CONF):
        with open(self.router.path(path), encoding="utf-8") as f:
            return json.load(f)

    def read_text(self, path):
        """The router's file path as text, or None when there is none."""
        try:
            with open(self.router.path(path), encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return None

    def log_since(self, mark):
        """Lines logd received since mark (a count of lines), from their
        facility on: "daemon.err qz_fh_audit: ..." """
        return [re.sub(r"^\S+ \S+ +\d+ [\d:]+ \d+ ", "", line)
                for line in self.router.logread()[mark:]]
