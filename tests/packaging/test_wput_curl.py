"""The package's wput (packaging/openwrt/files/wput-curl), which sends
the uploads with curl: the smoke run of tests/e2e/test_smoke.py with it in
place of wput, then its command line as the daemon writes it, run by
busybox sh and dash against the sandbox's FTP server. Credentials full of
shell and URL metacharacters log in, nothing in them reaches a shell or a
command line, and a server that refuses, never answers or stalls gives a
failure within a bounded time."""

import os
import shlex
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import urllib.parse

import qz_sandbox
import test_smoke
from e2e_base import SandboxCase
from openwrt_stubs import FILES, SHELLS
from qz_ftp_sink import FtpSink

SHIM = os.path.join(FILES, "wput-curl")
PWNED = "/tmp/qz_pwned"
HOSTILE = ("p$(touch %s)`touch %s`;touch %s \"'\\&|<>*?#%%41@:/x é€ %%"
           % (PWNED, PWNED, PWNED))
# The shell that runs the script: OpenWrt's busybox ash, and dash.
SHEBANGS = {"busybox": "#!/usr/bin/busybox sh", "dash": "#!/usr/bin/dash"}
CURL = "/usr/bin/curl"
# Records the arguments of every curl run, one line each, then runs curl.
CURL_RECORDER = """#!/bin/sh
for a in "$@"; do printf '%%s\\t' "$a"; done >>'%s'
echo >>'%s'
exec %s "$@"
"""
# Every byte value, so that a text-mode transfer would show.
PAYLOAD = bytes(range(256)) * 64 + b"\r\n\n\r"


def url_credential(text):
    """The daemon's percent-encoding: everything but unreserved characters."""
    return urllib.parse.quote(text, safe="-._~")


def shell_word(text):
    """The daemon's escaping of a word for the shell."""
    plain = set("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._/:,+=@%")
    return "".join(c if c in plain else "\\" + c for c in text)


def daemon_command(local, user, password, host, port, remote):
    """The command line the daemon hands to the shell for an upload."""
    return 'wput -t 2 %s ftp://%s:"%s"@%s:%s/%s -B -q' % (
        shell_word(local), url_credential(user), url_credential(password),
        shell_word(host), shell_word(str(port)), shell_word(remote))


