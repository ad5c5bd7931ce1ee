"""Soak run of the real daemon: steady terminal and HTTP traffic over many
archive cycles, an FTP server that is slow for some cycles and down for one,
and an exact account of every event against the records received.

Run by bench/soak_bench.py, inside enter_namespaces() (tools/qz_sandbox.py),
as root.

Accounting: each terminal goes online once and offline once (every event is
one datagram), each HTTP event carries its own number in the terminal
address. An event whose send succeeded must appear in exactly one record
line of the zips received, except in the cycle whose upload failed: those
records were deleted with the zip, as designed, and are counted apart; they
must form one unbroken run of the events in send order.
"""

import os
import signal
import threading
import time

import qz_bcp
import qz_router_sim as sim
import qz_sandbox
from bench_support import memory_kib
from qz_router_sim import STATUS_LINE, mac_of


class Traffic:
    """Sends online/offline datagrams (terminal i goes offline `hold` events
    after it came online) and HTTP events, both paced, without blocking.
    A send the daemon's full queue refuses is counted as refused; one made
    while no daemon runs (between a stop and the next start) as down."""

    def __init__(self, rate, http_rate, hold, kernel):
        self.rate = rate
        self.http_rate = http_rate
        self.hold = hold
        self.kernel = kernel
        self.shell = sim.ShellSender(nonblocking=True)
        self.stop = threading.Event()
        self.shell_events = []  # (kind, terminal) in send order, delivered only
        self.shell_times = []   # time.monotonic() of each delivered send
        self.shell_refused = 0
        self.shell_down = 0
        self.http_events = []  # event numbers delivered, in send order
        self.http_times = []
        self.http_dropped = 0
        self.http_down = 0
        self.terminals = 0
        self._online = set()  # terminals the running daemon has seen online
        self._lock = threading.Lock()
        self._threads = [threading.Thread(target=self._shell, daemon=True),
                         threading.Thread(target=self._http, daemon=True)]

    def start(self):
        for t in self._threads:
            t.start()

    def finish(self):
        self.stop.set()
        for t in self._threads:
            t.join()

    def forget(self):
        """A restarted daemon knows no terminal: offline datagrams for those
        online before are not written."""
        with self._lock:
            self._online.clear()

    def _paced(self, rate):
        start = time.monotonic()
        n = 0
        while not self.stop.is_set():
            due = start + n / rate
            delay = due - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            yield n
            n += 1

    def _send_shell(self, send):
        try:
            return send()
        except OSError:
            self.shell_down += 1
            return None

    def _shell(self):
        for n in self._paced(self.rate):
            # Alternate: a new terminal online, the oldest one offline.
            i = n // 2
            if n % 2 == 0:
                path = "/tmp/qztmp/clt_wifi_info/" + mac_of(i)
                with open(path, "w") as f:
                    f.write(STATUS_LINE)
                self.terminals = i + 1
                ok = self._send_shell(lambda: self.shell.online(
                    mac_of(i), "192.168.%d.%d" % ((i >> 8) & 255, i & 255), 1))
                if ok:
                    with self._lock:
                        self.shell_events.append(("on", i))
                        self.shell_times.append(time.monotonic())
                        self._online.add(i)
                elif ok is not None:
                    self.shell_refused += 1
            elif i >= self.hold:
                t = i - self.hold
                ok = self._send_shell(lambda: self.shell.offline(mac_of(t)))
                if ok:
                    # Only a terminal the daemon has seen online is written.
                    with self._lock:
                        if t in self._online:
                            self.shell_events.append(("off", t))
                            self.shell_times.append(time.monotonic())
                elif ok is not None:
                    self.shell_refused += 1

    def _http(self):
        for n in self._paced(self.http_rate):
            terminal = max(0, self.terminals - 1)
            addr = sim.numbered_ip(n)
            try:
                ok = self.kernel.send_http(mac_of(terminal), addr,
                                           "93.184.216.34", 40000 + n % 20000, 80)
            except OSError:
                self.http_down += 1
                continue
            if ok:
                self.http_events.append(n)
                self.http_times.append(time.monotonic())
            else:
                self.http_dropped += 1


