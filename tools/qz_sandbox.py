"""Private world for end-to-end runs of qz_fh_audit.

The daemon has fixed paths (/tmp, /etc/qz_fh_audit.json, /dev/log) and asks
the routing table for its address, so tests isolate it with namespaces
instead of changing paths:

    enter_namespaces()          # first thing in the test program
    with Sandbox() as sb:
        sb.write_config()
        d = sb.start_daemon()
        d.wait_for(r"mkdir /tmp/146")

enter_namespaces() re-runs the program under unshare with new mount, network
and pid namespaces.  Each Sandbox then mounts a fresh tmpfs on /tmp, an
overlay on /etc, a private /dev whose /dev/log is read by the sandbox, a
veth pair with a default route, an FTP sink and a bin directory with the
router's commands; closing it kills every process it left and undoes all
of it, so tests in one program do not see each other.

Runs under Debian's /usr/bin/python3 (pyftpdlib), as root.

A cross build runs under qemu-user when QZ_EMULATOR names the emulator
(qemu-aarch64-static) and QZ_SYSROOT the target's root, which holds its
loader, libraries and libfaketime (packaging/cross/sysroot.sh makes one).
The daemon's own loader then preloads the target's libfaketime and the
libraries a test asks for; the commands it starts are this machine's
programs and run on the real clock.  They cannot share the daemon's faked
clock: libfaketime passes it to children in shared memory laid out in the
daemon's byte order and word size.
"""

import codecs
import contextlib
import fcntl
import json
import os
import platform
import re
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

TOOLS_DIR = os.path.dirname(os.path.abspath(__file__))
if TOOLS_DIR not in sys.path:
    sys.path.insert(0, TOOLS_DIR)

from qz_config_keys import config_doc  # noqa: E402
from qz_ftp_sink import FtpSink  # noqa: E402

UNSHARE = "/usr/bin/unshare"
# Where Debian's libfaketime lies: /usr/lib/<multiarch>/faketime.
FAKETIME_PATH = "/usr/%s/faketime/libfaketime.so.1"
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

CONFIG_PATH = "/etc/qz_fh_audit.json"
LOCK_PATH = "/tmp/qz_fh_lock"
WUM_LISTING = "/etc/qz_sim/wtps"
SYSLOG_PATH = "/dev/log"

ROUTE_IF = "qzr0"
PEER_IF = "qzr1"
ROUTE_IP = "10.77.0.2"
GATEWAY_IP = "10.77.0.1"

DEFAULT_START = "2024-03-05 07:04:01"
DEFAULT_ACCEL = 60

# A value for each key the daemon reads, in its order (a key added to its list
# without a value here stops the import).  The FTP values are replaced by the
# sandbox's sink when it has one.
DEFAULT_CONFIG = config_doc({
    "fh_netbar_property_str": "3",
    "fh_netbar_type_str": "9",
    "fh_netbar_name": "Harbour Cafe",
    "fh_equipment_name": "AP-01",
    "fh_source_str": "350100",
    "fh_address": "Main Street 1",
    "fh_dst_str": "350000",
    "fh_longitude": "119.30",
    "fh_latitude": "26.08",
    "fh_org_name": "Example Networks Ltd",
    "fh_org_tel_num": "0591-88880000",
    "fh_org_mail": "support@example.com",
    "fh_org_address": "Harbour Road 2",
    "fh_ftp_ip": "127.0.0.1",
    "fh_ftp_port": "21",
    "fh_ftp_username": "qzaudit",
    "fh_ftp_password": "qz-pass-1",
})
# Value for Sandbox.write_config() that leaves the key out of the file.
REMOVE = object()

_ENV_FLAG = "QZ_IN_SANDBOX"


# -- namespaces ---------------------------------------------------------------

