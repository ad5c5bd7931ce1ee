"""The package on OpenWrt's own userland (tools/qz_openwrt.py): procd runs
its init script from /etc/rc.d, uci reads its configuration, jshn writes
the JSON file, validate_data checks the declared types, rpcd serves its
plugin under its ACL through ubus and uhttpd, logd keeps its log, and
busybox ash runs every script."""

import glob
import json
import os
import shlex
import stat
import time

from openwrt_case import (CONF, FILES, HOSTILE, KEYS, PWNED, UCI_FILE, VALUES, RouterCase,
                          expected_json, options, uci_text)
from qz_openwrt import MONITOR, PATH, ROOT

WHERE = " in /etc/config/qz_fh_audit: "
FILE_NAME_CHARS = WHERE + "only letters, digits, \"_\" and \".\" are allowed"
OUTSIDE = WHERE + "must be outside /tmp/144, /tmp/145 and /tmp/146"
CONTROL = WHERE + "holds a control character"
# A file the previous start left, which a refused start must not touch.
PREVIOUS = '{"written": "before"}\n'

# Fresh starts: (case, option changes (None: left out), set-up on the
# router, refusal after "not started: " or None for the file as
# configured, whether validate_data refuses the changed values too).
STARTS = [
    ("all values", {}, "", None, False),
    ("durable store on flash, made later by the daemon",
     dict(fh_unsent_dir="/etc/qz_fh_audit/unsent"), "", None, False),
    ("durable store of its own", dict(fh_unsent_dir="/etc/qz_store/"),
     "mkdir -m 0700 /etc/qz_store", None, False),
    ("empty values: options left out or '', which uci drops",
     dict(fh_org_mail=None, fh_ftp_port="", fh_source_str=None, fh_unsent_dir=""), "", None,
     False),
    ("what the daemon takes as port and server", dict(fh_ftp_port="ftp", fh_ftp_ip="ftp-.example.com"),
     "", None, False),
    ("longest file name part", dict(fh_source_str="A_." * 21 + "z"), "", None, False),
    ("a link at the file's name is replaced, not followed", {},
     "echo kept >/root/elsewhere && ln -s /root/elsewhere " + CONF, None, False),
    ("slash in a file name part", dict(fh_source_str="35/0100"), "",
     "option fh_source_str" + FILE_NAME_CHARS, True),
    ("dash in a file name part", dict(fh_dst_str="35-00"), "", "option fh_dst_str" + FILE_NAME_CHARS,
     True),
    ("file name part of 65", dict(fh_dst_str="9" * 65), "",
     "option fh_dst_str" + WHERE + "longer than 64 characters", True),
    ("tab in the password", dict(fh_ftp_password="a\tb"), "", "option fh_ftp_password" + CONTROL,
     False),
    ("escape in the name", dict(fh_netbar_name="a\x1b[2Jb"), "", "option fh_netbar_name" + CONTROL,
     False),
    ("store in a spool directory", dict(fh_unsent_dir="/tmp/145/keep"), "",
     "option fh_unsent_dir" + OUTSIDE, False),
    ("store spelled //tmp/", dict(fh_unsent_dir="//tmp/"), "", "option fh_unsent_dir" + OUTSIDE,
     False),
    ("store not absolute", dict(fh_unsent_dir="etc/unsent"), "",
     "option fh_unsent_dir" + WHERE + "not an absolute path", True),
    ("store above itself", dict(fh_unsent_dir="/etc/../tmp/146"), "",
     "option fh_unsent_dir" + WHERE + "must not hold \"..\"", True),
    ("store of 129", dict(fh_unsent_dir="/" + "u" * 128), "",
     "option fh_unsent_dir" + WHERE + "longer than 128 characters", True),
    # The daemon's checks of the store on disk, in its words.
    ("store is a file", dict(fh_unsent_dir="/etc/qz_store"), "touch /etc/qz_store",
     "fh_unsent_dir /etc/qz_store: not a directory, refused", False),
    ("store of another account", dict(fh_unsent_dir="/etc/qz_store"),
     "mkdir -m 0700 /etc/qz_store && chown 1000 /etc/qz_store",
     "fh_unsent_dir /etc/qz_store: owned by uid 1000, not by this daemon, refused", False),
    ("store open to all", dict(fh_unsent_dir="/etc/qz_store"), "mkdir -m 1755 /etc/qz_store",
     "fh_unsent_dir /etc/qz_store: mode 1755, not 0700, refused", False),
    ("store through a link into /tmp", dict(fh_unsent_dir="/etc/qz_store/145/x"),
     "ln -s /tmp /etc/qz_store",
     "fh_unsent_dir /etc/qz_store/145/x: leads to /tmp/145/x, inside /tmp, refused", False),
    ("store in /var, a link to /tmp", dict(fh_unsent_dir="/var"), "",
     "fh_unsent_dir /var: leads to /tmp, inside /tmp, refused", False),
    ("no wput", {}, "mv /usr/bin/wput /root/wput",
     "wput is not on PATH (%s); it sends every upload" % PATH, False),
    ("no file and use_uci 0", dict(use_uci="0"), "",
     CONF + " is missing (set option use_uci '1' to write it from /etc/config/qz_fh_audit)",
     False),
]


