"""Shared pieces of the end-to-end tests."""

import json
import re
import signal
import subprocess
import sys
import unittest

import qz_sandbox
from qz_sandbox import wait_until

# Generous: waits end as soon as their condition holds, and on a loaded
# two-core machine (or under the sanitizers) a cycle may run late.
WAIT = 60
LONG_WAIT = 180
# "2024-3-5 7:4:1 main<84>: ERROR:" -- unpadded local time, function, line.
PREFIX = r"\d{4}(?:-\d{1,2}){2} \d{1,2}(?::\d{1,2}){2} \w+<\d+>: "
LOG_LINE = re.compile("(%s)(DEBUG|WARN|ERROR):" % PREFIX)
CHECKER = qz_sandbox.TOOLS_DIR + "/qz_bcp_check"


def messages(text, level=None):
    """Messages of the log lines in text, optionally of one level.  A
    message runs to the next prefix: not every one ends with a newline."""
    parts = LOG_LINE.split(text)[1:]
    return [parts[i + 2] for i in range(0, len(parts), 3) if level in (None, parts[i + 1])]


def wait_running(daemon, predicate, what, timeout=LONG_WAIT):
    """wait_until for something the daemon must bring about; fails at once,
    with its output, if it has ended."""
    def check():
        value = predicate()
        if not value and not daemon.running():
            raise AssertionError("daemon ended before %s\n%s" % (what, daemon.describe()))
        return value
    try:
        return wait_until(check, timeout, what)
    except AssertionError as e:
        raise AssertionError("%s\n%s" % (e, daemon.describe())) from None


def uploads(sink, remote):
    return [u for u in sink.uploads() if u.remote == remote]


def bcp_check(test, path, name=None):
    """Runs tools/qz_bcp_check --exact on a received file; returns its
    summary of that file."""
    cmd = [sys.executable, CHECKER, "--json", "--exact"]
    cmd += ["--name", name] if name else ["--no-name-check"]
    r = subprocess.run(cmd + [path], capture_output=True, text=True, timeout=WAIT)
    faults = json.loads(r.stdout)["faults"] if r.stdout else [r.stderr]
    test.assertEqual((r.returncode, faults), (0, []), name or path)
    return json.loads(r.stdout)["archives"][0]


class SandboxCase(unittest.TestCase):
    """Each test gets its own Sandbox, closed (every process in it killed)
    when the test ends."""

    def setUp(self):
        self.sb = qz_sandbox.Sandbox()
        self.addCleanup(self.sb.close)

    def wait_handlers(self, pid):
        """Waits until the daemon has installed its SIGUSR1/SIGUSR2 handlers,
        that is until it holds the lock and has detached if it was to."""
        wanted = {signal.SIGUSR1, signal.SIGUSR2}
        wait_until(lambda: wanted <= qz_sandbox.caught_signals(pid)
                   or not qz_sandbox.is_running(pid), WAIT, "signal handlers of %d" % pid)
        self.assertTrue(qz_sandbox.is_running(pid), "daemon %d ended during start-up" % pid)
