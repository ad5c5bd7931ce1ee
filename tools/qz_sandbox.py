"""Private world for runs of qz_fh_audit in tests, benchmarks and the demo.

The daemon has fixed paths (/tmp, /etc/qz_fh_audit.json, /dev/log) and asks
the routing table for its address, so runs are isolated with namespaces
instead of changed paths:

    enter_namespaces()          # first thing in the program
    with Sandbox() as sb:
        sb.write_config()
        d = sb.start_daemon()
        d.wait_for(r"mkdir /tmp/146")

enter_namespaces() re-runs the program under unshare with new mount,
network, IPC and pid namespaces.  A Sandbox then mounts a fresh tmpfs on
/tmp, an overlay on /etc, a private /dev whose /dev/log it reads, a veth
pair with a default route, an FTP sink and a bin directory with the
router's `wum` (tools/wum); closing it kills every process it left.

A cross build runs under qemu-user when QZ_EMULATOR names the emulator
and QZ_SYSROOT the target's root (packaging/cross/sysroot.sh makes one).
The target's own loader then preloads the target's libfaketime; the
commands the daemon starts are this machine's and run on the real clock.

Runs under Debian's /usr/bin/python3 (pyftpdlib, psutil, pyelftools), as root.
"""

import collections
import contextlib
import fcntl
import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import psutil
from elftools.elf.elffile import ELFFile

TOOLS_DIR = os.path.dirname(os.path.abspath(__file__))
if TOOLS_DIR not in sys.path:
    sys.path.insert(0, TOOLS_DIR)

from qz_config_keys import config_doc  # noqa: E402
from qz_ftp_sink import FtpSink  # noqa: E402

UNSHARE = "/usr/bin/unshare"
# Debian's libfaketime: /usr/lib/<multiarch>/faketime; $LIB in the target's loader.
FAKETIME_PATH = "/usr/%s/faketime/libfaketime.so.1"
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

CONFIG_PATH = "/etc/qz_fh_audit.json"
LOCK_PATH = "/tmp/qz_fh_lock"
STATS_PATH = "/tmp/qz_fh_stats.json"
# The state of tools/wum, the stand-in of `wum -c wtps`: see that script.
WUM_DIR = "/etc/qz_sim"
SYSLOG_PATH = "/dev/log"

ROUTE_IF = "qzr0"
PEER_IF = "qzr1"
ROUTE_IP = "10.77.0.2"
GATEWAY_IP = "10.77.0.1"

DEFAULT_START = "2024-03-05 07:04:01"
START_EPOCH = 1709622241  # DEFAULT_START in UTC
DEFAULT_ACCEL = 60

# A value for each key the daemon reads (a key added to its list without a
# value here stops the import).  The FTP values are the sink's.
DEFAULT_CONFIG = config_doc({
    "fh_netbar_property_str": "3", "fh_netbar_type_str": "9", "fh_netbar_name": "Harbour Cafe",
    "fh_equipment_name": "AP-01", "fh_source_str": "350100", "fh_address": "Main Street 1",
    "fh_dst_str": "350000", "fh_longitude": "119.30", "fh_latitude": "26.08",
    "fh_org_name": "Example Networks Ltd", "fh_org_tel_num": "0591-88880000",
    "fh_org_mail": "support@example.com", "fh_org_address": "Harbour Road 2",
    "fh_ftp_ip": "127.0.0.1", "fh_ftp_port": "21", "fh_ftp_username": "qzaudit",
    "fh_ftp_password": "qz-pass-1",
})
# Value for Sandbox.write_config() that leaves the key out of the file.
REMOVE = object()

_ENV_FLAG = "QZ_IN_SANDBOX"


# -- namespaces ---------------------------------------------------------------