class ConfigTest(RouterCase):

    def setUp(self):
        self.router.sh("/etc/init.d/qz_fh_audit stop; rm -rf %s* /etc/qz_store /root/elsewhere; "
                       "[ -e /usr/bin/wput ] || mv /root/wput /usr/bin/wput" % CONF)

    def start(self, opts, setup=""):
        self.write(UCI_FILE, uci_text(opts))
        self.router.sh(setup or ":")
        mark = len(self.router.logread())
        status = self.router.sh("/etc/init.d/qz_fh_audit start", check=False).returncode
        return status, self.log_since(mark)

    def test_starts(self):
        for case, changes, setup, refusal, validation_refuses in STARTS:
            with self.subTest(case=case):
                self.setUp()
                previous = PREVIOUS if refusal and changes.get("use_uci") != "0" else None
                if previous:
                    self.write(CONF, previous)
                status, log = self.start(options(**changes), setup)
                # What procd holds from the start (stop deletes it).
                rules = self.router.ubus("service", "validate")["qz_fh_audit"]["qz_fh_audit"]
                verdicts = {self.router.sh("validate_data %s %s" % (shlex.quote(rules[k]),
                                                                     shlex.quote(v)),
                                           check=False).returncode != 0
                            for k, v in changes.items() if v and k in rules}
                self.assertEqual(any(verdicts), validation_refuses, "validate_data")
                if refusal:
                    self.assertEqual(log, ["daemon.err qz_fh_audit: not started: " + refusal])
                    self.assertEqual(self.router.service().get("instances"), None)
                    self.assertEqual(self.read_text(CONF), previous)
                    continue
                self.assertEqual((status, log), (0, []))
                self.router.wait(self.router.daemon_pid, "the daemon")
                self.assertEqual(self.read_json(), expected_json(**changes))
                st = os.lstat(self.router.path(CONF))
                self.assertEqual((stat.S_ISREG(st.st_mode), stat.S_IMODE(st.st_mode)), (True, 0o600))
                self.assertEqual(glob.glob(self.router.path(CONF) + ".*"), [])
                self.assertFalse(os.path.lexists(PWNED))

    def test_hand_written_file_is_left_alone(self):
        hand = json.dumps(expected_json(fh_netbar_name="by hand"), indent=1)
        self.write(CONF, hand)
        self.assertEqual(self.start(options(use_uci="0", fh_dst_str="35-00"))[0], 0)
        self.router.wait(self.router.daemon_pid, "the daemon")
        self.assertEqual(self.read_text(CONF), hand)

    def test_uci_defaults(self):
        """Only a router that ran the daemon on its own JSON file before the
        UCI file existed is switched to enabled 1 and use_uci 0."""
        with open(os.path.join(FILES, "qz_fh_audit.config"), encoding="utf-8") as f:
            shipped = f.read()
        with open(os.path.join(ROOT, "packaging", "qz_fh_audit.json.example")) as f:
            placeholder = f.read()
        in_service = '{"fh_ftp_password": "s3cret"}'
        # (case, JSON file or None, UCI file, enabled and use_uci after).
        cases = [
            ("fresh install", placeholder, shipped, "0 1"),
            ("no JSON file", None, shipped, "0 1"),
            ("upgrade of a router in service", in_service, shipped, "1 0"),
            ("configured with UCI", in_service, uci_text(options()), "1 1"),
            ("switched off by hand", in_service, uci_text(options("0", "0")), "0 0"),
        ]
        script = os.path.join(FILES, "qz_fh_audit.uci-defaults")
        for case, conf, uci, after in cases:
            with self.subTest(case=case):
                self.write(UCI_FILE, uci)
                self.router.sh("rm -f " + CONF)
                if conf is not None:
                    self.write(CONF, conf)
                self.router.sh("sh -s", input=open(script).read())
                self.assertEqual(self.router.sh("echo $(uci get qz_fh_audit.main.enabled) "
                                                "$(uci get qz_fh_audit.main.use_uci)").strip(), after)


