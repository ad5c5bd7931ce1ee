"""The package's wput (packaging/openwrt/files/wput-curl), which sends the
uploads with curl, run by busybox ash against the sandbox's FTP server
with the arguments the daemon gives it (its smoke run through procd is
test_openwrt_smoke). Credentials full of shell and URL metacharacters log
in, nothing in them reaches a shell or curl's command line, and a server
that refuses, never answers or stalls gives a failure within a bounded
time."""

import os
import shutil
import socket
import subprocess
import tempfile
import threading
import time
from urllib.parse import quote

import qz_sandbox
from e2e_base import SandboxCase
from openwrt_case import FILES, HOSTILE, PWNED
from qz_ftp_sink import FtpSink

WPUT = ["/usr/bin/busybox", "sh", os.path.join(FILES, "wput-curl")]
# Records the arguments of every curl run, one line each, then runs curl.
CURL_RECORDER = """#!/bin/sh
for a in "$@"; do printf '%%s\\t' "$a"; done >>'%s'
echo >>'%s'
exec /usr/bin/curl "$@"
"""
# Every byte value, so that a text-mode transfer would show.
PAYLOAD = bytes(range(256)) * 64 + b"\r\n\n\r"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class WputCurlTest(SandboxCase):

    def setUp(self):
        super().setUp()
        self.local = os.path.join(self.sb.work_dir, "145-upload.zip")
        with open(self.local, "wb") as f:
            f.write(PAYLOAD)
        self.curl_log = os.path.join(self.sb.private, "curl-runs")
        with open(os.path.join(self.sb.bin_dir, "curl"), "w") as f:
            f.write(CURL_RECORDER % (self.curl_log, self.curl_log))
        os.chmod(os.path.join(self.sb.bin_dir, "curl"), 0o755)

    def sink(self, user="qzaudit", password="qz-pass-1"):
        """A new FTP server, in place of the sandbox's."""
        self.sb.ftp.stop()
        self.sb.ftp = FtpSink(tempfile.mkdtemp(dir=self.sb.private), user, password).start()
        self.addCleanup(self.sb.ftp.stop)
        return self.sb.ftp

    def url(self, user, password, port=None, remote="/tmp/145"):
        """The URL as the daemon writes it: credentials percent-encoded."""
        return "ftp://%s:%s@127.0.0.1:%d/%s" % (quote(user, safe=""), quote(password, safe=""),
                                                port or self.sb.ftp.port, remote)

    def wput(self, *args, env=None, secrets=()):
        """Runs wput with args; returns (status, stderr, seconds, curl runs).
        While it runs no process but the shell may show one of secrets."""
        open(self.curl_log, "w").close()
        e = {"PATH": self.sb.bin_dir + ":" + qz_sandbox.SYSTEM_PATH, "LC_ALL": "C"}
        e.update(env or {})
        seen, stop = [], threading.Event()
        watcher = threading.Thread(target=self.watch, args=(secrets, seen, stop))
        watcher.start()
        start = time.monotonic()
        try:
            r = subprocess.run(WPUT + ["-t", "2"] + list(args) + ["-B", "-q"], env=e,
                               stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
        finally:
            stop.set()
            watcher.join()
        self.assertEqual(seen, [], "a command line shows a secret")
        with open(self.curl_log) as f:
            runs = [line.split("\t")[:-1] for line in f.read().splitlines()]
        return r.returncode, r.stderr.decode(errors="replace"), time.monotonic() - start, runs

    @staticmethod
    def watch(secrets, seen, stop):
        needles = [s.encode() for s in secrets]
        while needles and not stop.is_set():
            for name in filter(str.isdigit, os.listdir("/proc")):
                try:
                    if os.path.realpath("/proc/%s/exe" % name) == "/usr/bin/busybox":
                        continue  # the script's own arguments, as the daemon gave them
                    with open("/proc/%s/cmdline" % name, "rb") as f:
                        cmdline = f.read()
                except OSError:
                    continue
                if any(n in cmdline for n in needles):
                    seen.append(cmdline)
            stop.wait(0.005)

    def test_credentials_log_in(self):
        for user, password in [("qzaudit", HOSTILE), ("qz audit@x:y/$(id)", "pass"),
                               ("用户", "пароль €"), ("qzaudit", " %41 blanks, a backslash \\"),
                               ("qzaudit", "'")]:
            with self.subTest(user=user, password=password):
                sink = self.sink(user, password)
                status, err, _, runs = self.wput(self.local, self.url(user, password),
                                                 secrets=(password, quote(password, safe="")))
                self.assertEqual((status, err, runs), (0, "", [["-q", "--config", "-"]]))
                self.assertEqual(sink.logins(), [user])
                self.assertEqual([(u.remote, u.read()) for u in sink.uploads()],
                                 [("tmp/145", PAYLOAD)])
                self.assertFalse(os.path.lexists(PWNED), "the password reached a shell")

    def test_remote_paths(self):
        """The path names the file stored; a trailing slash names a
        directory; missing directories are made (as wput makes them)."""
        odd = os.path.join(self.sb.work_dir, "a \"quoted\" \\name$(x).zip")
        shutil.copy(self.local, odd)
        for remote, local, stored in [("/tmp/145", self.local, "tmp/145"),  # host:port//tmp/145
                                      ("tmp/146", self.local, "tmp/146"),
                                      ("/tmp/new/deeper/144", self.local, "tmp/new/deeper/144"),
                                      ("/tmp/", self.local, "tmp/145-upload.zip"),
                                      ("/tmp/odd", odd, "tmp/odd")]:
            with self.subTest(remote=remote, local=local):
                sink = self.sink()
                status, err, _, _ = self.wput(local, self.url(sink.user, sink.password,
                                                              remote=remote))
                self.assertEqual((status, err), (0, ""))
                self.assertEqual([(u.remote, u.read()) for u in sink.uploads()], [(stored, PAYLOAD)])

    def test_failures_are_bounded(self):
        fast = {"WPUT_CURL_CONNECT_TIMEOUT": "2", "WPUT_CURL_MAX_TIME": "3",
                "WPUT_CURL_RETRY_WAIT": "1"}
        # (case, extra environment, status, most seconds, curl runs)
        cases = [
            ("refused", {}, 2, 15, 2),  # both tries fail at once, 5 s apart by default
            ("silent", fast, 2, 12, 2),  # the server accepts and never greets
            ("stalled", fast, 2, 14, 2),  # it takes the upload and stalls
            ("wrong password", {}, 2, 10, 1),
            ("directory in the way", {}, 2, 10, 1),
            ("no local file", {}, 4, 5, 0),
            ("line break in the URL", {}, 4, 5, 0),
            ("unknown option", {}, 4, 5, 0),
            ("bad time-out", {"WPUT_CURL_MAX_TIME": "1;reboot"}, 4, 5, 0),
        ]
        for case, env, want, most, tries in cases:
            with self.subTest(case=case):
                sink = self.sink()
                args = [self.local, self.url(sink.user, sink.password)]
                if case == "refused":
                    args[1] = self.url(sink.user, sink.password, port=free_port())
                elif case == "silent":
                    args[1] = self.url(sink.user, sink.password, port=self.silent_server())
                elif case == "stalled":
                    sink.set_delay(60)
                elif case == "wrong password":
                    args[1] = self.url(sink.user, sink.password + "x")
                elif case == "directory in the way":
                    os.makedirs(os.path.join(sink.home, "tmp", "145"))
                elif case == "no local file":
                    args[0] += ".gone"
                elif case == "line break in the URL":
                    args[1] += "\nupload-file = /etc/shadow"
                elif case == "unknown option":
                    args.append("-A")
                status, err, seconds, runs = self.wput(*args, env=env, secrets=(sink.password,))
                self.assertEqual(status, want, err)
                self.assertLess(seconds, most)
                self.assertEqual(len(runs), tries)
                self.assertEqual(sink.uploads(), [])
                if want == 4:
                    self.assertRegex(err, r"^wput: .*\nusage: wput ")
                else:
                    self.assertEqual(err, "", "-q: nothing on stderr")

    def silent_server(self):
        """A port that accepts connections and never says a word."""
        srv = socket.socket()
        srv.bind(("127.0.0.1", 0))
        srv.listen(8)
        self.addCleanup(srv.close)
        return srv.getsockname()[1]
