"""Soak run of the real daemon: steady terminal and HTTP traffic over many
archive cycles, an FTP server that is slow for some cycles and down for one,
and an exact account of every event against the records received.

Used by tests/e2e/test_soak.py (short) and bench/soak_bench.py (long).
Runs inside enter_namespaces() (tools/qz_sandbox.py), as root.

Accounting: each terminal goes online once and offline once (every event is
one datagram), each HTTP event carries its own number in the terminal
address. An event whose send succeeded must appear in exactly one record
line of the zips received, except in the cycle whose upload failed: those
records were deleted with the zip, as designed, and are counted apart; they
must form one unbroken run of the events in send order.
"""

import io
import os
import re
import socket
import struct
import subprocess
import threading
import time
import zipfile

import qz_router_sim as sim
import qz_sandbox

STATUS_LINE = "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n"
CYCLE_RE = re.compile(rb"netbar_report_timer<\d+>: DEBUG:form zip file :(\S+)")
ERROR_RE = re.compile(rb"ERROR:.*")
HTTP_BASE = 0x0A000000  # terminal addresses 10.x.y.z carry the event number


def mac_of(i):
    return "02:00:%02x:%02x:%02x:%02x" % ((i >> 24) & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255)


def record_mac(i):
    return mac_of(i).replace(":", "-").upper()


def rss_kib(pid):
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


class Traffic:
    """Sends online/offline datagrams (terminal i goes offline `hold` events
    after it came online) and HTTP events, both paced, without blocking."""

    def __init__(self, rate, http_rate, hold, kernel):
        self.rate = rate
        self.http_rate = http_rate
        self.hold = hold
        self.kernel = kernel
        self.shell = sim.ShellSender(nonblocking=True)
        self.stop = threading.Event()
        self.shell_events = []  # (kind, terminal) in send order, delivered only
        self.shell_refused = 0
        self.http_events = []  # event numbers delivered, in send order
        self.http_dropped = 0
        self.terminals = 0
        self._threads = [threading.Thread(target=self._shell, daemon=True),
                         threading.Thread(target=self._http, daemon=True)]

    def start(self):
        for t in self._threads:
            t.start()

    def finish(self):
        self.stop.set()
        for t in self._threads:
            t.join()

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

    def _shell(self):
        online = set()
        for n in self._paced(self.rate):
            # Alternate: a new terminal online, the oldest one offline.
            i = n // 2
            if n % 2 == 0:
                path = "/tmp/qztmp/clt_wifi_info/" + mac_of(i)
                with open(path, "w") as f:
                    f.write(STATUS_LINE)
                self.terminals = i + 1
                if self.shell.online(mac_of(i), "192.168.%d.%d" % ((i >> 8) & 255, i & 255), 1):
                    self.shell_events.append(("on", i))
                    online.add(i)
                else:
                    self.shell_refused += 1
            elif i >= self.hold:
                t = i - self.hold
                if self.shell.offline(mac_of(t)):
                    # Only a terminal the daemon has seen online is written.
                    if t in online:
                        self.shell_events.append(("off", t))
                else:
                    self.shell_refused += 1

    def _http(self):
        for n in self._paced(self.http_rate):
            terminal = max(0, self.terminals - 1)
            addr = socket.inet_ntoa(struct.pack(">I", HTTP_BASE + n))
            if self.kernel.send_http(sim.mac_to_bytes(mac_of(terminal)), addr, "93.184.216.34",
                                     40000 + n % 20000, 80):
                self.http_events.append(n)
            else:
                self.http_dropped += 1


def read_zip_records(path):
    """(shell records, http records) of one received zip: ("on"|"off",
    terminal) and event numbers."""
    shell, http = [], []
    with zipfile.ZipFile(path) as z:
        for name in z.namelist():
            if "WA_SOURCE_FJ_0001" in name:
                for line in io.TextIOWrapper(z.open(name), encoding="utf-8", newline="\n"):
                    f = line.rstrip("\n").split("\t")
                    terminal = int(f[19].replace("-", "")[4:], 16)
                    shell.append(("off" if f[11] else "on", terminal))
            elif "WA_SOURCE_FJ_0002" in name:
                for line in io.TextIOWrapper(z.open(name), encoding="utf-8", newline="\n"):
                    f = line.rstrip("\n").split("\t")
                    http.append(int(f[3]) - HTTP_BASE)
    return shell, http


def flood_ip(k):
    """Terminal address that carries datagram number k of a flood."""
    return "10.%d.%d.%d" % ((k >> 16) & 255, (k >> 8) & 255, k & 255)


