#!/usr/bin/python3
"""Runs qz_fh_audit through a few archive cycles in a simulated router and
shows what it uploaded.

The daemon runs in the foreground (-D) on a faked clock that starts at
2024-03-05 07:04:01 UTC and runs --accel times as fast as the real one (at
x60 a 300-s cycle takes five real seconds), in private namespaces with a
sample configuration.  Around it the demo plays the router: the stand-in
`wum` lists access points that come and go between cycles, status files
under /tmp/qztmp say which access point serves each terminal, datagrams
tell the daemon that terminals come online and go offline, the kernel side
of the netlink stand-in (libqz_nlstub.so, preloaded) sends HTTP events, and
a local FTP server catches every upload.

The console shows what the router does and, of the daemon's log, only the
archives, status files, warnings and errors; the whole log goes to --out.
At the end every upload is listed with its datasets, one line of each
dataset and the verdict of tools/qz_bcp_check --exact.

    /usr/bin/python3 tools/qz_demo.py --bin build-demo/qz_fh_audit

Needs root (namespaces) and Debian's python3 with pyftpdlib.
"""

import argparse
import os
import shutil
import sys
import time

TOOLS_DIR = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, TOOLS_DIR)

import qz_bcp  # noqa: E402
import qz_router_sim as sim  # noqa: E402
import qz_sandbox  # noqa: E402

# Access points by name, and which of them `wum -c wtps` lists in each cycle.
APS = {"AP-Lobby": "00:1a:2b:3c:4d:5e", "AP-Terrace": "00:1a:2b:3c:4d:6f",
       "AP-Garden": "00:1a:2b:3c:4d:80"}
AP_PLAN = [("AP-Lobby", "AP-Terrace"),
           ("AP-Lobby", "AP-Terrace", "AP-Garden"),
           ("AP-Lobby", "AP-Garden"),
           ("AP-Lobby", "AP-Garden")]

# Terminals: MAC, address, and how they log in (authentication type, and
# the account for type 4).
TERMINALS = {
    "phone-1": ("3c:22:fb:10:00:01", "192.168.10.21", 1, None),
    "phone-2": ("3c:22:fb:10:00:02", "192.168.10.22", 4, "13800138000"),
    "laptop-3": ("3c:22:fb:10:00:03", "192.168.10.23", 99, None),
    "tablet-4": ("3c:22:fb:10:00:04", "192.168.10.24", 3, None),
    "phone-5": ("3c:22:fb:10:00:05", "192.168.10.25", 2, None),   # type not mapped
    "phone-6": ("3c:22:fb:10:00:06", "192.168.10.26", 1, None),   # no status file
    "phone-7": ("3c:22:fb:10:00:07", "192.168.10.27", 1, None),
    "laptop-8": ("3c:22:fb:10:00:08", "192.168.10.28", 4, "alice@example.com"),
}