def enter_namespaces():
    """Runs the rest of the program in new namespaces: re-executes the same
    command line under unshare (this call then does not return).  Inside,
    pid 1 stays behind as a reaper of orphans (a detached daemon is
    re-parented to it) and exits with the program's status; when it ends,
    the kernel kills whatever the program left running."""
    if os.environ.get(_ENV_FLAG) != "1":
        if os.geteuid() != 0:
            sys.exit("qz_sandbox: namespaces need root")
        argv = [UNSHARE, "--mount", "--net", "--ipc", "--pid", "--fork", "--mount-proc",
                "--kill-child", sys.executable] + sys.orig_argv[1:]
        sys.stdout.flush()
        sys.stderr.flush()
        os.execve(UNSHARE, argv, dict(os.environ, **{_ENV_FLAG: "1"}))
    if os.getpid() == 1:
        child = os.fork()
        if child:
            _reap(child)
    # A shell's background job starts with SIGINT and SIGQUIT ignored, and
    # the daemon would inherit that; its runs expect the defaults.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for sig in (signal.SIGQUIT, signal.SIGHUP, signal.SIGTERM):
        signal.signal(sig, signal.SIG_DFL)
    run("mount", "--make-rprivate", "/")


def _reap(child):
    def forward(signum, _frame):
        with contextlib.suppress(ProcessLookupError):
            os.kill(child, signum)
    # pid 1 ignores signals it has no handler for; pass the polite ones on.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, forward)
    while True:
        pid, status = os.wait()
        if pid == child:
            code = os.waitstatus_to_exitcode(status)
            os._exit(code if code >= 0 else 128 - code)


def run(*cmd, check=True):
    r = subprocess.run(cmd, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if check and r.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(cmd), r.returncode, r.stderr.strip()))
    return r


# -- processes ----------------------------------------------------------------

def wait_until(predicate, timeout, what="condition", interval=0.05):
    """Polls predicate until it returns something true; returns that value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise AssertionError("timed out after %.1f s waiting for %s" % (timeout, what))
        time.sleep(interval)


def is_running(pid):
    """True while the process exists and is not a zombie."""
    try:
        return psutil.Process(pid).status() not in (psutil.STATUS_ZOMBIE, psutil.STATUS_DEAD)
    except psutil.NoSuchProcess:
        return False


def signal_set(pid, *fields):
    """Signal numbers of masks in /proc/PID/status (SigCgt: caught, SigIgn:
    ignored, SigPnd and ShdPnd: pending); empty once the process has gone."""
    try:
        with open("/proc/%d/status" % pid) as f:
            st = dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    except OSError:
        return set()
    mask = 0
    for field in fields:
        mask |= int(st[field], 16)
    return {n for n in range(1, 65) if mask & (1 << (n - 1))}


def send_signal(pid, sig, timeout=60.0):
    """Sends sig and waits until it has been delivered: two different
    signals pending at once are delivered lowest number first."""
    os.kill(pid, sig)
    wait_until(lambda: sig not in signal_set(pid, "SigPnd", "ShdPnd") or not is_running(pid),
               timeout, "delivery of signal %d to %d" % (sig, pid), interval=0.002)
    time.sleep(0.01)  # delivered means the handler is entered


def children_of(pid):
    try:
        return psutil.Process(pid).children()
    except psutil.NoSuchProcess:
        return []


def wait_idle(pid, timeout=60.0):
    """Waits until the process sleeps without a child twice, 50 ms apart:
    it waits for its next event."""
    def idle():
        try:
            return psutil.Process(pid).status() == psutil.STATUS_SLEEPING and not children_of(pid)
        except psutil.NoSuchProcess:
            return False
    wait_until(lambda: idle() and (time.sleep(0.05) or idle()), timeout, "%d idle" % pid)


def _without_children_of(procs):
    """Leaves out processes whose parent is in the list too: a command
    between its fork and its exec."""
    pids = {p.pid for p in procs}
    return sorted(p.pid for p in procs if p.info["ppid"] not in pids)


def pids_of(exe):
    """Live processes running the executable exe."""
    exe = os.path.realpath(exe)
    # A binary rebuilt while its copy runs shows as "... (deleted)".
    return _without_children_of([p for p in psutil.process_iter(["exe", "ppid", "status"])
                                 if (p.info["exe"] or "").split(" (deleted)")[0] == exe
                                 and p.info["status"] != psutil.STATUS_ZOMBIE])


def lock_holders(path=LOCK_PATH):
    """Processes that have the lock file open.  /proc/locks cannot tell:
    it names the process that took the lock, and after daemon() that is
    the parent, which has gone."""
    return _without_children_of([p for p in psutil.process_iter(["open_files", "ppid"])
                                 if p.pid != os.getpid() and
                                 any(f.path == path for f in p.info["open_files"] or ())])


def lock_is_held(path=LOCK_PATH):
    """True when some process holds an exclusive flock on path.  Probes with
    a shared lock for an instant: not while a daemon starts."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    except (FileNotFoundError, IsADirectoryError):
        return False
    try:
        fcntl.flock(fd, fcntl.LOCK_SH | fcntl.LOCK_NB)
        return False
    except BlockingIOError:
        return True
    finally:
        os.close(fd)