def enter_namespaces():
    """Runs the rest of the program in new mount, network and pid namespaces.

    Outside: re-executes the same command line under unshare and exits with
    its status (this call does not return).  Inside: pid 1 stays behind as
    a reaper that collects orphans (a detached daemon is re-parented to it)
    and exits with the program's status; the program goes on in its child.
    When pid 1 ends, the kernel kills whatever the program left running.
    """
    if os.environ.get(_ENV_FLAG) != "1":
        if os.geteuid() != 0:
            sys.exit("qz_sandbox: namespaces need root")
        env = dict(os.environ)
        env[_ENV_FLAG] = "1"
        argv = [UNSHARE, "--mount", "--net", "--pid", "--fork", "--mount-proc",
                "--kill-child", sys.executable] + sys.orig_argv[1:]
        sys.stdout.flush()
        sys.stderr.flush()
        os.execve(UNSHARE, argv, env)
    if os.getpid() == 1:
        _become_reaper()
    # A background job of a shell starts with SIGINT and SIGQUIT ignored,
    # nohup with SIGHUP ignored, and the daemon would inherit that; its
    # tests expect the default actions.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for sig in (signal.SIGQUIT, signal.SIGHUP, signal.SIGTERM):
        signal.signal(sig, signal.SIG_DFL)
    _run("mount", "--make-rprivate", "/")


def _become_reaper():
    child = os.fork()
    if child == 0:
        return

    def forward(signum, _frame):
        with contextlib.suppress(ProcessLookupError):
            os.kill(child, signum)

    # pid 1 ignores signals it has no handler for; pass the polite ones on.
    # Ctrl-C reaches the program directly through the process group.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, forward)
    while True:
        try:
            pid, status = os.wait()
        except ChildProcessError:
            os._exit(1)
        if pid == child:
            code = os.waitstatus_to_exitcode(status)
            os._exit(code if code >= 0 else 128 - code)


def _require_namespaces():
    # Mounting over /tmp, /etc and /dev of the real system would be ruinous.
    if os.environ.get(_ENV_FLAG) != "1" or os.getppid() != 1:
        raise RuntimeError("Sandbox needs enter_namespaces() first")


def _run(*cmd, check=True):
    r = subprocess.run(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, text=True)
    if check and r.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(cmd), r.returncode,
                                                   r.stderr.strip()))
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


def proc_status(pid):
    """Fields of /proc/PID/status as a dict, or None when there is no such process."""
    try:
        with open("/proc/%d/status" % pid) as f:
            return dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    except (FileNotFoundError, ProcessLookupError):
        return None


def is_running(pid):
    """True while the process exists and is not a zombie."""
    st = proc_status(pid)
    return st is not None and not st.get("State", "").startswith(("Z", "X"))


def caught_signals(pid):
    """Signal numbers for which the process has installed a handler."""
    st = proc_status(pid)
    if st is None:
        return set()
    mask = int(st["SigCgt"], 16)
    return {n for n in range(1, 65) if mask & (1 << (n - 1))}


def pending_signals(pid):
    """Signals sent to the process and not yet delivered."""
    st = proc_status(pid)
    if st is None:
        return set()
    mask = int(st["SigPnd"], 16) | int(st["ShdPnd"], 16)
    return {n for n in range(1, 65) if mask & (1 << (n - 1))}


def send_signal(pid, sig, timeout=60.0):
    """Sends sig and waits until it has been delivered.

    Two different signals pending at once are delivered lowest number
    first, whatever the order they were sent in; a test that means
    "SIGUSR2, then SIGUSR1" has to let each arrive before the next."""
    os.kill(pid, sig)
    wait_until(lambda: sig not in pending_signals(pid) or not is_running(pid), timeout,
               "delivery of signal %d to %d" % (sig, pid), interval=0.002)
    # Delivered means the handler is entered; give it time to return.
    time.sleep(0.01)


# -- this machine and the target ------------------------------------------------

_multiarch = None


def multiarch():
    """This machine's multiarch name, e.g. x86_64-linux-gnu."""
    global _multiarch
    if _multiarch is None:
        for cmd in (["gcc", "-print-multiarch"], ["dpkg-architecture", "-qDEB_HOST_MULTIARCH"]):
            try:
                out = subprocess.run(cmd, stdin=subprocess.DEVNULL, capture_output=True,
                                     text=True).stdout.strip()
            except OSError:
                continue
            if out:
                _multiarch = out
                break
        else:
            raise RuntimeError("cannot tell this machine's multiarch name (install gcc)")
    return _multiarch


def faketime_lib():
    """This machine's libfaketime."""
    path = FAKETIME_PATH % ("lib/" + multiarch())
    if not os.path.exists(path):
        raise RuntimeError("%s is missing: install faketime" % path)
    return path


