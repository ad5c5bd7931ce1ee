"""The procd init script, run under busybox sh and dash with stand-ins for
OpenWrt's rc.common, functions.sh, procd.sh, jshn.sh, uci and logger: what
it renders from /etc/config/qz_fh_audit into /etc/qz_fh_audit.json, which
values it refuses (one log line, no instance), and the service it sends
to procd."""

import glob
import json
import os
import shutil
import stat
import subprocess
import tempfile
import unittest

import qz_sandbox
from openwrt_stubs import (CONF, KEYS, ROOT, SHELLS, SHIPPED_UCI, STUBS, UCI_DEFAULTS, InitRun,
                           env, uci_text)
from qz_config_keys import config_doc

# Shell and JSON metacharacters, quotes of both kinds, a backslash and
# UTF-8: all must reach the JSON file as they are, and none a shell.
HOSTILE = "p$(touch /tmp/qz_pwned)`touch /tmp/qz_pwned`\"'\\;&|<>*?{}[]~#!% 密码é"
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
INSTANCE = [
    "procd_open_instance",
    "procd_set_param command /usr/sbin/qz_fh_audit -D",
    "procd_set_param respawn",
    "procd_set_param stderr 1",
    "procd_set_param file /etc/qz_fh_audit.json",
    "procd_set_param term_timeout 10",
    "procd_close_instance",
]
TRIGGERS = ["procd_add_reload_trigger qz_fh_audit", "procd_add_validation validate_section"]
WHERE = "in /etc/config/qz_fh_audit: "
# A file the previous start left, which a refused start must not touch.
PREVIOUS = b'{"written": "before"}\n'


def options(enabled="1", use_uci="1", drop=(), **changes):
    opts = [("enabled", enabled), ("use_uci", use_uci)]
    values = dict(VALUES, **changes)
    opts += [(k, v) for k, v in values.items() if k not in drop]
    return opts


def expected_json(**changes):
    values = dict(VALUES, **changes)
    doc = {k: values[k] for k in KEYS}
    if values.get("fh_unsent_dir"):
        doc["fh_unsent_dir"] = values["fh_unsent_dir"]
    return doc


# (name, option changes, message after "not started: ").
REFUSED = [
    ("missing option", dict(drop=("fh_org_mail",)),
     "option fh_org_mail is missing in /etc/config/qz_fh_audit"),
    ("port above 65535", dict(fh_ftp_port="70000"),
     "option fh_ftp_port " + WHERE + "not a port number (1-65535)"),
    ("port zero", dict(fh_ftp_port="0"), "option fh_ftp_port " + WHERE + "not a port number (1-65535)"),
    ("port with a letter", dict(fh_ftp_port="21a"), "option fh_ftp_port " + WHERE + "not a port number"),
    ("port empty", dict(fh_ftp_port=""), "option fh_ftp_port " + WHERE + "not a port number"),
    ("address with a blank", dict(fh_ftp_ip="ftp server"),
     "option fh_ftp_ip " + WHERE + "neither an IPv4 address nor a host name"),
    ("address octet above 255", dict(fh_ftp_ip="192.0.2.300"),
     "option fh_ftp_ip " + WHERE + "neither an IPv4 address nor a host name"),
    ("host name label ends with -", dict(fh_ftp_ip="ftp-.example.com"),
     "option fh_ftp_ip " + WHERE + "neither an IPv4 address nor a host name"),
    ("slash in a file name part", dict(fh_source_str="35/0100"),
     "option fh_source_str " + WHERE + "only letters, digits, \"_\" and \".\" are allowed"),
    ("dash in a file name part", dict(fh_dst_str="35-00"),
     "option fh_dst_str " + WHERE + "only letters, digits, \"_\" and \".\" are allowed"),
    ("file name part of 65", dict(fh_dst_str="9" * 65),
     "option fh_dst_str " + WHERE + "longer than 64 characters"),
    ("tab in the password", dict(fh_ftp_password="a\tb"),
     "option fh_ftp_password " + WHERE + "holds a control character"),
    ("escape in the name", dict(fh_netbar_name="a\x1b[2Jb"),
     "option fh_netbar_name " + WHERE + "holds a control character"),
    ("store in a spool directory", dict(fh_unsent_dir="/tmp/145/keep"),
     "option fh_unsent_dir " + WHERE + "must be outside /tmp/144, /tmp/145 and /tmp/146"),
    ("store not absolute", dict(fh_unsent_dir="etc/unsent"),
     "option fh_unsent_dir " + WHERE + "not an absolute path"),
    ("store above itself", dict(fh_unsent_dir="/etc/../tmp/146"),
     "option fh_unsent_dir " + WHERE + "must not hold \"..\""),
    ("store of 129", dict(fh_unsent_dir="/" + "u" * 128),
     "option fh_unsent_dir " + WHERE + "longer than 128 characters"),
]