def lock_holder(path=LOCK_PATH):
    """Pid of the process holding the daemon's lock, or None."""
    pids = lock_holders(path) if lock_is_held(path) else []
    return pids[0] if pids else None


def read_stats():
    """The counters file, or None while there is none."""
    try:
        with open(STATS_PATH) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


# -- the daemon's log -----------------------------------------------------------

# "2024-3-5 7:4:1 main<84>: ERROR:": unpadded local time, function, line.
LOG_PREFIX = re.compile(r"(\d{4}-\d{1,2}-\d{1,2} \d{1,2}:\d{1,2}:\d{1,2}) (\w+)<(\d+)>: "
                        r"(DEBUG|WARN|ERROR):")
LogEntry = collections.namedtuple("LogEntry", "stamp func line level message")
# The functions that log the name of each upload, and where it goes.
UPLOADERS = {"netbar_report_timer": ("tmp/145", "form zip file :"),
             "source_report_timer": ("tmp/146", "form zip file :"),
             "bjson_report_timer": ("tmp/144", "send bjson file :/tmp/144/")}


def log_entries(text):
    """The log lines of a console text or syslog datagram.  A message runs
    to the next prefix: other output (zip's, a sanitizer's) may follow a
    line, and a line may still be on its way."""
    starts = list(LOG_PREFIX.finditer(text))
    return [LogEntry(m[1], m[2], int(m[3]), m[4],
                     text[m.end():starts[i + 1].start() if i + 1 < len(starts) else len(text)])
            for i, m in enumerate(starts)]


def logged_names(text, remote):
    """The names the log gives the uploads to a remote directory ("tmp/145"),
    in order; a line counts once it is whole."""
    names = []
    for e in log_entries(text):
        where, head = UPLOADERS.get(e.func, (None, None))
        if where == remote and e.message.startswith(head) and "\n" in e.message:
            names.append(e.message[len(head):].split("\n", 1)[0])
    return names


# -- the daemon -------------------------------------------------------------------

def _tail(text, limit=3000):
    return text if len(text) <= limit else "..." + text[-limit:]