# What happens in each cycle: status files written (terminal, access point,
# signal strength), terminals coming online and going offline, and HTTP
# events (terminal, how many).
CYCLE_PLAN = [
    {"status": [("phone-1", "AP-Lobby", "-48"), ("phone-2", "AP-Terrace", "-61"),
                ("laptop-3", "AP-Lobby", "-55"), ("tablet-4", "AP-Terrace", "-70"),
                ("phone-5", "AP-Lobby", "-52")],
     "online": ["phone-1", "phone-2", "laptop-3", "tablet-4", "phone-5", "phone-6"],
     "http": [("phone-1", 3), ("phone-2", 2), ("laptop-3", 4), ("tablet-4", 1),
              ("phone-6", 1)]},
    {"status": [("phone-7", "AP-Garden", "-44"), ("laptop-8", "AP-Garden", "-58"),
                ("laptop-3", "AP-Garden", "-50")],
     "online": ["phone-7", "laptop-8"],
     "offline": ["phone-1"],
     "http": [("phone-2", 2), ("laptop-3", 3), ("tablet-4", 2), ("phone-7", 2),
              ("laptop-8", 3)]},
    {"offline": ["phone-2", "tablet-4"],
     "http": [("laptop-3", 2), ("phone-7", 3), ("laptop-8", 1)]},
    {"offline": ["laptop-3", "phone-7"],
     "http": [("laptop-8", 2)]},
]
# Authentication types the daemon knows; others drop the online message.
MAPPED_AUTH_TYPES = {1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14, 99, 100}
DESTINATIONS = [("203.0.113.10", 80), ("198.51.100.7", 8080), ("203.0.113.99", 80)]


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--bin", required=True, help="the qz_fh_audit binary")
    ap.add_argument("--cycles", type=int, default=4, help="archive cycles to run (4)")
    ap.add_argument("--accel", type=int, default=60, help="speed of the faked clock (60)")
    ap.add_argument("--verbose", action="store_true", help="show the daemon's whole console")
    ap.add_argument("--out", help="where to copy uploads and logs "
                                  "(default: demo-output beside the binary)")
    args = ap.parse_args()
    args.bin = os.path.realpath(args.bin)
    if not os.access(args.bin, os.X_OK):
        ap.error("no executable at %s" % args.bin)
    args.stub = os.path.join(os.path.dirname(args.bin), "tools", "libqz_nlstub.so")
    if not os.path.isfile(args.stub):
        ap.error("no netlink stand-in at %s (build the qz_nlstub target)" % args.stub)
    if args.cycles < 1 or args.accel < 1:
        ap.error("--cycles and --accel must be at least 1")
    args.out = os.path.realpath(args.out or os.path.join(os.path.dirname(args.bin),
                                                         "demo-output"))
    # The sandbox keeps the checkout and the binary's directory reachable;
    # anything else under /tmp it replaces.
    kept = [os.path.dirname(TOOLS_DIR), os.path.dirname(args.bin)]
    for path in (args.bin, args.out):
        if ((path == "/tmp" or path.startswith("/tmp/"))
                and not any(path == k or path.startswith(k + "/") for k in kept)):
            ap.error("%s is under /tmp, which the sandbox replaces" % path)
    return args


def say(text=""):
    print(text, flush=True)


class Console:
    """Follows the daemon's output and the FTP server: prints the lines
    worth seeing and pairs each upload with the name the daemon gave it."""

    def __init__(self, sb, d, verbose):
        self.sb, self.d, self.verbose = sb, d, verbose
        self.offsets = {"stdout": 0, "stderr": 0}
        self.names = {remote: [] for remote, _ in qz_sandbox.UPLOADERS.values()}
        self.uploads_seen = 0
        self.ticks = 0

    def pump(self):
        for stream, offset in self.offsets.items():
            text = self.d.text(stream)
            # Only whole lines: a message may still be on its way.
            end = text.rfind("\n") + 1
            if end > offset:
                chunk = text[offset:end]
                self.offsets[stream] = end
                if self.verbose:
                    sys.stdout.write(chunk)
                self._scan(chunk)
        ups = self.sb.ftp.uploads()
        for u in ups[self.uploads_seen:]:
            say("  [ftp]     received %-8s %6d bytes" % (u.remote, u.size))
        self.uploads_seen = len(ups)

    def _scan(self, chunk):
        for stamp, func, _, level, msg in qz_sandbox.log_entries(chunk):
            msg = msg.split("\n", 1)[0]
            remote, head = qz_sandbox.UPLOADERS.get(func, (None, None))
            if remote and msg.startswith(head):
                self.names[remote].append(msg[len(head):])
                if func == "bjson_report_timer":
                    self.ticks += 1
                if not self.verbose:
                    what = "status file" if func == "bjson_report_timer" else "archive"
                    say("  [daemon]  %s %s %s" % (stamp.split(" ")[1], what, msg[len(head):]))
            elif level != "DEBUG" and not self.verbose:
                say("  [daemon]  %s %s: %s" % (stamp.split(" ")[1], level, msg))
            elif msg.startswith("can not find access mac:") and not self.verbose:
                say("  [daemon]  %s no status file for %s: HTTP event not recorded"
                    % (stamp.split(" ")[1], msg.split(":", 1)[1]))

    def wait_ticks(self, count, timeout):
        deadline = time.monotonic() + timeout
        while self.ticks < count:
            if time.monotonic() > deadline or not self.d.running():
                return False
            time.sleep(0.05)
            self.pump()
        return True

    def sleep(self, seconds):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            time.sleep(min(0.05, max(0.0, deadline - time.monotonic())))
            self.pump()


