"""Shared pieces of the end-to-end tests: a TestCase with a fresh sandbox
per test, and a reader for the daemon's log lines."""

import collections
import errno
import os
import re
import signal
import time
import unittest

import qz_sandbox
from qz_sandbox import CONFIG_PATH, wait_until

# "2024-3-5 7:4:1 main<84>: ERROR:" -- unpadded local time, function, line.
LOG_PREFIX = re.compile(
    r"(\d{4})-(\d{1,2})-(\d{1,2}) (\d{1,2}):(\d{1,2}):(\d{1,2}) (\w+)<(\d+)>: (DEBUG|WARN|ERROR):")

LogEntry = collections.namedtuple(
    "LogEntry", "stamp year month day hour minute second func line level message")


def log_entries(text):
    """Splits console or syslog text into log entries.

    A message need not end its line (some formats have no "\\n"), so an
    entry runs from its prefix to the next prefix, not to the newline.
    Text before the first prefix is returned as an entry with level None."""
    entries = []
    starts = list(LOG_PREFIX.finditer(text))
    if not starts or starts[0].start() > 0:
        end = starts[0].start() if starts else len(text)
        if end:
            entries.append(LogEntry(None, *([None] * 9), text[:end]))
    for i, m in enumerate(starts):
        end = starts[i + 1].start() if i + 1 < len(starts) else len(text)
        y, mo, d, h, mi, s, func, line, level = m.groups()
        stamp = m.group(0).split(" ", 2)
        entries.append(LogEntry("%s %s" % (stamp[0], stamp[1]), int(y), int(mo), int(d),
                                int(h), int(mi), int(s), func, int(line), level,
                                text[m.end():end]))
    return entries


def messages(text, level=None):
    """Messages of the log entries in text, optionally of one level."""
    return [e.message for e in log_entries(text)
            if e.level is not None and (level is None or e.level == level)]


class SandboxCase(unittest.TestCase):
    """Each test gets its own Sandbox, closed (and every process in it
    killed) when the test ends."""

    ftp = True

    def setUp(self):
        self.sb = qz_sandbox.Sandbox(ftp=self.ftp)
        self.addCleanup(self.sb.close)

    def wait_handlers(self, pid, timeout=5.0):
        """Waits until the daemon has installed its SIGUSR1/SIGUSR2 handlers:
        it holds the lock, has detached if it was going to, and a signal
        sent now can no longer kill it."""
        wait_until(lambda: {signal.SIGUSR1, signal.SIGUSR2} <= qz_sandbox.caught_signals(pid)
                   or not qz_sandbox.is_running(pid),
                   timeout, "signal handlers of %d" % pid)
        if not qz_sandbox.is_running(pid):
            ours = [d for d in self.sb.daemons if d.pid == pid]
            self.fail("daemon %d ended during start-up\n%s"
                      % (pid, ours[0].describe() if ours else ""))

    def detached_child(self, parent, timeout=5.0):
        """The one running copy of the daemon that is not parent."""
        binary = qz_sandbox.daemon_binary()
        pids = wait_until(lambda: [p for p in qz_sandbox.pids_of(binary) if p != parent],
                          timeout, "a detached daemon")
        self.assertEqual(len(pids), 1, "more than one detached daemon: %s" % pids)
        return pids[0]

    def start_with_config_fifo(self, args):
        """Starts the daemon with a FIFO as its configuration file, so that
        start-up waits in the configuration load with the signal handlers
        already installed.  Returns (Daemon, pid of the running copy)."""
        self.sb.remove_config()
        os.mkfifo(CONFIG_PATH)
        d = self.sb.start_daemon(args)
        if "-D" in args:
            pid = d.pid
        else:
            self.assertEqual(d.wait(5), 0)
            pid = self.detached_child(d.pid)
        self.wait_handlers(pid)
        return d, pid

    def feed_config_fifo(self, data, timeout=5.0):
        """Hands data to the daemon waiting on the configuration FIFO."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                fd = os.open(CONFIG_PATH, os.O_WRONLY | os.O_NONBLOCK)
                break
            except OSError as e:
                # ENXIO: nobody has the FIFO open for reading yet.
                if e.errno != errno.ENXIO or time.monotonic() > deadline:
                    raise
                time.sleep(0.01)
        try:
            os.set_blocking(fd, True)
            os.write(fd, data)
        finally:
            os.close(fd)