def emulation():
    """(emulator, sysroot) when the daemon is a cross build run under
    qemu-user, else None."""
    emulator = os.environ.get("QZ_EMULATOR")
    if not emulator:
        return None
    root = os.environ.get("QZ_SYSROOT")
    if not root or not os.path.isdir(root):
        raise RuntimeError("QZ_EMULATOR needs QZ_SYSROOT, the target's root")
    return shlex.split(emulator), os.path.realpath(root)


def elf_interpreter(path):
    """The program interpreter (loader) an ELF executable names, or None."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"\x7fELF":
        raise RuntimeError("%s is not an ELF file" % path)
    order = "<" if data[5] == 1 else ">"
    if data[4] == 2:  # 64-bit
        phoff, = struct.unpack_from(order + "Q", data, 32)
        entsize, count = struct.unpack_from(order + "HH", data, 54)
        entry = order + "IIQQQQ"  # type, flags, offset, vaddr, paddr, filesz
    else:
        phoff, = struct.unpack_from(order + "I", data, 28)
        entsize, count = struct.unpack_from(order + "HH", data, 42)
        entry = order + "IIIIII"  # type, offset, vaddr, paddr, filesz, memsz
    for i in range(count):
        fields = struct.unpack_from(entry, data, phoff + i * entsize)
        if fields[0] == 3:  # PT_INTERP
            offset, size = (fields[2], fields[5]) if data[4] == 2 else (fields[1], fields[4])
            return data[offset:offset + size].rstrip(b"\0").decode()
    return None


# Syscalls in which a process waits for its sockets (poll, select, pselect6,
# ppoll and their 64-bit-time forms), by this machine's architecture: an
# emulated daemon waits in the emulator's calls, which are this machine's.
_WAIT_SYSCALLS_BY_MACHINE = {
    "x86_64": {7, 23, 270, 271},
    "aarch64": {72, 73},
    "riscv64": {72, 73},
    "armv7l": {142, 168, 335, 336, 413, 414},
    "armv8l": {142, 168, 335, 336, 413, 414},
    "i686": {142, 168, 308, 309, 413, 414},
    "s390x": {142, 168, 301, 302},
    "ppc64le": {82, 142, 167, 280, 281},
    "mips": {4142, 4168, 4301, 4302, 4413, 4414},
}


def _wait_syscalls():
    machine = platform.machine()
    if machine not in _WAIT_SYSCALLS_BY_MACHINE:
        raise RuntimeError("no list of waiting syscalls for %s" % machine)
    return _WAIT_SYSCALLS_BY_MACHINE[machine]


def children_of(pid):
    kids = []
    try:
        for tid in os.listdir("/proc/%d/task" % pid):
            with open("/proc/%d/task/%s/children" % (pid, tid)) as f:
                kids += [int(k) for k in f.read().split()]
    except OSError:
        pass
    return kids


def is_idle(pid):
    """True when the process waits in select/poll and runs no command."""
    try:
        with open("/proc/%d/syscall" % pid) as f:
            nr = f.read().split()[0]
    except (OSError, IndexError):
        return False
    return nr.isdigit() and int(nr) in _wait_syscalls() and not children_of(pid)


def wait_idle(pid, timeout=60.0):
    """Waits until the process is idle twice in a row, 50 ms apart: its
    start-up or current job is over and it waits for the next event."""
    def twice():
        return is_idle(pid) and (time.sleep(0.05) or is_idle(pid))
    wait_until(twice, timeout, "process %d to wait idle" % pid)


def pids_of(exe):
    """Live processes running the executable exe, leaving out children
    that have not yet replaced it by exec (a command being started)."""
    exe = os.path.realpath(exe)
    found = []
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            # A binary rebuilt while its copy runs shows as "... (deleted)".
            link = os.readlink("/proc/%s/exe" % name)
            if link.split(" (deleted)")[0] == exe and is_running(int(name)):
                found.append(int(name))
        except OSError:
            pass
    return sorted(p for p in found if int((proc_status(p) or {}).get("PPid", 0)) not in found)


def lock_is_held(path=LOCK_PATH):
    """True when some process holds an exclusive flock on path.

    Probes with a shared lock of its own for an instant: do not call it
    while a daemon is starting, or that start may find the lock taken."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    except (FileNotFoundError, IsADirectoryError):
        return False
    try:
        fcntl.flock(fd, fcntl.LOCK_SH | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    finally:
        os.close(fd)
    return False


def open_by(path):
    """Pids of live processes with path open."""
    path = os.path.realpath(path)
    found = set()
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) == os.getpid():
            continue
        fd_dir = "/proc/%s/fd" % name
        try:
            for fd in os.listdir(fd_dir):
                if os.readlink(os.path.join(fd_dir, fd)) == path:
                    found.add(int(name))
                    break
        except OSError:
            pass
    return sorted(p for p in found if is_running(p))