class Router:
    """The router around the daemon: access-point listing, status files,
    the online/offline sender and the kernel side of netlink."""

    def __init__(self, sb, kernel):
        self.sb, self.kernel = sb, kernel
        self.shell = sim.ShellSender(block_timeout=10)
        self.online = set()
        self.dest = 0

    def list_aps(self, names):
        self.sb.set_wtps(["%d %s online %s" % (i + 1, APS[n], n) for i, n in enumerate(names)])
        say("  [router]  wum -c wtps lists %s" % ", ".join("%s %s" % (n, APS[n]) for n in names))

    def status(self, terminal, ap, strength):
        mac, ip, _, _ = TERMINALS[terminal]
        sim.write_wifi_info(mac, APS[ap], strength, ip=ip)
        say("  [router]  status file of %-8s %s: %s, signal %s" % (terminal, mac, ap, strength))

    def go_online(self, terminal):
        mac, ip, auth, account = TERMINALS[terminal]
        self.shell.online(mac, ip, auth, "0" if account else None, account)
        note = ", account %s" % account if account else ""
        if auth not in MAPPED_AUTH_TYPES:
            note += " (a type the daemon does not map: dropped)"
        elif not os.path.exists(sim.status_path(mac)):
            note += " (no status file: dropped)"
        else:
            self.online.add(terminal)
        say("  [router]  online  %-8s %s %s, auth type %d%s" % (terminal, mac, ip, auth, note))

    def go_offline(self, terminal):
        mac = TERMINALS[terminal][0]
        self.shell.offline(mac)
        self.online.discard(terminal)
        say("  [router]  offline %-8s %s" % (terminal, mac))

    def http(self, plan, console):
        say("  [kernel]  HTTP events: %s" % ", ".join("%s x%d" % p for p in plan))
        for terminal, count in plan:
            mac, ip, _, _ = TERMINALS[terminal]
            for _ in range(count):
                dst, port = DESTINATIONS[self.dest % len(DESTINATIONS)]
                self.dest += 1
                self.kernel.send_http(mac, ip, dst, 40000 + self.dest, port)
                console.sleep(0.02)

    def close(self):
        self.shell.close()


# -- the summary ---------------------------------------------------------------

def sample(record):
    """A record as COLUMN=value pairs, leaving out empty columns."""
    pairs = ["%s=%s" % (c, v) for c, v in record.items() if v != ""]
    rows, row = [], "      "
    for p in pairs:
        if len(row) + len(p) > 100 and row.strip():
            rows.append(row)
            row = "      "
        row += p + "  "
    rows.append(row)
    return [r.rstrip() for r in rows]


def summarize(console, out):
    ups = console.sb.ftp.uploads()
    counters = {remote: 0 for remote in console.names}
    say("== Uploads received by the FTP server: %d" % len(ups))
    uploads_dir = os.path.join(out, "uploads")
    shutil.rmtree(uploads_dir, ignore_errors=True)
    os.makedirs(uploads_dir)
    failures = 0
    samples = {}
    for u in ups:
        names = console.names.get(u.remote, [])
        i = counters.get(u.remote, 0)
        counters[u.remote] = i + 1
        name = names[i] if i < len(names) else None
        if name is None:
            say("  #%-2d %s: %d bytes, no name for it in the daemon's log" % (u.seq, u.remote,
                                                                             u.size))
            failures += 1
            continue
        shutil.copy(u.path, os.path.join(uploads_dir, name))
        up = qz_bcp.read(u.path, name, exact=True)
        failures += bool(up.faults)
        say("  #%-2d %-8s %s  %d bytes  qz_bcp_check --exact: %s"
            % (u.seq, u.remote, name, u.size,
               "%d faults" % len(up.faults) if up.faults else "ok"))
        for f in up.faults[:5]:
            say("        fault: %s" % f)
        for b in up.blocks:
            lines = len(up.lines(b["file"]))
            say("        %-19s %4d line%s  %s" % (b["code"], lines, " " if lines == 1 else "s",
                                                  b["file"]))
            if lines and b["code"] in qz_bcp.NAMES and b["code"] not in samples:
                samples[b["code"]] = (name, next(up.records(b["code"])))
        for data in up.stored.values() if up.kind == "status" else ():
            for line in data.decode("utf-8", "replace").splitlines():
                say("        " + line)
    say()
    say("== One line of each dataset, as COLUMN=value (empty columns left out)")
    for code in sorted(samples):
        name, record = samples[code]
        say("  %s, first line in %s:" % (code, name))
        for row in sample(record):
            say(row)
    say()
    checked = len(ups)
    say("== qz_bcp_check --exact: %d of %d uploads sound" % (checked - failures, checked))
    return failures