def read_records(path):
    """(shell records, http records) of a received zip, or of the whole
    lines in a spool directory: ("on"|"off", terminal) for each
    WA_SOURCE_FJ_0001 record, the event number for each WA_SOURCE_FJ_0002
    record."""
    up = qz_bcp.read(path, check_name=False)
    return ([("off" if r["END_TIME"] else "on", int(r["MAC"].replace("-", "")[4:], 16))
             for r in up.records("WA_SOURCE_FJ_0001")],
            [sim.number_of(r) for r in up.records("WA_SOURCE_FJ_0002")])


def account(sent, received):
    """Checks exactly-once delivery; returns (lost, duplicates, missing) where
    missing is the list of sent events not received, in send order."""
    seen = {}
    for r in received:
        seen[r] = seen.get(r, 0) + 1
    duplicates = sum(c - 1 for c in seen.values() if c > 1)
    sent_set = set(sent)
    unexpected = [r for r in seen if r not in sent_set]
    missing = [s for s in sent if s not in seen]
    return missing, duplicates, unexpected


def is_one_run(sent, missing):
    """True when the missing events are consecutive in send order."""
    if not missing:
        return True
    index = {s: k for k, s in enumerate(sent)}
    pos = sorted(index[m] for m in missing)
    return pos[-1] - pos[0] + 1 == len(pos)


UNSENT_DIR = "/tmp/qz_unsent"
DAY = 86400


def new_zips(d, seen):
    """Zip names the netbar group formed since offset seen of the daemon's
    console, and the offset of the last whole line: only the new part is
    read, the console of a soak grows large."""
    data = d.bytes("stdout", seen)
    end = data.rfind(b"\n") + 1
    return qz_sandbox.logged_names(data[:end].decode(errors="replace"), "tmp/145"), seen + end