def lock_holders(path=LOCK_PATH):
    """Processes that have the lock file open, leaving out children that
    share it with their parent only until they exec (a command being
    started).  /proc/locks cannot tell: it names the process that took the
    lock, and after daemon() that is the parent, which has gone."""
    pids = open_by(path)
    return [p for p in pids if int((proc_status(p) or {}).get("PPid", 0)) not in pids]


def lock_holder(path=LOCK_PATH):
    """Pid of the process holding the daemon's lock, or None."""
    if not lock_is_held(path):
        return None
    pids = lock_holders(path)
    return pids[0] if pids else None


def _kill_strays():
    """SIGKILLs every process of the pid namespace but pid 1 and this one."""
    me = os.getpid()
    victims = []
    for name in os.listdir("/proc"):
        if name.isdigit() and int(name) not in (1, me):
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(name), signal.SIGKILL)
                victims.append(int(name))
    for pid in victims:
        # Our own children are ours to reap; orphans go to pid 1.
        with contextlib.suppress(ChildProcessError):
            os.waitpid(pid, 0)
    deadline = time.monotonic() + 5
    while any(os.path.exists("/proc/%d" % p) for p in victims) and time.monotonic() < deadline:
        time.sleep(0.02)


# -- captured output ----------------------------------------------------------

class _Capture:
    """Bytes of several named streams, appended by reader threads."""

    def __init__(self, names):
        self._cond = threading.Condition()
        self._raw = {n: bytearray() for n in names}
        self._text = {n: "" for n in names}
        self._dec = {n: codecs.getincrementaldecoder("utf-8")(errors="replace") for n in names}
        self.open_streams = 0

    def add(self, names, data):
        with self._cond:
            for n in names:
                self._raw[n] += data
                self._text[n] += self._dec[n].decode(data)
            self._cond.notify_all()

    def close_stream(self, names):
        with self._cond:
            for n in names:
                self._text[n] += self._dec[n].decode(b"", final=True)
            self.open_streams -= 1
            self._cond.notify_all()

    def raw(self, name):
        with self._cond:
            return bytes(self._raw[name])

    def text(self, name):
        with self._cond:
            return self._text[name]

    def wait_for(self, pattern, name, timeout, since, flags, ended, describe):
        regex = re.compile(pattern, flags)
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                m = regex.search(self._text[name], since)
                if m:
                    return m
                left = deadline - time.monotonic()
                if left <= 0 or ended():
                    why = "timed out after %.1f s" % timeout if left <= 0 else "output ended"
                    raise AssertionError("%s: %r not found on %s\n%s"
                                         % (why, pattern, name, describe()))
                self._cond.wait(min(left, 0.2))


def _tail(text, limit=3000):
    return text if len(text) <= limit else "..." + text[-limit:]