class Daemon:
    """One started copy of the daemon (or of a command line that runs it),
    its standard output and error kept in files of the sandbox."""

    def __init__(self, argv, env, out_dir, cwd="/"):
        self.argv = list(argv)
        self.paths = {}
        streams = {}
        for name in ("stdout", "stderr"):
            fd, self.paths[name] = tempfile.mkstemp(prefix="daemon-%s." % name, dir=out_dir)
            streams[name] = fd
        self.proc = subprocess.Popen(self.argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL,
                                     stdout=streams["stdout"], stderr=streams["stderr"])
        for fd in streams.values():
            os.close(fd)
        self.pid = self.proc.pid

    @property
    def returncode(self):
        return self.proc.poll()

    def running(self):
        return self.proc.poll() is None

    def bytes(self, stream="stdout", since=0):
        with open(self.paths[stream], "rb") as f:
            f.seek(since)
            return f.read()

    def text(self, stream="stdout"):
        return self.bytes(stream).decode("utf-8", errors="replace")

    def stdout_text(self):
        return self.text("stdout")

    def stderr_text(self):
        return self.text("stderr")

    def describe(self):
        return ("daemon %s (pid %d, status %s)\n--- stdout:\n%s\n--- stderr:\n%s"
                % (" ".join(self.argv[1:]), self.pid, self.proc.poll(),
                   _tail(self.text("stdout")), _tail(self.text("stderr"))))

    def wait_for(self, pattern, stream="stdout", timeout=60.0, since=0, flags=re.M):
        """Waits until the regex matches the stream's text from offset since;
        returns the match.  Fails with the output's tail on time-out or when
        the daemon has ended without it."""
        regex = re.compile(pattern, flags)
        deadline = time.monotonic() + timeout
        while True:
            ended = not self.running()
            m = regex.search(self.text(stream), since)
            if m:
                return m
            if ended or time.monotonic() > deadline:
                raise AssertionError("%s: %r not found on %s\n%s" % (
                    "output ended" if ended else "timed out after %.1f s" % timeout,
                    pattern, stream, self.describe()))
            time.sleep(0.05)

    def wait(self, timeout=60.0):
        """Waits for the end; returns the status (negative for a signal)."""
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running after %.1f s\n%s" % (timeout, self.describe()))

    def signal(self, sig):
        os.kill(self.pid, sig)

    def stop(self, grace=3.0):
        """SIGTERM, then SIGKILL after grace seconds; returns the status."""
        if self.running():
            with contextlib.suppress(ProcessLookupError):
                self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(grace)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode


class SyslogSink:
    """The sandbox's /dev/log, read by a thread.  lines() first waits until
    every datagram sent before the call has been read."""

    _SYNC = b"\0qz-sandbox-sync "

    def __init__(self, path=SYSLOG_PATH):
        self.path = path
        self._cond = threading.Condition()
        self._msgs = []
        self._synced = self._sync_sent = 0
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sock.bind(path)
        os.chmod(path, 0o666)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while True:
            try:
                data = self._sock.recv(65536)
            except OSError:
                return
            if not data:  # shut down
                return
            with self._cond:
                if data.startswith(self._SYNC):
                    self._synced = max(self._synced, int(data[len(self._SYNC):]))
                else:
                    self._msgs.append(data.decode("utf-8", errors="replace"))
                self._cond.notify_all()

    def lines(self, since=0, timeout=60.0):
        """Datagrams received, raw text with libc's "<N>" priority first."""
        with self._cond:
            self._sync_sent += 1
            token = self._sync_sent
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            client.sendto(self._SYNC + b"%d" % token, self.path)
        with self._cond:
            if not self._cond.wait_for(lambda: self._synced >= token, timeout):
                raise AssertionError("syslog reader did not catch up in %.1f s" % timeout)
            return self._msgs[since:]

    def close(self):
        with contextlib.suppress(OSError):
            self._sock.shutdown(socket.SHUT_RDWR)
        self._sock.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)


# -- the sandbox ----------------------------------------------------------------

_DEV_NODES = ("null", "zero", "full", "random", "urandom", "tty")
_DEV_LINKS = {"fd": "/proc/self/fd", "stdin": "/proc/self/fd/0",
              "stdout": "/proc/self/fd/1", "stderr": "/proc/self/fd/2"}


