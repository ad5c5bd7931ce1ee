"""A `wum` for end-to-end runs that gives each scheduler tick its own
listing and notes what the spool directories held when it ran.

The daemon runs `wum -c wtps` synchronously inside its tick, so what this
stand-in sees in /tmp/146 and /tmp/144 is the daemon's state at that point
of the tick, without racing it from the test.  Calls less than TICK_GAP
faked seconds apart belong to one tick: the scans of a tick follow each
other within seconds, while a tick's last scan and the next tick's first
are at least 300 s apart.

It can also hold the daemon at the first scan of a tick, just after that
tick's archive cycles, so that a test can change the world between two
cycles without racing the daemon's clock.

Also here for the tests that use it: the output checker run on one
received file, and a wait that gives up as soon as the daemon has died.
"""

import json
import os
import stat
import subprocess
import sys

import qz_sandbox
from qz_sandbox import wait_until

TICK_GAP = 240
LISTING_DIR = os.path.dirname(qz_sandbox.WUM_LISTING)

_SCRIPT = r"""#!/bin/sh
state='@STATE@'
if [ "$#" -eq 2 ] && [ "$1" = "-c" ] && [ "$2" = "wtps" ]; then
    now=$(date +%s)
    tick=0
    last=
    [ -f "$state/tick" ] && read -r tick last < "$state/tick"
    first=
    [ -z "$last" ] && first=1
    if [ -n "$last" ] && [ $((now - last)) -gt @GAP@ ]; then
        tick=$((tick + 1))
        first=1
    fi
    echo "$tick $now" > "$state/tick"
    spool() {
        if [ -d "$1" ]; then ls -A "$1" | tr '\n' '/'; else printf '?'; fi
    }
    printf '%s\t%s\t%s\t%s\n' "$tick" "$now" "$(spool /tmp/146)" "$(spool /tmp/144)" \
        >> "$state/calls"
    # Hold the daemon here, at the start of the tick's scans, until the
    # test lets it go on.
    if [ -n "$first" ] && [ -e "$state/pause.$tick" ]; then
        : > "$state/paused.$tick"
        while [ -e "$state/pause.$tick" ]; do sleep 1; done
    fi
    if [ -e '@LISTINGS@/wtps.'"$tick" ]; then
        QZ_WUM_LISTING='@LISTINGS@/wtps.'"$tick"
        export QZ_WUM_LISTING
    fi
fi
exec '@REAL@' "$@"
"""


class WumCall:
    """One run of `wum -c wtps`: its tick, faked time and the names in
    the two spool directories (None for a directory that was missing)."""

    def __init__(self, line):
        tick, when, s146, s144 = line.rstrip("\n").split("\t")
        self.tick, self.time = int(tick), int(when)
        self.spool = {146: self._names(s146), 144: self._names(s144)}

    @staticmethod
    def _names(text):
        if text == "?":
            return None
        return [n for n in text.split("/") if n]

    def __repr__(self):
        return "WumCall(tick=%d, time=%d, spool=%r)" % (self.tick, self.time, self.spool)


class TickWum:
    """Installs the stand-in in the sandbox's bin directory.

    listings[n] is the listing of tick n (a list of lines, [] for an empty
    listing); ticks after the last one keep using it."""

    def __init__(self, sb, listings):
        self.state = os.path.join(sb.private, "tick-wum")
        os.makedirs(self.state, exist_ok=True)
        for tick, lines in enumerate(listings):
            self._write(os.path.join(LISTING_DIR, "wtps.%d" % tick), lines)
        sb.set_wtps(listings[-1])
        script = (_SCRIPT.replace("@STATE@", self.state)
                  .replace("@GAP@", str(TICK_GAP))
                  .replace("@LISTINGS@", LISTING_DIR)
                  .replace("@REAL@", os.path.join(qz_sandbox.TOOLS_DIR, "wum")))
        path = os.path.join(sb.bin_dir, "wum")
        with open(path, "w") as f:
            f.write(script)
        os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH)

    @staticmethod
    def _write(path, lines):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write("".join(line + "\n" for line in lines))

    def _pause_file(self, tick, done=False):
        return os.path.join(self.state, "%s.%d" % ("paused" if done else "pause", tick))

    def pause_at(self, tick):
        """Makes the first scan of tick wait until resume(tick)."""
        open(self._pause_file(tick), "w").close()

    def wait_paused(self, daemon, tick, timeout):
        wait_running(daemon, lambda: os.path.exists(self._pause_file(tick, done=True)),
                     timeout, "the daemon to reach the scans of tick %d" % tick)

    def resume(self, tick):
        os.unlink(self._pause_file(tick))

    def calls(self):
        try:
            with open(os.path.join(self.state, "calls")) as f:
                text = f.read()
        except FileNotFoundError:
            return []
        # The last line may be one being written.
        return [WumCall(line) for line in text.split("\n")[:-1]]

    def ticks(self):
        """Calls grouped by tick: {tick: [calls in order]}."""
        out = {}
        for c in self.calls():
            out.setdefault(c.tick, []).append(c)
        return out


CHECKER = os.path.join(qz_sandbox.TOOLS_DIR, "qz_bcp_check")


def bcp_check(path, name=None, exact=True):
    """Runs the output checker on one received file; returns (status,
    JSON summary of the file, fault lines)."""
    cmd = [sys.executable, CHECKER, "--json", "--quiet"]
    if exact:
        cmd.append("--exact")
    cmd += ["--name", name] if name else ["--no-name-check"]
    cmd.append(path)
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=60)
    try:
        summary = json.loads(r.stdout)
    except ValueError:
        raise AssertionError("checker printed no JSON (status %d): %s%s"
                             % (r.returncode, r.stdout, r.stderr))
    return r.returncode, summary["archives"][0], summary["faults"]


def wait_running(daemon, predicate, timeout, what):
    """wait_until for a condition the daemon has to bring about: fails at
    once, with its output, when the daemon has ended."""
    def check():
        value = predicate()
        if not value and not daemon.running():
            raise AssertionError("daemon ended while waiting for %s\n%s"
                                 % (what, daemon.describe()))
        return value
    try:
        return wait_until(check, timeout, what)
    except AssertionError as e:
        if "timed out" in str(e):
            raise AssertionError("%s\n%s" % (e, daemon.describe())) from None
        raise