class Daemon:
    """One started copy of the daemon with its standard output and error
    captured separately (and, interleaved as read, as "any")."""

    def __init__(self, argv, env, cwd="/"):
        self.argv = list(argv)
        self._cap = _Capture(("stdout", "stderr", "any"))
        self.proc = subprocess.Popen(self.argv, env=env, cwd=cwd, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.pid = self.proc.pid
        self._readers = []
        for name, pipe in (("stdout", self.proc.stdout), ("stderr", self.proc.stderr)):
            self._cap.open_streams += 1
            t = threading.Thread(target=self._read, args=(name, pipe), daemon=True,
                                 name="qz-%s-%d" % (name, self.pid))
            t.start()
            self._readers.append(t)

    def _read(self, name, pipe):
        fd = pipe.fileno()
        try:
            while True:
                data = os.read(fd, 65536)
                if not data:
                    break
                self._cap.add((name, "any"), data)
        finally:
            pipe.close()
            self._cap.close_stream((name,))

    @property
    def returncode(self):
        return self.proc.poll()

    def running(self):
        return self.proc.poll() is None

    def stdout_bytes(self):
        return self._cap.raw("stdout")

    def stderr_bytes(self):
        return self._cap.raw("stderr")

    def stdout_text(self):
        return self._cap.text("stdout")

    def stderr_text(self):
        return self._cap.text("stderr")

    def any_text(self):
        return self._cap.text("any")

    def mark(self, stream="stdout"):
        """Current length of a stream's text, for wait_for(..., since=mark)."""
        return len(self._cap.text(stream))

    def describe(self):
        return ("daemon %s (pid %d, status %s)\n--- stdout:\n%s\n--- stderr:\n%s"
                % (" ".join(self.argv[1:]), self.pid, self.proc.poll(),
                   _tail(self.stdout_text()), _tail(self.stderr_text())))

    def wait_for(self, pattern, stream="stdout", timeout=60.0, since=0, flags=re.M):
        """Waits until the regex matches the stream's text (from offset since)
        and returns the match; raises AssertionError with the output's tail
        on time-out or when the output has ended without a match."""
        return self._cap.wait_for(pattern, stream, timeout, since, flags,
                                  lambda: self._cap.open_streams == 0, self.describe)

    def wait(self, timeout=60.0):
        """Waits for the process to end; returns its status (negative for a signal)."""
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running after %.1f s\n%s" % (timeout, self.describe()))
        self._join_readers()
        return self.proc.returncode

    def _join_readers(self, timeout=1.0):
        # Commands the daemon started may hold its pipes after it has gone;
        # what they write later is still collected, but nobody waits for it.
        deadline = time.monotonic() + timeout
        for t in self._readers:
            t.join(max(0.0, deadline - time.monotonic()))

    def signal(self, sig):
        os.kill(self.pid, sig)

    def stop(self, grace=3.0):
        """SIGTERM, then SIGKILL after grace seconds; returns the status."""
        if self.proc.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(grace)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self._join_readers()
        return self.proc.returncode


# -- syslog -------------------------------------------------------------------

_SYSLOG_RE = re.compile(r"<(\d+)>([A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d) ([^:\[\s]+)(?:\[\d+\])?: ",
                        re.S)


class SyslogRecord:
    """One datagram: priority split into facility and severity, and the
    message after libc's time stamp and tag."""

    def __init__(self, raw):
        self.raw = raw
        m = _SYSLOG_RE.match(raw)
        if m:
            pri = int(m.group(1))
            self.facility, self.severity = pri >> 3, pri & 7
            self.tag, self.message = m.group(3), raw[m.end():]
        else:
            self.facility = self.severity = self.tag = None
            self.message = raw

    def __repr__(self):
        return "SyslogRecord(%r)" % self.raw


class SyslogSink:
    """AF_UNIX datagram socket at a path, read by a thread.

    mark(), lines() and records() first wait until every datagram sent
    before the call has been read, so a test that has just seen the
    daemon end sees all it logged."""

    _SYNC = b"\0qz-sandbox-sync "

    def __init__(self, path=SYSLOG_PATH):
        self.path = path
        self._cond = threading.Condition()
        self._msgs = []
        self._synced = 0
        self._sync_sent = 0
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sock.bind(path)
        os.chmod(path, 0o666)
        self._sock.settimeout(0.1)
        self._stop = False
        self._thread = threading.Thread(target=self._read, name="qz-syslog", daemon=True)
        self._thread.start()

    def _read(self):
        while not self._stop:
            try:
                data = self._sock.recv(65536)
            except socket.timeout:
                continue
            except OSError:
                break
            with self._cond:
                if data.startswith(self._SYNC):
                    self._synced = max(self._synced, int(data[len(self._SYNC):]))
                else:
                    self._msgs.append(data.decode("utf-8", errors="replace"))
                self._cond.notify_all()

    def sync(self, timeout=60.0):
        """Returns once everything sent to the socket so far has been read:
        datagrams of one socket queue are read in the order sent."""
        with self._cond:
            self._sync_sent += 1
            token = self._sync_sent
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            client.settimeout(timeout)
            client.sendto(self._SYNC + b"%d" % token, self.path)
        with self._cond:
            if not self._cond.wait_for(lambda: self._synced >= token, timeout):
                raise AssertionError("syslog reader did not catch up in %.1f s" % timeout)

    def close(self):
        self._stop = True
        self._thread.join(2)
        self._sock.close()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)

    def mark(self):
        self.sync()
        with self._cond:
            return len(self._msgs)

    def lines(self, since=0):
        self.sync()
        with self._cond:
            return self._msgs[since:]

    def wait_for(self, pattern, timeout=60.0, since=0, flags=0):
        """Waits for a datagram the regex matches (searched over the raw text,
        priority included); returns its SyslogRecord."""
        regex = re.compile(pattern, flags)
        deadline = time.monotonic() + timeout
        with self._cond:
            i = since
            while True:
                for j in range(i, len(self._msgs)):
                    if regex.search(self._msgs[j]):
                        return SyslogRecord(self._msgs[j])
                i = len(self._msgs)
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("timed out after %.1f s: %r not in syslog\n%s"
                                         % (timeout, pattern,
                                            _tail("".join(self._msgs[since:]))))
                self._cond.wait(min(left, 0.2))