class Sandbox:
    """Fresh /tmp, writable /etc, private /dev with /dev/log, routed veth
    pair, bin directory with the router's `wum`, and (ftp=True) an FTP
    sink; closing it stops everything started inside and unmounts."""

    def __init__(self, ftp=True):
        # Mounting over /tmp, /etc and /dev of the real system would be ruinous.
        if os.environ.get(_ENV_FLAG) != "1" or os.getppid() != 1:
            raise RuntimeError("Sandbox needs enter_namespaces() first")
        self._stack = contextlib.ExitStack()
        self.daemons = []
        self.ftp = None
        try:
            self._setup(ftp)
        except BaseException:
            self.close()
            raise

    def _setup(self, ftp):
        st = self._stack
        run("mount", "--make-rprivate", "/")
        # Our own files live outside /tmp, which belongs to the daemon.
        self.private = tempfile.mkdtemp(prefix="qz_sandbox.", dir="/run")
        st.callback(os.rmdir, self.private)
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "qzprivate", self.private)
        st.callback(run, "umount", "-l", self.private, check=False)

        # A checkout or build under /tmp stays reachable at its own path.
        keep = [p for p in _paths_to_keep() if p.startswith("/tmp/")]
        cwd = os.getcwd()
        st.callback(os.chdir, cwd)
        old_tmp = self._dir("old-tmp")
        run("mount", "--bind", "/tmp", old_tmp)
        run("mount", "-t", "tmpfs", "-o", "mode=1777", "qztmp", "/tmp")
        st.callback(run, "umount", "-l", "/tmp", check=False)
        for path in keep:
            os.makedirs(path, exist_ok=True)
            run("mount", "--bind", old_tmp + path[len("/tmp"):], path)
        run("umount", "-l", old_tmp)
        os.chdir(cwd if os.path.isdir(cwd) else "/")

        upper, work = self._dir("etc-upper"), self._dir("etc-work")
        run("mount", "-t", "overlay", "qzetc",
            "-o", "lowerdir=/etc,upperdir=%s,workdir=%s" % (upper, work), "/etc")
        st.callback(run, "umount", "-l", "/etc", check=False)
        os.makedirs(WUM_DIR, exist_ok=True)

        self._setup_dev()
        self.syslog = SyslogSink(SYSLOG_PATH)
        st.callback(self.syslog.close)

        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", ROUTE_IF, "type", "veth", "peer", "name", PEER_IF)
        run("ip", "addr", "add", ROUTE_IP + "/24", "dev", ROUTE_IF)
        run("ip", "link", "set", ROUTE_IF, "up")
        run("ip", "link", "set", PEER_IF, "up")
        run("ip", "route", "add", "default", "via", GATEWAY_IP, "dev", ROUTE_IF)
        st.callback(run, "ip", "link", "del", ROUTE_IF, check=False)

        self.bin_dir = self._dir("bin")
        self.work_dir = self._dir("work")
        shutil.copy(os.path.join(TOOLS_DIR, "wum"), os.path.join(self.bin_dir, "wum"))
        if ftp:
            self.ftp = FtpSink(self._dir("ftp")).start()
            st.callback(lambda: self.ftp.stop())
        st.callback(self._stop_all)

    def _dir(self, name):
        path = os.path.join(self.private, name)
        os.makedirs(path, exist_ok=True)
        return path

    def _setup_dev(self):
        # The real nodes through a second view of /dev, which the tmpfs hides.
        stage = self._dir("hostdev")
        run("mount", "--rbind", "/dev", stage)
        try:
            run("mount", "-t", "tmpfs", "-o", "mode=0755,size=16m", "qzdev", "/dev")
            self._stack.callback(run, "umount", "-l", "/dev", check=False)
            for node in _DEV_NODES:
                if os.path.exists(os.path.join(stage, node)):
                    open("/dev/" + node, "w").close()
                    run("mount", "--bind", os.path.join(stage, node), "/dev/" + node)
            if os.path.ismount(os.path.join(stage, "pts")):
                os.mkdir("/dev/pts")
                run("mount", "--bind", os.path.join(stage, "pts"), "/dev/pts")
                os.symlink("pts/ptmx", "/dev/ptmx")
            os.mkdir("/dev/shm")
            run("mount", "-t", "tmpfs", "-o", "mode=1777", "qzshm", "/dev/shm")
            for name, target in _DEV_LINKS.items():
                os.symlink(target, "/dev/" + name)
        finally:
            run("umount", "-l", stage, check=False)

    def _stop_all(self):
        for d in self.daemons:
            d.stop(grace=1.0)
        # Whatever else runs in the pid namespace but pid 1 and this one.
        victims = [p for p in psutil.process_iter() if p.pid not in (1, os.getpid())]
        for p in victims:
            with contextlib.suppress(psutil.NoSuchProcess):
                p.kill()
        psutil.wait_procs(victims, timeout=5)

    def at_close(self, fn, *args):
        """Calls fn(*args) when the sandbox closes, before what it set up
        earlier is undone."""
        self._stack.callback(fn, *args)

    def close(self):
        self._stack.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # -- configuration and router state ------------------------------------

    def config_values(self, values=None):
        """DEFAULT_CONFIG with the sink's FTP settings, updated by values: a
        value REMOVE drops the key, others are written as JSON."""
        cfg = dict(DEFAULT_CONFIG)
        if self.ftp is not None:
            cfg.update(fh_ftp_ip=self.ftp.host, fh_ftp_port=str(self.ftp.port),
                       fh_ftp_username=self.ftp.user, fh_ftp_password=self.ftp.password)
        for key, value in (values or {}).items():
            if value is REMOVE:
                cfg.pop(key, None)
            else:
                cfg[key] = value
        return cfg

    def write_config(self, values=None, raw=None):
        """Writes /etc/qz_fh_audit.json: raw text as given, else
        config_values(values) as JSON.  Returns the bytes written."""
        if raw is None:
            raw = json.dumps(self.config_values(values), ensure_ascii=False, indent=2) + "\n"
        data = raw.encode() if isinstance(raw, str) else bytes(raw)
        with open(CONFIG_PATH, "wb") as f:
            f.write(data)
        return data

    def set_wtps(self, *listings):
        """What `wum -c wtps` prints: a list of lines per tick, the last for
        every later tick."""
        for name in os.listdir(WUM_DIR):
            if name.startswith("wtps."):
                os.unlink(os.path.join(WUM_DIR, name))
        for tick, lines in enumerate(listings):
            with open(os.path.join(WUM_DIR, "wtps.%d" % tick), "w") as f:
                f.write("".join(line + "\n" for line in lines))

    # -- running the daemon ------------------------------------------------

    def daemon_env(self, accel=DEFAULT_ACCEL, start=DEFAULT_START, env=None, preload=()):
        """Environment for the daemon.  start is a date read in the daemon's
        time zone, seconds since the epoch, or None for the real clock; the
        faked clock runs accel times as fast as the real one."""
        e = {k: v for k, v in os.environ.items() if k != _ENV_FLAG}
        e.update(PATH=self.bin_dir + ":" + SYSTEM_PATH, TZ="UTC0")
        libs = []
        if start is not None:
            if not emulation():
                libs.append(FAKETIME_PATH % ("lib/" + multiarch()))
            if isinstance(start, int):
                start = "%d" % start
                e["FAKETIME_FMT"] = "%s"
            e["FAKETIME"] = "@%s x%s" % (start, accel) if accel != 1 else "@" + start
            # Commands the daemon starts go on with its clock, and its timers
            # run on the monotonic clock, which ARM builds leave alone unless told.
            e.update(FAKETIME_DONT_RESET="1", FAKETIME_DONT_FAKE_MONOTONIC="0")
        libs += [p for p in os.environ.get("QZ_EXTRA_PRELOAD", "").split(":") if p]
        if not emulation():
            libs += list(preload)
        if libs:
            e["LD_PRELOAD"] = ":".join(libs)
        # Preloaded libraries come before a sanitizer runtime; options given
        # from outside come last and win.
        e["ASAN_OPTIONS"] = ":".join(filter(None, ("verify_asan_link_order=0:detect_leaks=0",
                                                   os.environ.get("ASAN_OPTIONS"))))
        for k, v in (env or {}).items():
            if v is None:
                e.pop(k, None)
            else:
                e[k] = v
        return e

    def start_daemon(self, args=("-D",), accel=DEFAULT_ACCEL, start=DEFAULT_START, env=None,
                     preload=(), launcher=None):
        """Starts $QZ_BIN with args; returns a Daemon.  launcher: a bash
        script that runs the daemon as "$@".  It starts in a scratch
        directory, so that a detached copy shows its change to "/"."""
        argv = daemon_argv(args, preload, faketime=start is not None)
        if launcher:
            argv = ["/bin/bash", "-c", launcher, "bash"] + argv
        d = Daemon(argv, self.daemon_env(accel, start, env, preload), self.private,
                   cwd=self.work_dir)
        self.daemons.append(d)
        return d

    def run_daemon_once(self, args=("-D",), timeout=60.0, **kw):
        """Runs the daemon to its end: (status, stdout, stderr)."""
        d = self.start_daemon(args, **kw)
        try:
            rc = d.wait(timeout)
        finally:
            d.stop(grace=0.5)
        return rc, d.stdout_text(), d.stderr_text()