class ServiceTest(RouterCase):
    """The service's life as procd leads it, changed LuCI's way."""

    def uci_commit(self, **values):
        if values:
            self.router.ubus("uci", "set", {"config": "qz_fh_audit", "section": "main",
                                            "values": values})
        self.router.ubus("uci", "commit", {"config": "qz_fh_audit"})

    def rc_list(self):
        return self.router.ubus("rc", "list")["qz_fh_audit"]

    def test_life(self):
        r = self.router
        # Booted as installed: enabled at boot, but '0' in UCI.
        self.assertEqual(self.rc_list(), {"start": 99, "enabled": True, "running": False})
        self.assertIn("not started: option enabled is 0", "\n".join(r.logread()))

        self.uci_commit(enabled="1")
        first = r.wait(r.daemon_pid, "the daemon")
        self.assertEqual((r.starts(), self.rc_list()["running"]), (1, True))
        inode = os.stat(r.path(CONF)).st_ino

        r.sh("kill -9 %d" % first)
        second = r.wait(lambda: (r.daemon_pid() or first) != first and r.daemon_pid(),
                        "the respawn")
        self.assertEqual(r.starts(), 2)

        self.uci_commit(fh_org_mail="audit@example.org")
        third = r.wait(lambda: (r.daemon_pid() or second) != second and r.daemon_pid(),
                       "the restart")
        self.assertEqual(self.read_json()["fh_org_mail"], "audit@example.org")
        time.sleep(3)
        self.assertEqual((r.starts(), r.daemon_pid()), (3, third))

        # A commit that changes nothing restarts nothing.
        inode = os.stat(r.path(CONF)).st_ino
        self.uci_commit()
        time.sleep(3)
        self.assertEqual((r.starts(), r.daemon_pid(), os.stat(r.path(CONF)).st_ino),
                         (3, third, inode))

        # A plain uci commit, then reload_config, as the README says.
        r.sh("uci set qz_fh_audit.main.fh_org_mail=ops@example.org && uci commit qz_fh_audit && "
             "reload_config")
        fourth = r.wait(lambda: (r.daemon_pid() or third) != third and r.daemon_pid(),
                        "the restart by reload_config")
        self.assertEqual((r.starts(), self.read_json()["fh_org_mail"]), (4, "ops@example.org"))

        # A refused change: the daemon runs on, on the last good file.
        good = self.read_json()
        mark = len(r.logread())
        self.uci_commit(fh_source_str="35/0100")
        why = "option fh_source_str" + FILE_NAME_CHARS
        r.wait(lambda: r.ubus("qz_fh_audit", "status").get("config_refused") == why, "the refusal")
        self.assertIn("daemon.err qz_fh_audit: kept running on the previous %s: %s" % (CONF, why),
                      "\n".join(self.log_since(mark)))
        self.assertEqual((r.starts(), r.daemon_pid(), self.read_json()), (4, fourth, good))
        # Mended back to the last good values: nothing to restart.
        self.uci_commit(fh_source_str=VALUES["fh_source_str"])
        r.wait(lambda: "config_refused" not in r.ubus("qz_fh_audit", "status"), "the mend")
        self.assertEqual((r.starts(), r.daemon_pid()), (4, fourth))

        r.reboot()
        r.wait(r.daemon_pid, "the daemon after a boot")
        self.assertEqual(self.rc_list(), {"start": 99, "enabled": True, "running": True})


