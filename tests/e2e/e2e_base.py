"""Shared pieces of the end-to-end tests."""

import re
import signal
import unittest

import qz_bcp
import qz_sandbox
from qz_sandbox import wait_until

# Generous: waits end as soon as their condition holds, and on a loaded
# two-core machine (or under the sanitizers) a cycle may run late.
WAIT = 60
LONG_WAIT = 180
# "2024-3-5 7:4:1 main<84>: ERROR:" -- unpadded local time, function, line.
PREFIX = r"\d{4}(?:-\d{1,2}){2} \d{1,2}(?::\d{1,2}){2} \w+<\d+>: "
LOG_LINE = re.compile("(%s)(DEBUG|WARN|ERROR):" % PREFIX)


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
    """Reads a received file as the daemon named it (its own name is not
    checked without one), checks it as qz_bcp_check --exact does and
    returns it (a qz_bcp.Upload)."""
    up = qz_bcp.read(path, name, check_name=bool(name), exact=True)
    test.assertEqual(up.faults, [], name or path)
    return up


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