def _paths_to_keep():
    """The source tree, the daemon's build directory and the target's root,
    which runs still read once /tmp is the sandbox's own."""
    paths = {os.path.dirname(TOOLS_DIR)}
    for var, fn in (("QZ_BIN", os.path.dirname), ("QZ_SYSROOT", lambda p: p)):
        if os.environ.get(var):
            paths.add(fn(os.path.realpath(os.environ[var])))
    return sorted(p for p in paths if not any(p != q and p.startswith(q + "/") for q in paths))


# -- this machine and the target ------------------------------------------------

def multiarch():
    """This machine's multiarch name, e.g. x86_64-linux-gnu."""
    return subprocess.run(["gcc", "-print-multiarch"], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=True).stdout.strip()


def emulation():
    """(emulator argv, sysroot) when the daemon is a cross build run under
    qemu-user, else None."""
    emulator = os.environ.get("QZ_EMULATOR")
    if not emulator:
        return None
    root = os.environ.get("QZ_SYSROOT")
    if not root or not os.path.isdir(root):
        raise RuntimeError("QZ_EMULATOR needs QZ_SYSROOT, the target's root")
    return shlex.split(emulator), os.path.realpath(root)


def daemon_elf():
    """(program interpreter or None, little-endian) of $QZ_BIN."""
    with open(daemon_binary(), "rb") as f:
        elf = ELFFile(f)
        interp = [s.get_interp_name() for s in elf.iter_segments() if s["p_type"] == "PT_INTERP"]
        return (interp or [None])[0], elf.little_endian


def daemon_argv(args=(), preload=(), faketime=False):
    """Command line that runs $QZ_BIN with args.  Under emulation the
    target's own loader preloads the target's libfaketime and preload, so
    that they do not reach the commands the daemon starts."""
    binary = daemon_binary()
    emulated = emulation()
    if not emulated:
        return [binary] + list(args)
    emulator, root = emulated
    libs = ([FAKETIME_PATH % "$LIB"] if faketime else []) + list(preload)
    loader = daemon_elf()[0]
    if loader is None:
        raise RuntimeError("%s is linked statically: nothing can be preloaded" % binary)
    argv = emulator + ["-L", root, root + loader]
    if libs:
        argv += ["--preload", ":".join(libs)]
    return argv + [binary] + list(args)


def daemon_binary():
    path = os.environ.get("QZ_BIN")
    if not path:
        raise RuntimeError("QZ_BIN must name the qz_fh_audit binary")
    path = os.path.realpath(path)
    if not os.access(path, os.X_OK):
        raise RuntimeError("QZ_BIN=%s is not executable" % path)
    return path


def nlstub_path():
    """The netlink stand-in built beside the daemon."""
    return os.path.join(os.path.dirname(daemon_binary()), "tools", "libqz_nlstub.so")