# (name, option changes): rendered as given.
ACCEPTED = [
    ("all values", {}),
    ("durable store on flash", dict(fh_unsent_dir="/etc/qz_fh_audit/unsent")),
    ("empty store: the default behaviour", dict(fh_unsent_dir="")),
    ("empty value present", dict(fh_org_mail="")),
    ("host name", dict(fh_ftp_ip="ftp-1.audit.example.com")),
    ("highest port, longest file name part", dict(fh_ftp_port="65535", fh_source_str="A_." * 21 + "z")),
]


class InitScriptTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.sb = qz_sandbox.Sandbox(ftp=False)

    @classmethod
    def tearDownClass(cls):
        cls.sb.close()

    def setUp(self):
        self.work = tempfile.mkdtemp(dir=self.sb.private)
        self.addCleanup(shutil.rmtree, self.work)
        os.mkdir(os.path.join(self.work, "config"))
        for path in [CONF] + glob.glob(CONF + ".*") + ["/tmp/qz_pwned"]:
            if os.path.lexists(path):
                os.unlink(path)

    def write_uci(self, opts):
        with open(os.path.join(self.work, "config", "qz_fh_audit"), "w", encoding="utf-8") as f:
            f.write(uci_text(opts))

    def start(self, shell, path=None):
        return InitRun(shell, self.work, path=path)

    def read_conf(self):
        with open(CONF, "rb") as f:
            return f.read()

    def assert_started(self, run):
        self.assertEqual((run.status, run.logger), (0, []), run.stderr)
        self.assertEqual([line for line in run.procd if line.startswith("procd_") and
                          not line.startswith(("procd_open_service", "procd_close_service",
                                               "procd_add"))], INSTANCE)
        self.assertEqual([line for line in run.procd if line.startswith("procd_add")], TRIGGERS)

    def assert_refused(self, run, message):
        self.assertNotEqual(run.status, 0)
        self.assertEqual(run.logger, ["-t qz_fh_audit not started: " + message], run.stderr)
        self.assertEqual(run.instances(), [])

    def test_rendered(self):
        for shell in SHELLS:
            for name, changes in ACCEPTED:
                with self.subTest(shell=shell, case=name):
                    self.setUp()
                    self.write_uci(options(**changes))
                    run = self.start(shell)
                    self.assert_started(run)
                    with open(CONF, encoding="utf-8") as f:
                        doc = json.load(f)
                    self.assertEqual(doc, expected_json(**changes))
                    self.assertEqual(list(doc), list(expected_json(**changes)))
                    st = os.lstat(CONF)
                    self.assertTrue(stat.S_ISREG(st.st_mode))
                    self.assertEqual(stat.S_IMODE(st.st_mode), 0o600)
                    self.assertEqual(glob.glob(CONF + ".*"), [])
                    self.assertFalse(os.path.exists("/tmp/qz_pwned"))

    def test_refused(self):
        for shell in SHELLS:
            for name, changes, message in REFUSED:
                with self.subTest(shell=shell, case=name):
                    self.setUp()
                    with open(CONF, "wb") as f:
                        f.write(PREVIOUS)
                    self.write_uci(options(**changes))
                    run = self.start(shell)
                    self.assert_refused(run, message)
                    self.assertEqual(self.read_conf(), PREVIOUS)
                    self.assertEqual(glob.glob(CONF + ".*"), [])

    def test_unchanged_rendering_is_not_written(self):
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.setUp()
                self.write_uci(options())
                self.assert_started(self.start(shell))
                before = os.stat(CONF)
                self.assert_started(self.start(shell))
                after = os.stat(CONF)
                self.assertEqual((after.st_ino, after.st_mtime_ns), (before.st_ino, before.st_mtime_ns))
                # A changed value is a new file, put in place by a rename.
                self.write_uci(options(fh_ftp_port="2121"))
                self.assert_started(self.start(shell))
                self.assertNotEqual(os.stat(CONF).st_ino, before.st_ino)
                self.assertEqual(json.loads(self.read_conf())["fh_ftp_port"], "2121")

    def test_link_in_place_of_the_file_is_replaced_not_followed(self):
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.setUp()
                target = os.path.join(self.work, "elsewhere")
                with open(target, "wb") as f:
                    f.write(PREVIOUS)
                os.symlink(target, CONF)
                self.write_uci(options())
                self.assert_started(self.start(shell))
                self.assertFalse(os.path.islink(CONF))
                with open(target, "rb") as f:
                    self.assertEqual(f.read(), PREVIOUS)

    def test_hand_written_file_is_left_alone(self):
        hand = b'{ "hand": "written" }\n'
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.setUp()
                with open(CONF, "wb") as f:
                    f.write(hand)
                before = os.stat(CONF)
                # Values that would be refused are not even read.
                self.write_uci(options(use_uci="0", fh_ftp_port="x"))
                self.assert_started(self.start(shell))
                self.assertEqual(self.read_conf(), hand)
                self.assertEqual(os.stat(CONF).st_mtime_ns, before.st_mtime_ns)

    def test_missing_file(self):
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.setUp()
                self.write_uci(options(use_uci="0"))
                self.assert_refused(self.start(shell),
                                    "/etc/qz_fh_audit.json is missing (set option use_uci '1' "
                                    "to write it from /etc/config/qz_fh_audit)")

    def test_disabled(self):
        cases = [("enabled 0", options(enabled="0")),
                 ("enabled missing", options()[1:])]
        with open(SHIPPED_UCI, encoding="utf-8") as f:
            shipped = f.read()
        for shell in SHELLS:
            for name, opts in cases + [("as shipped", None)]:
                with self.subTest(shell=shell, case=name):
                    self.setUp()
                    if opts is None:
                        with open(os.path.join(self.work, "config", "qz_fh_audit"), "w",
                                  encoding="utf-8") as f:
                            f.write(shipped)
                    else:
                        self.write_uci(opts)
                    run = self.start(shell)
                    self.assertEqual(run.status, 0, run.stderr)
                    self.assertEqual(run.logger, ["-t qz_fh_audit not started: option enabled is 0 "
                                                  "in /etc/config/qz_fh_audit"])
                    self.assertEqual(run.instances(), [])
                    self.assertFalse(os.path.lexists(CONF))

    def test_no_wput(self):
        # Every command the script needs, but no wput.
        bin_dir = os.path.join(self.sb.private, "no-wput")
        os.makedirs(bin_dir, exist_ok=True)
        for tool in ("cat", "mktemp", "mv", "rm", "python3", "dirname", "basename", "logger",
                     "uci"):
            link = os.path.join(bin_dir, tool)
            if not os.path.lexists(link):
                os.symlink(os.path.join(STUBS, "bin", tool) if tool in ("logger", "uci")
                           else shutil.which(tool), link)
        for shell in SHELLS:
            with self.subTest(shell=shell):
                self.setUp()
                self.write_uci(options())
                run = self.start(shell, path=bin_dir)
                self.assert_refused(run, "wput is not on PATH (%s); it sends every upload" % bin_dir)
                self.assertFalse(os.path.lexists(CONF))


