"""What the package's tests (tests/packaging) take from the end-to-end
fixture: a test case with a sandbox of its own, and waits."""

import unittest

import qz_sandbox
from scenario import LONG_WAIT, WAIT  # noqa: F401


def wait_running(daemon, predicate, what, timeout=LONG_WAIT):
    """wait_until for something the daemon brings about; fails at once,
    with its output, when it has ended."""
    def check():
        value = predicate()
        assert value or daemon.running(), "daemon ended before %s\n%s" % (what, daemon.describe())
        return value
    return qz_sandbox.wait_until(check, timeout, what)


class SandboxCase(unittest.TestCase):

    def setUp(self):
        self.sb = qz_sandbox.Sandbox()
        self.addCleanup(self.sb.close)