def flood_number(line):
    """Datagram number of a WA_SOURCE_FJ_0001 line of a flood: its address
    column holds the address's bytes read little-endian."""
    ip = int(line.split("\t")[12])
    return ((ip >> 8) & 255) << 16 | ((ip >> 16) & 255) << 8 | ip >> 24


def read_flood_numbers(path):
    """Datagram numbers of the WA_SOURCE_FJ_0001 records in a zip."""
    numbers = []
    with zipfile.ZipFile(path) as z:
        for name in z.namelist():
            if "WA_SOURCE_FJ_0001" in name:
                numbers += [flood_number(line) for line in
                            io.TextIOWrapper(z.open(name), encoding="utf-8", newline="\n")]
    return numbers


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


def run(binary, stub, cycles=12, rate=1000, http_rate=200, slow_cycles=(3, 4), down_cycle=6,
        slow_seconds=5.0, accel=60, hold=400, log=print):
    """Runs the soak and returns a result dict (see the end). Cycle numbers
    count the netbar group's archive cycles that found files, from 1; rates
    are per real second, slow_seconds per upload in the daemon's time."""
    os.environ["QZ_BIN"] = binary
    with qz_sandbox.Sandbox() as sb:
        sb.write_config()
        sb.set_wtps(["1 00:1a:2b:3c:4d:5e up", "2 00:1a:2b:3c:4d:6f up"])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        kernel = sim.FakeKernel()
        out_path = os.path.join(sb.private, "daemon.out")
        err_path = os.path.join(sb.private, "daemon.err")
        # A kernel-sized netlink queue; the daemon reads it while commands run.
        env = sb.daemon_env(accel=accel, preload=(stub,), env={"QZ_NLSTUB_QLEN": "256"})
        # A sanitizer build would hold freed memory in quarantine, which
        # reads as growth; the run measures the daemon's own memory.
        env["ASAN_OPTIONS"] = "quarantine_size_mb=0:thread_local_quarantine_size_kb=0:" + \
            env["ASAN_OPTIONS"]
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            proc = subprocess.Popen([binary, "-D"], env=env, cwd=sb.work_dir,
                                    stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        try:
            pid = kernel.wait_registration(60, expected_pid=proc.pid)
            traffic = Traffic(rate, http_rate, hold, kernel)
            traffic.start()
            zips, rss = [], []
            seen = 0
            failed_zip = None
            deadline = time.monotonic() + 60 + cycles * (10 + slow_seconds) * 60 / accel
            while len(zips) < cycles + 2:
                if time.monotonic() > deadline or proc.poll() is not None:
                    raise AssertionError("daemon stopped or stalled after %d cycles" % len(zips))
                with open(out_path, "rb") as f:
                    f.seek(seen)
                    chunk = f.read()
                last_nl = chunk.rfind(b"\n")
                if last_nl < 0:
                    time.sleep(0.05)
                    continue
                seen += last_nl + 1
                for m in CYCLE_RE.finditer(chunk[:last_nl]):
                    zips.append(m.group(1).decode())
                    rss.append(rss_kib(pid))
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
                    if n == cycles:
                        traffic.finish()
            # Cycles after the traffic stopped archive what was still open.
            uploads = sb.ftp.uploads()
        finally:
            if proc.poll() is None:
                proc.terminate()
                proc.wait(5)
            kernel.close()
        with open(err_path, "rb") as f:
            errors = [e.decode(errors="replace") for e in ERROR_RE.findall(f.read())]

        shell, http = [], []
        for u in uploads:
            if u.remote == "tmp/145":
                s, h = read_zip_records(u.path)
                shell += s
                http += h
        shell_missing, shell_dup, shell_extra = account(traffic.shell_events, shell)
        http_missing, http_dup, http_extra = account(traffic.http_events, http)
        return {
            "uploads": [u.remote for u in uploads],
            "cycles": len(zips),
            "zips": zips,
            "failed_zip": failed_zip,
            "rss_kib": rss,
            "errors": errors,
            "shell_sent": len(traffic.shell_events),
            "shell_refused": traffic.shell_refused,
            "shell_received": len(shell),
            "shell_lost_with_failed_upload": len(shell_missing),
            "shell_lost_in_one_run": is_one_run(traffic.shell_events, shell_missing),
            "shell_duplicates": shell_dup,
            "shell_unexpected": len(shell_extra),
            "http_sent": len(traffic.http_events),
            "http_dropped": traffic.http_dropped,
            "http_received": len(http),
            "http_lost_with_failed_upload": len(http_missing),
            "http_lost_in_one_run": is_one_run(traffic.http_events, http_missing),
            "http_duplicates": http_dup,
            "http_unexpected": len(http_extra),
        }