def run(binary, stub, cycles=12, rate=1000, http_rate=200, slow_cycles=(3, 4), down_cycle=6,
        slow_seconds=5.0, accel=60, hold=400, log=print, durable=False, term_cycle=None,
        kill_cycle=None):
    """Runs the soak and returns a result dict (see the end). Cycle numbers
    count the netbar group's archive cycles that found files, from 1; rates
    are per real second, slow_seconds per upload in the daemon's time.

    durable=True sets "fh_unsent_dir"; term_cycle and kill_cycle stop the
    daemon with SIGTERM or SIGKILL half a cycle after that cycle's archive
    and start it again (with a later clock, so that names stay unique)."""
    os.environ["QZ_BIN"] = binary
    cycle_seconds = 300.0 / accel
    with qz_sandbox.Sandbox() as sb:
        sb.write_config({"fh_unsent_dir": UNSENT_DIR} if durable else None)
        sb.set_wtps(["1 00:1a:2b:3c:4d:5e up", "2 00:1a:2b:3c:4d:6f up"])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        kernel = sim.FakeKernel()

        def start(n):
            # A kernel-sized netlink queue; the daemon reads it while commands
            # run.  A sanitizer build would hold freed memory in quarantine,
            # which reads as growth; the run measures the daemon's own memory.
            d = sb.start_daemon(["-D"], accel=accel, start=qz_sandbox.START_EPOCH + n * DAY,
                                preload=(stub,), env={
                                    "QZ_NLSTUB_QLEN": "256",
                                    "ASAN_OPTIONS": "quarantine_size_mb=0:"
                                    "thread_local_quarantine_size_kb=0:"
                                    "verify_asan_link_order=0:detect_leaks=0"})
            kernel.wait_registration(60, expected_pid=d.pid)
            return d

        daemons = [start(0)]
        traffic = Traffic(rate, http_rate, hold, kernel)
        stops = {}  # "term"/"kill": facts about that stop
        try:
            traffic.start()
            zips, rss = [], []
            failed_zip = None
            pending_stop = None  # (kind, due time)
            seen = 0  # what was read of the console of the daemon running
            deadline = time.monotonic() + 60 + cycles * (10 + slow_seconds) * 60 / accel
            while len(zips) < cycles + 2:
                d = daemons[-1]
                if time.monotonic() > deadline or not d.running():
                    raise AssertionError("daemon stopped or stalled after %d cycles" % len(zips))
                if pending_stop and time.monotonic() >= pending_stop[1]:
                    kind = pending_stop[0]
                    pending_stop = None
                    began = time.monotonic()
                    d.signal(signal.SIGTERM if kind == "term" else signal.SIGKILL)
                    status = d.wait(60)
                    fact = {"status": status, "seconds": time.monotonic() - began,
                            "at": began}
                    if kind == "kill":
                        # What was written before the kill must arrive.
                        fact["written"] = read_records("/tmp/145")
                    stops[kind] = fact
                    traffic.forget()
                    log("cycle %d: %s, status %d after %.2f s" %
                        (len(zips), "SIGTERM" if kind == "term" else "SIGKILL", status,
                         fact["seconds"]))
                    daemons.append(start(len(daemons)))
                    seen = 0
                    continue
                new, seen = new_zips(d, seen)
                if not new:
                    time.sleep(0.05)
                    continue
                for name in new:
                    zips.append(name)
                    rss.append(memory_kib(d.pid, "VmRSS"))
                    n = len(zips)
                    log("cycle %d: %s, RSS %d KiB" % (n, zips[-1], rss[-1]))
                    if n == down_cycle:
                        failed_zip = zips[-1]
                    # Set up the next cycle's server: slow, down or back up.
                    # The delay is in the daemon's time: wput's own time-outs
                    # run as fast as its clock.
                    sb.ftp.set_delay(slow_seconds / accel if n + 1 in slow_cycles else 0)
                    if n + 1 == down_cycle:
                        sb.ftp.stop()
                    elif n == down_cycle:
                        sb.ftp.start()
                    for kind, at in (("term", term_cycle), ("kill", kill_cycle)):
                        if n == at:
                            pending_stop = (kind, time.monotonic() + cycle_seconds / 2)
                    if n == cycles:
                        traffic.finish()
            if durable:
                # Kept files go out after the traffic's own last cycles.
                qz_sandbox.wait_until(lambda: not any(
                    os.listdir(os.path.join(UNSENT_DIR, g))
                    for g in ("144", "145", "146") if os.path.isdir(os.path.join(UNSENT_DIR, g))),
                    60 + 10 * cycle_seconds, "kept files sent")
            # Cycles after the traffic stopped archive what was still open.
            uploads = sb.ftp.uploads()
        finally:
            traffic.stop.set()
            for d in daemons:
                d.stop(5)
            kernel.close()
        errors = [e.message for d in daemons
                  for e in qz_sandbox.log_entries(d.stderr_text()) if e.level == "ERROR"]

        got = [read_records(u.path) for u in uploads if u.remote == "tmp/145"]
        shell, http = [r for s, _ in got for r in s], [r for _, h in got for r in h]
        shell_missing, shell_dup, shell_extra = account(traffic.shell_events, shell)
        http_missing, http_dup, http_extra = account(traffic.http_events, http)
        result = {
            "uploads": [u.remote for u in uploads],
            "cycles": len(zips),
            "zips": zips,
            "failed_zip": failed_zip,
            "rss_kib": rss,
            "errors": errors,
            "restarts": len(daemons) - 1,
            "stops": {k: {"status": v["status"], "seconds": v["seconds"]}
                      for k, v in stops.items()},
            "shell_sent": len(traffic.shell_events),
            "shell_refused": traffic.shell_refused,
            "shell_down": traffic.shell_down,
            "shell_received": len(shell),
            "shell_lost_with_failed_upload": len(shell_missing),
            "shell_lost_in_one_run": is_one_run(traffic.shell_events, shell_missing),
            "shell_duplicates": shell_dup,
            "shell_unexpected": len(shell_extra),
            "http_sent": len(traffic.http_events),
            "http_dropped": traffic.http_dropped,
            "http_down": traffic.http_down,
            "http_received": len(http),
            "http_lost_with_failed_upload": len(http_missing),
            "http_lost_in_one_run": is_one_run(traffic.http_events, http_missing),
            "http_duplicates": http_dup,
            "http_unexpected": len(http_extra),
        }
        if "kill" in stops:
            # Sent, but still in the kernel's queue or being handled when
            # the process was killed: never written. Everything written
            # before the kill must have arrived.
            kill = stops["kill"]
            w_shell, w_http = kill["written"]
            for feed, missing, events, times, written, got in (
                    ("shell", shell_missing, traffic.shell_events, traffic.shell_times, w_shell,
                     shell),
                    ("http", http_missing, traffic.http_events, traffic.http_times, w_http,
                     http)):
                index = {e: k for k, e in enumerate(events)}
                near = [m for m in missing if abs(times[index[m]] - kill["at"]) < 1.0]
                result[feed + "_unread_at_kill"] = len(near)
                result[feed + "_written_before_kill"] = len(written)
                result[feed + "_written_but_lost"] = len(set(written) - set(got))
        return result