def save_logs(out, sb, d):
    with open(os.path.join(out, "console-stdout.log"), "wb") as f:
        f.write(d.bytes("stdout"))
    with open(os.path.join(out, "console-stderr.log"), "wb") as f:
        f.write(d.bytes("stderr"))
    with open(os.path.join(out, "syslog.log"), "w") as f:
        f.writelines(line if line.endswith("\n") else line + "\n" for line in sb.syslog.lines())


# -- the run -----------------------------------------------------------------------

def run(args):
    cycle_seconds = 300.0 / args.accel
    with qz_sandbox.Sandbox() as sb:
        os.makedirs(args.out, exist_ok=True)
        sb.write_config()
        say("== Sandbox")
        say("  route: default via %s dev %s, address %s"
            % (qz_sandbox.GATEWAY_IP, qz_sandbox.ROUTE_IF, qz_sandbox.ROUTE_IP))
        say("  FTP server: ftp://%s:%d, user %r" % (sb.ftp.host, sb.ftp.port, sb.ftp.user))
        say("  configuration: place %s (source %s), vendor %s"
            % (sb.config_values()["fh_netbar_name"], sb.config_values()["fh_source_str"],
               sb.config_values()["fh_org_name"]))
        say("  clock: from %s UTC at x%d, one 300-s cycle every %.1f real seconds, %d cycle%s"
            % (qz_sandbox.DEFAULT_START, args.accel, cycle_seconds, args.cycles,
               "" if args.cycles == 1 else "s"))
        say("  daemon console: %s/console-stdout.log and console-stderr.log%s"
            % (args.out, "" if args.verbose else "; shown here: archives, warnings, errors"))
        say()

        router = None
        with sim.FakeKernel(block=True) as kernel:
            sb.set_wtps([])
            d = sb.start_daemon(["-D"], accel=args.accel, preload=(args.stub,))
            console = Console(sb, d, args.verbose)
            try:
                pid = kernel.wait_registration(10, expected_pid=d.pid)
                say("  [kernel]  registration from the daemon (pid %d): 80 bytes, as expected"
                    % pid)
                d.wait_for(r"init shell fd success!")
                router = Router(sb, kernel)
                for cycle in range(args.cycles):
                    plan = CYCLE_PLAN[cycle] if cycle < len(CYCLE_PLAN) else {}
                    aps = AP_PLAN[min(cycle, len(AP_PLAN) - 1)]
                    say("-- cycle %d" % (cycle + 1))
                    if cycle == 0 or aps != AP_PLAN[min(cycle - 1, len(AP_PLAN) - 1)]:
                        router.list_aps(aps)
                    for terminal, ap, strength in plan.get("status", []):
                        router.status(terminal, ap, strength)
                    for terminal in plan.get("online", []):
                        router.go_online(terminal)
                        console.sleep(0.1)
                    for terminal in plan.get("offline", []):
                        router.go_offline(terminal)
                        console.sleep(0.1)
                    http = plan.get("http") or [(t, 1) for t in sorted(router.online)]
                    router.http(http, console)
                    if not console.wait_ticks(cycle + 1, cycle_seconds * 2 + 10):
                        say("  (the cycle did not end in time)")
                        break
                console.sleep(0.3)
            except KeyboardInterrupt:
                say("\n(interrupted)")
            finally:
                if router:
                    router.close()
                running = d.running()
                d.stop()
                console.pump()
        say()
        say("== Daemon %s" % ("stopped with SIGTERM after the last cycle" if running
                              else "ended early: status %s" % d.returncode))
        online = sorted(router.online) if router else []
        if online:
            say("   still online, so without an offline record: %s" % ", ".join(online))
        say()
        failures = summarize(console, args.out)
        save_logs(args.out, sb, d)
        say("== Copied to %s: uploads/ (under their own names), console-stdout.log, "
            "console-stderr.log, syslog.log" % args.out)
        return 0 if running and failures == 0 else 1


def main():
    args = parse_args()
    os.environ["QZ_BIN"] = args.bin
    qz_sandbox.enter_namespaces()
    sys.exit(run(args))


if __name__ == "__main__":
    main()
