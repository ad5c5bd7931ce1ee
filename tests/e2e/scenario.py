"""The one fixture of the end-to-end rows: a Row says what is configured,
planted or broken, what is sent, how the daemon stops and what must
arrive; run() plays it in a Sandbox (tools/qz_sandbox.py) and checks it.

Every row ends with the same checks: every upload passes the reader of
uploads as `qz_bcp_check --exact` does, standard error holds nothing but
log lines, and no WARN or ERROR line appears that the row does not allow.
"""

import dataclasses
import os
import re
import signal
import subprocess
import sys

import qz_bcp
import qz_router_sim as sim
import qz_sandbox
from qz_sandbox import DEFAULT_START, WUM_DIR, log_entries, read_stats, wait_until

# Generous: waits end as soon as their condition holds, and on a loaded
# two-core machine (or under the sanitizers) a cycle may run late.
WAIT = 60
LONG_WAIT = int(os.environ.get("QZ_E2E_LONG_WAIT", 180))  # shorter when planting faults
AP1, AP2 = "00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:6f"
S1, S2 = "WA_SOURCE_FJ_0001", "WA_SOURCE_FJ_0002"
WEB = "00:11:22:aa:bb:cc"  # the terminal of every numbered HTTP event
UNSENT = "/tmp/qz_unsent"
DURABLE = {"fh_unsent_dir": UNSENT}
# The status report's directory is the last one the start-up makes.
READY = r"mkdir /tmp/144"


@dataclasses.dataclass(frozen=True)
class Row:
    name: str
    # Configured: values over the sandbox's (REMOVE drops a key), the file's
    # text as given (str), or no file (None).
    config: object = dataclasses.field(default_factory=dict)
    # The command line; a tuple of them runs each in turn (a daemon that ends
    # by itself), with the same expectations.
    args: tuple = ("-D",)
    aps: tuple = (("1 %s up" % AP1,),)  # what `wum -c wtps` lists in each tick
    wum: str = "listing"                # or "hung": every scan hangs
    pauses: tuple = ()                  # ticks whose first scan waits for resume()
    clock: object = 60                  # how fast the faked clock runs; None: the real clock
    start: object = DEFAULT_START
    env: dict = dataclasses.field(default_factory=dict)
    launcher: str = None                # a bash script that runs the daemon as "$@"
    netlink: str = "stub"               # the kernel module's stand-in; "kernel": and a kernel
                                        # bound that checks the registration; None: neither
    ready: str = READY                  # waited for on the console before the steps
    # Planted or broken before the start: callables of the Run.
    planted: tuple = ()
    sink: str = "up"                    # the FTP server: "up", "down" or "hung"
    # Sent, once the daemon is ready: callables of the Run, in turn.
    steps: tuple = ()
    stop: str = "term"                  # "term", "kill", or None: it ends by itself, no steps
    # What must arrive.
    status: int = None                  # the last daemon's exit status
    out: str = None                     # its standard output, exactly
    err: str = None                     # its standard error, a regular expression
    online: range = None                # numbers of the online datagrams in 145's zips, once each
    http: range = None                  # the same for the numbered HTTP events
    uploads: dict = dataclasses.field(default_factory=dict)  # remote: at least so many, named
    log: tuple = ()                     # (stream, regex) that must appear
    allowed: tuple = ()                 # regexes of the WARN and ERROR messages allowed
    counters: dict = dataclasses.field(default_factory=dict)  # "a.b.c": value or predicate
    check: object = None                # a callable of the Run for the rest
    slow: bool = False


def counter(stats, path):
    for key in path.split("."):
        stats = stats[key]
    return stats