class RpcdTest(RouterCase):
    """status and config through ubus and through uhttpd's /ubus, as LuCI
    and collectors call them, under the package's ACL."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        r = cls.router
        with open(r.path(UCI_FILE), "w", encoding="utf-8") as f:
            f.write(uci_text(options()))
        r.sh("/etc/init.d/qz_fh_audit start")
        cls.pid = r.wait(r.daemon_pid, "the daemon")
        r.wait(lambda: os.path.exists("/tmp/qz_fh_stats.json"), "the counters file")
        cls.session = r.login(*MONITOR[:2])

    def calls(self, method):
        """The method's answer through ubus, and through uhttpd."""
        return [self.router.ubus("qz_fh_audit", method),
                self.router.http_ubus(self.session, "qz_fh_audit", method)[1]]

    def test_status_is_the_counters_file(self):
        self.router.sh("kill -STOP %d" % self.pid)  # it rewrites the file every 5 s
        try:
            counters = self.read_json("/tmp/qz_fh_stats.json")
            answers = self.calls("status")
        finally:
            self.router.sh("kill -CONT %d" % self.pid)
        self.assertIn("groups", counters)
        for answer in answers:
            self.assertEqual(answer, dict(counters, running=True, pid=self.pid))

    def test_config_hides_the_password(self):
        conf = dict(self.read_json(), fh_ftp_password="***")
        for answer in self.calls("config"):
            self.assertEqual((list(answer), answer), (KEYS, conf))
        self.assertNotIn(HOSTILE, "\n".join(self.router.logread()))

    def test_acl(self):
        anonymous = "0" * 32
        # (session, object, method, allowed)
        cases = [(self.session, "qz_fh_audit", "status", True),
                 (anonymous, "qz_fh_audit", "status", False),
                 (anonymous, "qz_fh_audit", "config", False)]
        cases += [(self.session, obj, method, False) for obj, method in
                  [("uci", "get"), ("file", "read"), ("rc", "list"), ("service", "list"),
                   ("session", "list"), ("system", "board")]]
        for session, obj, method, allowed in cases:
            with self.subTest(session=session, call=(obj, method)):
                answer = self.router.http_ubus(session, obj, method, {"config": "rpcd"})
                self.assertEqual(isinstance(answer, list) and answer[0] == 0, allowed, answer)

    def test_links_are_not_followed(self):
        # /tmp is every user's: a link there must not make the plugin,
        # which rpcd runs as root, show another file.
        stats = "/tmp/qz_fh_stats.json"
        self.router.sh("kill -STOP %d; mv %s %s.real; ln -s /etc/config/rpcd %s"
                       % (self.pid, stats, stats, stats))
        try:
            answers = self.calls("status")
        finally:
            self.router.sh("rm %s; mv %s.real %s; kill -CONT %d" % (stats, stats, stats, self.pid))
        for answer in answers:
            self.assertEqual(answer, {"running": True, "pid": self.pid,
                                      "error": "no counters in " + stats})