# -- the sandbox ----------------------------------------------------------------

_DEV_NODES = ("null", "zero", "full", "random", "urandom", "tty")
_DEV_LINKS = {"fd": "/proc/self/fd", "stdin": "/proc/self/fd/0",
              "stdout": "/proc/self/fd/1", "stderr": "/proc/self/fd/2"}

_active = None


class Sandbox:
    """Fresh /tmp, writable /etc, private /dev with /dev/log, routed veth
    pair, bin directory with the router's commands, and (ftp=True) an FTP
    sink; closing it stops everything started inside and unmounts."""

    def __init__(self, ftp=True):
        global _active
        _require_namespaces()
        if _active is not None:
            raise RuntimeError("one Sandbox at a time")
        self._stack = contextlib.ExitStack()
        self.daemons = []
        self.ftp = None
        self.syslog = None
        _active = self
        try:
            self._setup(ftp)
        except BaseException:
            self.close()
            raise

    def _setup(self, ftp):
        st = self._stack
        _run("mount", "--make-rprivate", "/")

        # Our own files live outside /tmp, which belongs to the daemon.
        base = "/run" if os.path.isdir("/run") else "/var/tmp"
        self.private = tempfile.mkdtemp(prefix="qz_sandbox.", dir=base)
        st.callback(os.rmdir, self.private)
        _run("mount", "-t", "tmpfs", "-o", "mode=0755", "qzprivate", self.private)
        st.callback(_run, "umount", "-l", self.private, check=False)

        # A checkout or build under /tmp stays reachable at its own path, and
        # so does the working directory if it lies there.
        keep = [p for p in _paths_to_keep() if p.startswith("/tmp/")]
        cwd = os.getcwd()
        st.callback(os.chdir, cwd)
        if keep:
            old_tmp = self._dir("old-tmp")
            _run("mount", "--bind", "/tmp", old_tmp)
        _run("mount", "-t", "tmpfs", "-o", "mode=1777", "qztmp", "/tmp")
        st.callback(_run, "umount", "-l", "/tmp", check=False)
        for path in keep:
            os.makedirs(path, exist_ok=True)
            _run("mount", "--bind", old_tmp + path[len("/tmp"):], path)
        if keep:
            _run("umount", "-l", old_tmp)
        os.chdir(cwd if os.path.isdir(cwd) else "/")

        upper, work = self._dir("etc-upper"), self._dir("etc-work")
        _run("mount", "-t", "overlay", "qzetc",
             "-o", "lowerdir=/etc,upperdir=%s,workdir=%s" % (upper, work), "/etc")
        st.callback(_run, "umount", "-l", "/etc", check=False)

        self._setup_dev()
        self.syslog = SyslogSink(SYSLOG_PATH)
        st.callback(self.syslog.close)

        self._setup_net()

        self.bin_dir = self._dir("bin")
        self.work_dir = self._dir("work")
        shutil.copy(os.path.join(TOOLS_DIR, "wum"), os.path.join(self.bin_dir, "wum"))
        os.chmod(os.path.join(self.bin_dir, "wum"), 0o755)

        if ftp:
            self.ftp = FtpSink(self._dir("ftp")).start()
            st.callback(self.ftp.stop)

        st.callback(self._stop_all)

    def _dir(self, name):
        path = os.path.join(self.private, name)
        os.makedirs(path, exist_ok=True)
        return path

    def _setup_dev(self):
        # Reach the real nodes through a second view of /dev, since the
        # tmpfs hides them.
        stage = self._dir("hostdev")
        _run("mount", "--rbind", "/dev", stage)
        try:
            _run("mount", "-t", "tmpfs", "-o", "mode=0755,size=16m", "qzdev", "/dev")
            self._stack.callback(_run, "umount", "-l", "/dev", check=False)
            for node in _DEV_NODES:
                src = os.path.join(stage, node)
                if os.path.exists(src):
                    open("/dev/" + node, "w").close()
                    _run("mount", "--bind", src, "/dev/" + node)
            if os.path.ismount(os.path.join(stage, "pts")):
                os.mkdir("/dev/pts")
                _run("mount", "--bind", os.path.join(stage, "pts"), "/dev/pts")
                os.symlink("pts/ptmx", "/dev/ptmx")
            os.mkdir("/dev/shm")
            os.chmod("/dev/shm", 0o1777)
            _run("mount", "-t", "tmpfs", "-o", "mode=1777", "qzshm", "/dev/shm")
            for name, target in _DEV_LINKS.items():
                os.symlink(target, "/dev/" + name)
        finally:
            _run("umount", "-l", stage, check=False)

    def _setup_net(self):
        _run("ip", "link", "set", "lo", "up")
        # An earlier sandbox (or test) may have left or changed the pair.
        _run("ip", "link", "del", ROUTE_IF, check=False)
        _run("ip", "link", "add", ROUTE_IF, "type", "veth", "peer", "name", PEER_IF)
        _run("ip", "addr", "add", ROUTE_IP + "/24", "dev", ROUTE_IF)
        _run("ip", "link", "set", ROUTE_IF, "up")
        _run("ip", "link", "set", PEER_IF, "up")
        _run("ip", "route", "add", "default", "via", GATEWAY_IP, "dev", ROUTE_IF)
        self._stack.callback(_run, "ip", "link", "del", ROUTE_IF, check=False)

    def _stop_all(self):
        for d in self.daemons:
            d.stop(grace=1.0)
        _kill_strays()

    def at_close(self, fn, *args):
        """Calls fn(*args) when the sandbox closes, before what it set up
        earlier is undone."""
        self._stack.callback(fn, *args)

    def close(self):
        global _active
        try:
            self._stack.close()
        finally:
            if _active is self:
                _active = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # -- configuration and router state ------------------------------------

    def config_values(self, values=None):
        """DEFAULT_CONFIG with the sink's FTP settings, updated by values.

        A value REMOVE drops the key; other values are written as JSON
        (None as null, 21 as a number)."""
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
        """Writes /etc/qz_fh_audit.json: raw text or bytes as given, else
        config_values(values) as JSON.  Returns the bytes written."""
        if raw is not None:
            data = raw.encode() if isinstance(raw, str) else bytes(raw)
        else:
            data = json.dumps(self.config_values(values), ensure_ascii=False,
                              indent=2).encode() + b"\n"
        with open(CONFIG_PATH, "wb") as f:
            f.write(data)
        return data

    def set_wtps(self, lines=None, raw=None, fifo=False):
        """Sets what `wum -c wtps` prints: each line with a newline, or raw
        bytes as given.  set_wtps(None) removes the listing (no output);
        fifo=True makes it a FIFO, so that wum blocks until the test
        writes to it."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(WUM_LISTING)
        if fifo:
            os.makedirs(os.path.dirname(WUM_LISTING), exist_ok=True)
            os.mkfifo(WUM_LISTING)
            return
        if lines is None and raw is None:
            return
        if raw is None:
            raw = "".join(line + "\n" for line in lines)
        os.makedirs(os.path.dirname(WUM_LISTING), exist_ok=True)
        with open(WUM_LISTING, "wb") as f:
            f.write(raw.encode() if isinstance(raw, str) else raw)

    # -- syslog ------------------------------------------------------------

    def syslog_lines(self, since=0):
        """Datagrams received on /dev/log, raw text with the "<N>" priority."""
        return self.syslog.lines(since)

    # -- running the daemon ------------------------------------------------

    def daemon_env(self, accel=DEFAULT_ACCEL, start=DEFAULT_START, env=None, preload=()):
        """Environment for the daemon.

        start is a date "YYYY-MM-DD hh:mm:ss" read in the daemon's time
        zone, or seconds since the epoch (int), or None for the real clock;
        the faked clock runs accel times as fast as the real one."""
        e = {k: v for k, v in os.environ.items() if k != _ENV_FLAG}
        e["PATH"] = self.bin_dir + ":" + SYSTEM_PATH
        e["TZ"] = "UTC0"
        libs = []
        emulated = emulation()
        if start is not None:
            if not emulated:
                libs.append(faketime_lib())
            if isinstance(start, (int, float)):
                start = "%d" % start
                e["FAKETIME_FMT"] = "%s"
            e["FAKETIME"] = "@%s x%s" % (start, accel) if accel != 1 else "@" + start
            # Commands the daemon starts continue its clock instead of
            # starting again at the same instant.
            e["FAKETIME_DONT_RESET"] = "1"
            # The daemon's timers run on the monotonic clock, which
            # libfaketime's ARM builds leave alone unless told otherwise.
            e["FAKETIME_DONT_FAKE_MONOTONIC"] = "0"
        libs += [p for p in os.environ.get("QZ_EXTRA_PRELOAD", "").split(":") if p]
        if not emulated:
            libs += list(preload)
        if libs:
            e["LD_PRELOAD"] = ":".join(libs)
        # Preloaded libraries come before a sanitizer runtime; options given
        # from outside come last and win.
        asan = "verify_asan_link_order=0:detect_leaks=0"
        e["ASAN_OPTIONS"] = asan + (":" + os.environ["ASAN_OPTIONS"]
                                    if os.environ.get("ASAN_OPTIONS") else "")
        if env:
            for k, v in env.items():
                if v is None:
                    e.pop(k, None)
                else:
                    e[k] = v
        return e

    def start_daemon(self, args=("-D",), accel=DEFAULT_ACCEL, start=DEFAULT_START, env=None,
                     preload=(), cwd=None):
        """Starts $QZ_BIN with args under the faked clock; returns a Daemon.

        It starts in a scratch directory of the sandbox (cwd), so that a
        detached copy shows its change to "/"."""
        d = Daemon(daemon_argv(args, preload, faketime=start is not None),
                   self.daemon_env(accel, start, env, preload), cwd=cwd or self.work_dir)
        self.daemons.append(d)
        return d

    def run_daemon_once(self, args=("-D",), timeout=60.0, **kw):
        """Runs the daemon to its end: (status, stdout, stderr)."""
        d = self.start_daemon(args, **kw)
        try:
            rc = d.wait(timeout)
        except AssertionError:
            d.stop(grace=0.5)
            raise
        return rc, d.stdout_text(), d.stderr_text()


def _paths_to_keep():
    """The source tree and the daemon's build directory, which tests and
    tools still read once /tmp is the sandbox's own."""
    paths = {os.path.dirname(TOOLS_DIR)}
    if os.environ.get("QZ_BIN"):
        paths.add(os.path.dirname(os.path.realpath(os.environ["QZ_BIN"])))
    if os.environ.get("QZ_SYSROOT"):
        paths.add(os.path.realpath(os.environ["QZ_SYSROOT"]))
    # A path inside another one is kept with it.
    return sorted(p for p in paths if not any(p != q and p.startswith(q + "/") for q in paths))


def daemon_argv(args=(), preload=(), faketime=False):
    """Command line that runs $QZ_BIN with args. Under emulation the target's
    own loader preloads the target's libfaketime (with faketime) and the
    libraries in preload, so that they do not reach the commands the
    daemon starts (see above); natively daemon_env() preloads them."""
    binary = daemon_binary()
    emulated = emulation()
    if not emulated:
        return [binary] + list(args)
    emulator, root = emulated
    # $LIB: the target loader's own library directory, lib/<multiarch>.
    libs = ([FAKETIME_PATH % "$LIB"] if faketime else []) + list(preload)
    loader = elf_interpreter(binary)
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
