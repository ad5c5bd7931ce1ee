"""A short run of every group that any build of the daemon must pass, the
cross builds under qemu-user too (scripts/cross-test.sh): a terminal comes
online, makes an HTTP request and goes offline, and two archive cycles
upload the netbar, terminal and status files.  Every upload passes the
checker, and everything uploaded, times taken out, equals
golden/smoke.txt, which the x86-64 build wrote."""

import os
import re

import qz_bcp
import qz_router_sim as sim
import qz_sandbox
from e2e_base import LONG_WAIT, SandboxCase, bcp_check, messages, uploads, wait_running

GOLDEN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "golden", "smoke.txt")
AP1, AP2 = "00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:6f"
TERMINAL = "aa:bb:cc:dd:ee:ff"
# Seconds since the epoch, late 2023 to 2030: the run's faked times.
TIME = re.compile(rb"(?<!\d)1[78]\d{8}(?!\d)")
# Uploads of two cycles, in this order: the status report runs at every
# tick, the groups' first archives have files from the second tick on.
CYCLES = {"tmp/145": 2, "tmp/146": 2, "tmp/144": 3}
# A `wum` that holds its first run, the first tick's scan, while the hold
# file exists.  It needs no clock: under qemu-user the daemon's commands
# run on the real one.
HOLDING_WUM = """#!/bin/sh
if mkdir '{state}/first' 2>/dev/null; then
    : > '{state}/held'
    while [ -e '{state}/hold' ]; do sleep 0.05; done
fi
exec '{real}' "$@"
"""


def untimed(data):
    return TIME.sub(b"<time>", data)


def describe(name, up):
    """The upload (a qz_bcp.Upload) as text lines: its name, then each
    member of a zip (in name order, the order of equal times being the file
    system's) with its lines.  The index is left to the checker, which
    rebuilds it byte for byte from the column tables."""
    out = [b"== " + untimed(name.encode())]
    for member, content in sorted((untimed(m.encode()), d) for m, d in up.stored.items()):
        if up.kind == "zip":
            out.append(b"-- " + member)
        if member != b"GAB_ZIP_INDEX.xml":
            out += [untimed(line) for line in content.split(b"\n")]
    return out


class SmokeTest(SandboxCase):

    def test_one_terminal_two_cycles(self):
        self.sb.write_config()
        sim.write_wifi_info(TERMINAL, AP1, "-45")
        self.sb.set_wtps(["1 %s online AP-Lobby" % AP1, "2 %s online AP-Terrace" % AP2])
        # Events sent while the first tick is held are handled when it is
        # over: all three land in the second cycle, however slow the start.
        state = os.path.join(self.sb.private, "wum")
        os.makedirs(state)
        open(os.path.join(state, "hold"), "w").close()
        wum = os.path.join(self.sb.bin_dir, "wum")
        with open(wum, "w") as f:
            f.write(HOLDING_WUM.format(state=state,
                                       real=os.path.join(qz_sandbox.TOOLS_DIR, "wum")))
        os.chmod(wum, 0o755)
        kernel = sim.FakeKernel(block=True, block_timeout=LONG_WAIT)
        self.addCleanup(kernel.close)
        stub = os.path.join(os.path.dirname(qz_sandbox.daemon_binary()), "tools",
                            "libqz_nlstub.so")
        d = self.sb.start_daemon(["-D"], preload=(stub,))
        kernel.wait_registration(LONG_WAIT, expected_pid=d.pid)
        d.wait_for(r"init shell fd success!", timeout=LONG_WAIT)
        wait_running(d, lambda: os.path.exists(os.path.join(state, "held")), "the first tick")
        with sim.ShellSender(block_timeout=LONG_WAIT) as shell:
            shell.online(TERMINAL, "192.168.1.10", 1)
            kernel.send_http(TERMINAL, "192.168.1.10", "10.0.0.1", 51000, 80)
            shell.offline(TERMINAL)
        os.unlink(os.path.join(state, "hold"))

        # An upload reaches the server before the daemon logs its name.
        wait_running(d, lambda: all(len(uploads(self.sb.ftp, remote)) >= n and
                                    len(qz_bcp.logged_names(d.stdout_text(), remote)) >= n
                                    for remote, n in CYCLES.items()), "two cycles")
        d.stop()

        lines = []
        for remote, n in CYCLES.items():
            names = qz_bcp.logged_names(d.stdout_text(), remote)
            for name, up in zip(names, uploads(self.sb.ftp, remote)[:n]):
                lines += describe(name, bcp_check(self, up.path, name))
        text = b"\n".join(lines) + b"\n"
        if os.environ.get("QZ_SMOKE_OUT"):
            with open(os.environ["QZ_SMOKE_OUT"], "wb") as f:
                f.write(text)
        with open(GOLDEN, "rb") as f:
            golden = f.read()
        self.assertEqual(text.decode(errors="replace").splitlines(),
                         golden.decode(errors="replace").splitlines())
        self.assertEqual(text, golden)
        self.assertEqual(messages(d.stderr_text()), [], d.describe())