class Run:
    """A row being played: the sandbox, the daemons started, the router's
    senders, and facts steps keep for the checks."""

    def __init__(self, row, sb):
        self.row, self.sb = row, sb
        self.d = None
        self.kernel = None
        self.facts = {}
        self._read = {}
        self.shell = sim.ShellSender(block_timeout=LONG_WAIT)

    # -- the daemon ------------------------------------------------------

    def start(self, args=None, start=None):
        """Starts a daemon as the row says, checks its netlink registration
        and waits for it to be ready (unless it is to end by itself)."""
        row = self.row
        self.d = self.sb.start_daemon(
            row.args if args is None else args, accel=row.clock or 1,
            start=row.start if row.clock and start is None else start,
            env=row.env, launcher=row.launcher,
            preload=(qz_sandbox.nlstub_path(),) if row.netlink else ())
        if self.kernel:
            self.kernel.wait_registration(LONG_WAIT, expected_pid=self.d.pid)
        if row.ready and row.stop:
            self.d.wait_for(row.ready, timeout=LONG_WAIT)
        return self.d

    def until(self, predicate, what, timeout=LONG_WAIT):
        """wait_until for something the daemon brings about; fails at once,
        with its output, when it has ended."""
        def check():
            value = predicate()
            if not value and not self.alive():
                raise AssertionError("daemon ended before %s\n%s" % (what, self.d.describe()))
            return value
        try:
            return wait_until(check, timeout, what)
        except AssertionError as e:
            raise AssertionError("%s\n%s" % (e, self.d.describe())) from None

    def alive(self):
        """The daemon runs: in the foreground, or detached."""
        return self.d.running() or (self.d.returncode == 0 and
                                    bool(qz_sandbox.pids_of(qz_sandbox.daemon_binary())))

    def log(self, pattern, stream="stdout", count=1, timeout=LONG_WAIT):
        """Waits until the regex matches count times; returns the last match."""
        return self.until(lambda: (lambda m: m[count - 1] if len(m) >= count else None)(
            list(re.finditer(pattern, self.d.text(stream), re.M))),
            "%d x %r on %s" % (count, pattern, stream), timeout)

    def stats(self, predicate=lambda s: True, what="the counters"):
        """Waits until the counters file satisfies predicate; returns it."""
        return self.until(lambda: (lambda s: s if s and predicate(s) else None)(read_stats()), what)

    def handlers(self, pid=None):
        """Waits until the daemon has its SIGUSR1/SIGUSR2 handlers: it holds
        the lock and has detached if it was to."""
        pid = pid or self.d.pid
        wait_until(lambda: {signal.SIGUSR1, signal.SIGUSR2} <= qz_sandbox.signal_set(pid, "SigCgt")
                   or not qz_sandbox.is_running(pid), WAIT, "signal handlers of %d" % pid)
        assert qz_sandbox.is_running(pid), "daemon %d ended during start-up" % pid

    # -- the router around it ----------------------------------------------

    def online(self, numbers, rate=None, nonblocking=False):
        """Online datagram k for terminal k, whose address carries k, at
        rate a second (or at once); returns the numbers a non-blocking
        sender saw refused."""
        shell = sim.ShellSender(nonblocking=True) if nonblocking else self.shell
        refused = []
        for k in sim.paced(numbers, rate):
            sim.write_status_line(sim.mac_of(k), sim.STATUS_LINE)
            if not shell.online(sim.mac_of(k), sim.numbered_ip(k), 1):
                refused.append(k)
        if nonblocking:
            shell.close()
        return refused

    def http(self, numbers):
        """HTTP event n of terminal WEB, whose source address carries n."""
        self.kernel.send_many([sim.build_event(sim.DATA_HTTP, WEB, sim.numbered_ip(n),
                                               "93.184.216.34", 40000 + n % 20000, 80)
                               for n in numbers])

    def held(self, tick):
        self.until(lambda: os.path.exists("%s/paused.%d" % (WUM_DIR, tick)),
                   "the daemon to reach tick %d" % tick)

    def resume(self, tick):
        os.unlink("%s/pause.%d" % (WUM_DIR, tick))

    def ticks(self):
        """The scans of `wum -c wtps` by tick: {tick: [(time, names in
        /tmp/146 or None, names in /tmp/144 or None)]}."""
        out = {}
        if not os.path.exists(os.path.join(WUM_DIR, "calls")):
            return out
        with open(os.path.join(WUM_DIR, "calls")) as f:
            for line in f.read().split("\n")[:-1]:  # the last may be half written
                tick, when, *spools = line.split("\t")
                out.setdefault(int(tick), []).append(
                    (int(when),) + tuple(None if s == "?" else [n for n in s.split("/") if n]
                                         for s in spools))
        return out

    # -- what arrived ---------------------------------------------------------

    def uploads(self, remote=None):
        return [u for u in self.sb.ftp.uploads() if remote in (None, u.remote)]

    def read(self, up, name=None):
        """An upload read and checked as `qz_bcp_check --exact` does (with
        its name when given)."""
        key = (up.path, name)
        if key not in self._read:
            got = qz_bcp.read(up.path, name, check_name=bool(name), exact=True)
            assert got.faults == [], (name or up.path, got.faults)
            self._read[key] = got
        return self._read[key]

    def named(self, remote):
        """The uploads to remote paired with the names the daemon logged."""
        names = qz_sandbox.logged_names(self.d.stdout_text(), remote)
        return [(n, self.read(u, n)) for n, u in zip(names, self.uploads(remote))]

    def received(self, code):
        """Numbers carried by the records of a dataset in 145's zips."""
        return [sim.number_of(r) for u in self.uploads("tmp/145")
                for r in self.read(u).records(code)]

    def arrived(self, code, numbers):
        self.until(lambda: set(numbers) <= set(self.received(code)),
                   "%d records of %s" % (len(numbers), code))