class UciDefaultsTest(unittest.TestCase):
    """The uci-defaults script, run after an install or upgrade: only a
    router that ran the daemon on its own JSON file before the UCI file
    existed is switched to enabled 1 and use_uci 0."""

    @classmethod
    def setUpClass(cls):
        cls.sb = qz_sandbox.Sandbox(ftp=False)

    @classmethod
    def tearDownClass(cls):
        cls.sb.close()

    def test_upgrade(self):
        with open(SHIPPED_UCI, encoding="utf-8") as f:
            shipped = f.read()
        with open(os.path.join(ROOT, "packaging", "qz_fh_audit.json.example"), "rb") as f:
            placeholder = f.read()
        in_service = json.dumps(expected_json()).encode()
        configured = uci_text(options())
        by_hand_off = uci_text(options(enabled="0", use_uci="0"))
        # (case, JSON file or None, UCI file, enabled and use_uci after).
        cases = [
            ("fresh install", placeholder, shipped, ("0", "1")),
            ("no JSON file", None, shipped, ("0", "1")),
            ("upgrade of a router in service", in_service, shipped, ("1", "0")),
            ("configured with UCI", in_service, configured, ("1", "1")),
            ("switched off by hand", in_service, by_hand_off, ("0", "0")),
        ]
        for shell in SHELLS:
            for name, conf, uci, after in cases:
                with self.subTest(shell=shell, case=name):
                    work = tempfile.mkdtemp(dir=self.sb.private)
                    self.addCleanup(shutil.rmtree, work)
                    os.mkdir(os.path.join(work, "config"))
                    with open(os.path.join(work, "config", "qz_fh_audit"), "w",
                              encoding="utf-8") as f:
                        f.write(uci)
                    if os.path.lexists(CONF):
                        os.unlink(CONF)
                    if conf is not None:
                        with open(CONF, "wb") as f:
                            f.write(conf)
                    e = env(work)
                    r = subprocess.run(SHELLS[shell] + [UCI_DEFAULTS], env=e,
                                       capture_output=True, timeout=60)
                    self.assertEqual(r.returncode, 0, r.stderr)
                    got = tuple(subprocess.run([os.path.join(STUBS, "bin", "uci"), "get",
                                                "qz_fh_audit.main." + o], env=e,
                                               capture_output=True, text=True).stdout.strip()
                                for o in ("enabled", "use_uci"))
                    self.assertEqual(got, after)
                    if conf is not None:
                        with open(CONF, "rb") as f:
                            self.assertEqual(f.read(), conf)