def install_shim(sb, shell):
    """Puts the script as `wput`, run by shell, and a recording curl first
    on the sandbox's PATH; returns the file that lists curl's runs."""
    log = os.path.join(sb.private, "curl-runs")
    open(log, "w").close()
    with open(SHIM, encoding="utf-8") as f:
        text = f.read()
    first, rest = text.split("\n", 1)
    assert first == "#!/bin/sh", first
    for name, content in (("wput", SHEBANGS[shell] + "\n" + rest),
                          ("curl", CURL_RECORDER % (log, log, CURL))):
        path = os.path.join(sb.bin_dir, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(content)
        os.chmod(path, 0o755)
    return log


def curl_runs(log):
    with open(log, encoding="utf-8", errors="replace") as f:
        return [line.split("\t")[:-1] for line in f.read().splitlines()]


def secrets(password):
    """Forms of the password that must never be on a command line."""
    return {password, url_credential(password)}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class WputCurlSmokeTest(test_smoke.SmokeTest):
    """The smoke run, every upload sent by the script under busybox sh,
    with a hostile password: the uploads equal the golden output."""

    def setUp(self):
        super().setUp()
        self.sb.ftp.stop()
        self.sb.ftp = FtpSink(tempfile.mkdtemp(dir=self.sb.private), password=HOSTILE).start()
        self.addCleanup(self.sb.ftp.stop)
        self.curl_log = install_shim(self.sb, "busybox")
        self.addCleanup(self.check_curl_runs)

    def check_curl_runs(self):
        self.assertFalse(os.path.lexists(PWNED), "the password reached a shell")
        runs = curl_runs(self.curl_log)
        # Two cycles: 2 + 2 + 3 uploads, each in one try.
        self.assertGreaterEqual(len(runs), sum(test_smoke.CYCLES.values()))
        for argv in runs:
            self.assertEqual(argv, ["-q", "--config", "-"])


class WputCurlTest(SandboxCase):
    """The script as the daemon runs it, under each shell."""

    def setUp(self):
        super().setUp()
        self.local = os.path.join(self.sb.work_dir, "145-upload.zip")
        with open(self.local, "wb") as f:
            f.write(PAYLOAD)

    def sink(self, user=None, password=None):
        """A new FTP server, in place of the sandbox's."""
        self.sb.ftp.stop()
        kw = {k: v for k, v in (("user", user), ("password", password)) if v is not None}
        self.sb.ftp = FtpSink(tempfile.mkdtemp(dir=self.sb.private), **kw).start()
        self.addCleanup(self.sb.ftp.stop)
        return self.sb.ftp

    def run_shell(self, shell, command, env=None, timeout=120, watch=()):
        """Runs command with shell -c, the script as wput first on PATH.
        Returns (status, stderr, seconds, curl runs). While it runs, no
        process may show a string of watch on its command line."""
        log = install_shim(self.sb, shell)
        e = {"PATH": self.sb.bin_dir + ":" + qz_sandbox.SYSTEM_PATH, "LC_ALL": "C"}
        e.update(env or {})
        seen = []
        stop = threading.Event()
        watcher = threading.Thread(target=self.watch_cmdlines, args=(watch, seen, stop))
        watcher.start()
        start = time.monotonic()
        try:
            r = subprocess.run(SHELLS[shell] + ["-c", command], env=e,
                               stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
        finally:
            stop.set()
            watcher.join()
        seconds = time.monotonic() - start
        for pid, cmdline in seen:
            self.fail("process %d shows a secret: %r" % (pid, cmdline))
        return r.returncode, r.stderr.decode(errors="replace"), seconds, curl_runs(log)

    @staticmethod
    def watch_cmdlines(watch, seen, stop):
        """Notes every process but the shells (the daemon's command line and
        the script's own arguments hold the password, as they did for
        wput) whose command line shows one of watch."""
        needles = [w.encode() for w in watch if w]
        shells = {os.path.realpath(SHELLS[s][0]) for s in SHELLS}
        while needles and not stop.is_set():
            for name in os.listdir("/proc"):
                if not name.isdigit():
                    continue
                try:
                    if os.path.realpath("/proc/%s/exe" % name) in shells:
                        continue
                    with open("/proc/%s/cmdline" % name, "rb") as f:
                        cmdline = f.read()
                except OSError:
                    continue
                if any(n in cmdline for n in needles):
                    seen.append((int(name), cmdline))
            stop.wait(0.005)

    def upload_command(self, user, password, port=None, remote="/tmp/145", local=None):
        return daemon_command(local or self.local, user, password, "127.0.0.1",
                              port or self.sb.ftp.port, remote)

    def test_credentials_log_in(self):
        cases = [
            ("qzaudit", HOSTILE),
            ("qz audit@x:y/$(id)", "pass"),
            ("用户", "пароль €"),
            ("qzaudit", " %41 blanks and a trailing backslash \\"),
            ("qzaudit", "'"),
        ]
        for shell in SHEBANGS:
            for user, password in cases:
                with self.subTest(shell=shell, user=user, password=password):
                    sink = self.sink(user, password)
                    status, err, _, runs = self.run_shell(
                        shell, self.upload_command(user, password), watch=secrets(password))
                    self.assertEqual((status, err), (0, ""))
                    self.assertEqual(sink.logins(), [user])
                    [up] = sink.uploads()
                    self.assertEqual((up.remote, up.read()), ("tmp/145", PAYLOAD))
                    self.assertEqual(runs, [["-q", "--config", "-"]])
                    self.assertFalse(os.path.lexists(PWNED), "the password reached a shell")

    def test_remote_paths(self):
        """The path names the file stored; a trailing slash names a
        directory; missing directories are made (as wput makes them)."""
        odd = os.path.join(self.sb.work_dir, "a \"quoted\" \\name$(x).zip")
        shutil.copy(self.local, odd)
        cases = [
            ("/tmp/145", None, "tmp/145"),       # as the daemon writes it: host:port//tmp/145
            ("tmp/146", None, "tmp/146"),
            ("/tmp/new/deeper/144", None, "tmp/new/deeper/144"),
            ("/tmp/", None, "tmp/145-upload.zip"),
            ("/tmp/odd", odd, "tmp/odd"),
        ]
        for shell in SHEBANGS:
            for remote, local, stored in cases:
                with self.subTest(shell=shell, remote=remote, local=local):
                    sink = self.sink()
                    status, err, _, _ = self.run_shell(
                        shell, self.upload_command(sink.user, sink.password, remote=remote,
                                                   local=local))
                    self.assertEqual((status, err), (0, ""))
                    self.assertEqual([(u.remote, u.read()) for u in sink.uploads()],
                                     [(stored, PAYLOAD)])

    def test_failures_are_bounded(self):
        """(case, extra environment, status, most seconds, curl runs)."""
        fast = {"WPUT_CURL_CONNECT_TIMEOUT": "2", "WPUT_CURL_MAX_TIME": "3",
                "WPUT_CURL_RETRY_WAIT": "1"}
        cases = [
            # Nothing listens: both tries fail at once, 5 s apart by default.
            ("refused", {}, 2, 15, 2),
            # The server accepts and never greets.
            ("silent", fast, 2, 12, 2),
            # The server takes the upload and stalls.
            ("stalled", fast, 2, 14, 2),
            ("wrong password", {}, 2, 10, 1),
            ("directory in the way", {}, 2, 10, 1),
            ("no local file", {}, 4, 5, 0),
            ("line break in the URL", {}, 4, 5, 0),
            ("unknown option", {}, 4, 5, 0),
            ("bad time-out", {"WPUT_CURL_MAX_TIME": "1;reboot"}, 4, 5, 0),
        ]
        for shell in SHEBANGS:
            for case, env, want, most, tries in cases:
                with self.subTest(shell=shell, case=case):
                    sink = self.sink()
                    command = self.upload_command(sink.user, sink.password)
                    if case == "refused":
                        command = self.upload_command(sink.user, sink.password, port=free_port())
                    elif case == "silent":
                        command = self.upload_command(sink.user, sink.password,
                                                      port=self.silent_server())
                    elif case == "stalled":
                        sink.set_delay(60)
                    elif case == "wrong password":
                        command = self.upload_command(sink.user, sink.password + "x")
                    elif case == "directory in the way":
                        os.makedirs(os.path.join(sink.home, "tmp", "145"))
                    elif case == "no local file":
                        command = self.upload_command(sink.user, sink.password,
                                                      local=self.local + ".gone")
                    elif case == "line break in the URL":
                        # Quoted: the daemon's escaping would make it a
                        # line continuation.
                        url = "ftp://%s:%s@127.0.0.1:%d//tmp/145\nupload-file = /etc/shadow" % (
                            sink.user, sink.password, sink.port)
                        command = "wput -t 2 %s %s -B -q" % (self.local, shlex.quote(url))
                    elif case == "unknown option":
                        command = command.replace(" -B ", " -A ")
                    status, err, seconds, runs = self.run_shell(
                        shell, command, env, watch=secrets(sink.password))
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
        srv.settimeout(0.1)
        held = []
        stop = threading.Event()

        def accept():
            while not stop.is_set():
                try:
                    held.append(srv.accept()[0])
                except socket.timeout:
                    continue

        t = threading.Thread(target=accept, daemon=True)
        t.start()

        def close():
            stop.set()
            t.join()
            for c in held:
                c.close()
            srv.close()
        self.addCleanup(close)
        return srv.getsockname()[1]