# -- planted hooks --------------------------------------------------------------

SECRET = b"root:only:secret\n"


def root_only(path, data=SECRET):
    """A file only root may read, with a known mtime."""
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o600)
    os.utime(path, (1000000000, 1000000000))


def fingerprint(path):
    st = os.lstat(path)
    with open(path, "rb") as f:
        return f.read(), st.st_uid, st.st_mode, st.st_mtime_ns, st.st_nlink


def as_nobody(code):
    """Runs Python code (os imported) as uid and gid 65534: (status, stderr)."""
    r = subprocess.run([sys.executable, "-c", "import os; " + code], user=65534, group=65534,
                       extra_groups=[], capture_output=True, text=True, timeout=WAIT)
    return r.returncode, r.stderr


def foreign(kind, path, target="/etc/qz_secret"):
    """A planted hook: another account (uid 65534) makes a "fifo", a "link"
    to target, a "dir" open to all or a "file" at path, in directories open
    to all."""
    make = {"fifo": "os.mkfifo(p)", "link": "os.symlink(t, p)", "file": "open(p, 'w').close()",
            "dir": "os.mkdir(p); os.chmod(p, 0o777)"}[kind]

    def plant(r):
        if not os.path.isdir(os.path.dirname(path)):
            os.makedirs(os.path.dirname(path))
            os.chmod(os.path.dirname(path), 0o1777)
        status, err = as_nobody("p, t = %r, %r; %s" % (path, target, make))
        assert status == 0, err
    return plant


def kept(group):
    path = "%s/%s" % (UNSENT, group)
    return sorted(os.listdir(path)) if os.path.isdir(path) else []


def run(row, sb):
    """Plays the row in the sandbox and checks what it says must arrive."""
    r = Run(row, sb)
    try:
        _play(r)
    finally:
        r.shell.close()
        if r.kernel:
            r.kernel.close()


def _play(r):
    row, sb = r.row, r.sb
    sb.set_wtps(*row.aps)
    if row.wum == "hung":
        open(os.path.join(WUM_DIR, "hung"), "w").close()
    for tick in row.pauses:
        open("%s/pause.%d" % (WUM_DIR, tick), "w").close()
    {"up": sb.ftp.start, "down": sb.ftp.stop, "hung": sb.ftp.hang}[row.sink]()
    for plant in row.planted:
        plant(r)
    if isinstance(row.config, str):
        sb.write_config(raw=row.config)
    elif row.config is not None:
        sb.write_config(row.config)
    if row.netlink == "kernel":
        # Bound first: the registration is sent once, at start-up.
        r.kernel = sim.FakeKernel(block=True, block_timeout=LONG_WAIT)

    for args in row.args if row.args and isinstance(row.args[0], tuple) else (row.args,):
        d = r.start(args)
        if row.stop is None:
            assert d.wait(WAIT) == row.status, d.describe()
            _check_console(r)
    if row.stop is None:
        return _check(r)
    for step in row.steps:
        step(r)
    for remote, count in row.uploads.items():
        r.until(lambda: min(len(r.uploads(remote)), len(r.named(remote))) >= count,
                "%d uploads to %s" % (count, remote))
    for code, numbers in ((S1, row.online), (S2, row.http)):
        if numbers is not None:
            r.arrived(code, numbers)
    if row.counters:
        r.stats(lambda s: all(want(counter(s, k)) if callable(want) else counter(s, k) == want
                              for k, want in row.counters.items()),
                "counters %s" % row.counters)
    if row.stop == "kill":
        r.d.signal(signal.SIGKILL)
    r.d.stop()
    if row.status is not None:
        assert r.d.returncode == row.status, r.d.describe()
    _check_console(r)
    _check(r)


def _check_console(r):
    row, d = r.row, r.d
    if row.out is not None:
        assert d.stdout_text() == row.out, d.describe()
    if row.err is not None:
        assert re.fullmatch(row.err, d.stderr_text()), d.describe()
        return
    err = d.stderr_text()
    assert not qz_sandbox.LOG_PREFIX.split(err)[0], "not a log line on stderr\n" + d.describe()
    for e in log_entries(err):
        assert any(re.fullmatch(a, e.message.rstrip("\n")) for a in row.allowed), \
            "%s line not allowed: %r\n%s" % (e.level, e.message, d.describe())
    for stream, pattern in row.log:
        assert re.search(pattern, d.text(stream), re.M), (pattern, d.describe())


def _check(r):
    for up in r.uploads():
        r.read(up)
    for code, numbers in ((S1, r.row.online), (S2, r.row.http)):
        if numbers is not None:
            assert sorted(r.received(code)) == sorted(numbers), (code, sorted(r.received(code)))
    if r.row.check:
        r.row.check(r)
