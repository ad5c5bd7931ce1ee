"""A `wum` for end-to-end runs that gives each scheduler tick its own
listing, notes what the spool directories held when it ran, and can hold
the daemon at a tick.

The daemon runs `wum -c wtps` inside its tick, so what this stand-in sees
in /tmp/146 and /tmp/144 is the daemon's state at that point of the tick,
without racing it.  Calls less than GAP faked seconds apart belong to one
tick: a tick's scans follow each other within seconds, ticks are 300 s
apart.  The first scan of a tick comes right after the terminal group's
archive and before the netbar group's; while it is held, events sent to
the daemon wait in its queue and are handled once the tick is over.
"""

import collections
import os

import qz_sandbox
from e2e_base import LONG_WAIT, wait_running

GAP = 240
LISTINGS = os.path.dirname(qz_sandbox.WUM_LISTING)

_SCRIPT = r"""#!/bin/sh
state='@STATE@'
if [ "$*" = "-c wtps" ]; then
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
    if [ -n "$first" ] && [ -e "$state/pause.$tick" ]; then
        : > "$state/paused.$tick"
        while [ -e "$state/pause.$tick" ]; do sleep 1; done
        # The hold is no gap between ticks.
        echo "$tick $(date +%s)" > "$state/tick"
    fi
    if [ -e '@LISTINGS@/wtps.'"$tick" ]; then
        QZ_WUM_LISTING='@LISTINGS@/wtps.'"$tick"
        export QZ_WUM_LISTING
    fi
fi
exec '@REAL@' "$@"
"""

# One run of `wum -c wtps`: its tick, faked time, and the names in /tmp/146
# and /tmp/144 (None for a missing directory).
Call = collections.namedtuple("Call", "tick time spool146 spool144")


def _names(text):
    return None if text == "?" else [n for n in text.split("/") if n]


class TickWum:
    """listings[n] is the listing of tick n, a list of lines; later ticks
    keep the last one."""

    def __init__(self, sb, listings):
        self.state = os.path.join(sb.private, "tick-wum")
        os.makedirs(self.state, exist_ok=True)
        os.makedirs(LISTINGS, exist_ok=True)
        for tick, lines in enumerate(listings):
            with open(os.path.join(LISTINGS, "wtps.%d" % tick), "w") as f:
                f.write("".join(line + "\n" for line in lines))
        sb.set_wtps(listings[-1])
        script = (_SCRIPT.replace("@STATE@", self.state).replace("@GAP@", str(GAP))
                  .replace("@LISTINGS@", LISTINGS)
                  .replace("@REAL@", os.path.join(qz_sandbox.TOOLS_DIR, "wum")))
        path = os.path.join(sb.bin_dir, "wum")
        with open(path, "w") as f:
            f.write(script)
        os.chmod(path, 0o755)

    def _file(self, name, tick):
        return os.path.join(self.state, "%s.%d" % (name, tick))

    def pause_at(self, tick):
        """Makes the first scan of tick wait until resume(tick)."""
        open(self._file("pause", tick), "w").close()

    def wait_paused(self, daemon, tick):
        wait_running(daemon, lambda: os.path.exists(self._file("paused", tick)),
                     "the daemon to reach tick %d" % tick)

    def resume(self, tick):
        os.unlink(self._file("pause", tick))

    def ticks(self):
        """Calls grouped by tick: {tick: [Call, ...]}."""
        try:
            with open(os.path.join(self.state, "calls")) as f:
                lines = f.read().split("\n")[:-1]  # the last may be half written
        except FileNotFoundError:
            lines = []
        out = {}
        for line in lines:
            tick, when, s146, s144 = line.split("\t")
            out.setdefault(int(tick), []).append(
                Call(int(tick), int(when), _names(s146), _names(s144)))
        return out

    def wait_tick(self, daemon, tick, timeout=LONG_WAIT):
        wait_running(daemon, lambda: tick in self.ticks(), "the scans of tick %d" % tick,
                     timeout)
