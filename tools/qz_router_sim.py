#!/usr/bin/python3
"""The router around qz_fh_audit, played by tests, benchmarks and the demo.

It writes the wireless status files under /tmp/qztmp, sends the terminal
online/offline datagrams to /tmp/qz_hk_audit_srv, and plays the kernel
module on netlink protocol 28 (through libqz_nlstub.so, which carries the
daemon's netlink traffic over abstract unix sockets "\\0qz_nl28/<port>").

Paths are fixed, as in the daemon: isolate runs with mount and network
namespaces. Standard library only.

Integers in the datagrams and netlink headers are in the daemon's byte
order, as the router's own programs write them: that of the binary named
by $QZ_BIN (a cross build run under qemu-user), else this machine's.

Command line (for shell scripts):
  qz_router_sim.py wifi MAC AP_MAC [--strength S] [--ip IP] [--aux1 A]
                        [--aux2 B] [--ap-info] [--count N]
  qz_router_sim.py wifi --remove MAC [--count N]
  qz_router_sim.py ac-status on|off
  qz_router_sim.py online MAC IP AUTH [EXTRA [ACCOUNT]] [--wifi AP_MAC]
                        [--count N] [--rate R] [--nonblock]
  qz_router_sim.py offline MAC [--count N] [--rate R] [--nonblock]
  qz_router_sim.py http MAC SRC_IP DST_IP SRC_PORT DST_PORT [--pid PID]
                        [--type T] [--length L] [--count N] [--rate R] [--block]
  qz_router_sim.py kernel [--timeout S] [--stay]
With --count N, event i uses MAC + i (and for online IP + i); --rate R sends
R events per second. Bulk sends print "sent=N refused=M".
"""

import argparse
import functools
import ipaddress
import os
import select
import signal
import socket
import struct
import sys
import time

QZTMP_DIR = "/tmp/qztmp"
WIFI_INFO_DIR = QZTMP_DIR + "/clt_wifi_info"
AP_INFO_DIR = QZTMP_DIR + "/clt_ap_info"
AC_STATUS_PATH = QZTMP_DIR + "/AC.status"

SHELL_SOCK_PATH = "/tmp/qz_hk_audit_srv"
CMD_OFFLINE = 2
CMD_ONLINE = 3

NL_NAME_PREFIX = b"\0qz_nl28/"
KERNEL_ADDR = NL_NAME_PREFIX + b"kernel"
DATA_APP = 1
DATA_HTTP = 2
DATA_DPI = 3
REGISTRATION_LEN = 80
EVENT_FIELDS_END = 52  # first byte after the destination port
DEFAULT_EVENT_LEN = 200
DAEMON_NAME = "qz_fh_audit"
SO_SNDBUFFORCE = getattr(socket, "SO_SNDBUFFORCE", 32)


# --- byte order -------------------------------------------------------------

@functools.lru_cache(maxsize=None)
def _elf_byte_order(path):
    try:
        with open(path, "rb") as f:
            head = f.read(6)
    except OSError:
        return None
    if head[:4] != b"\x7fELF":
        return None
    return "<" if head[5] == 1 else ">"


def byte_order():
    """struct prefix ("<" or ">") for the daemon's integers."""
    order = _elf_byte_order(os.environ["QZ_BIN"]) if os.environ.get("QZ_BIN") else None
    return order or ("<" if sys.byteorder == "little" else ">")


# --- wireless status files ------------------------------------------------

def _check_name(mac):
    if not mac or "/" in mac or mac in (".", ".."):
        raise ValueError("MAC %r cannot name a status file" % (mac,))


def status_path(mac, ap_info=False):
    """Path of a client's status file: clt_wifi_info, or clt_ap_info."""
    _check_name(mac)
    return os.path.join(AP_INFO_DIR if ap_info else WIFI_INFO_DIR, mac)


def _write_atomic(path, data):
    # The daemon may read at any moment; it must never see half a line.
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = os.path.join(os.path.dirname(path), ".%s.tmp" % os.path.basename(path))
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def write_status_line(mac, text, ap_info=False):
    """Writes a status file with arbitrary content (for bad-input tests)."""
    path = status_path(mac, ap_info)
    _write_atomic(path, text.encode() if isinstance(text, str) else bytes(text))
    return path


def write_wifi_info(mac, ap_mac, field_strength="-45", aux1="x", aux2="y",
                    ap_info=False, *, ip="192.168.1.2"):
    """Writes the client's status line "MAC IP STRENGTH AP_MAC AUX1 AUX2\\n".

    The daemon splits at spaces and takes tokens three to six, so a token
    that is empty or holds white space is refused (ValueError) rather than
    silently shifting the fields; write_status_line writes broken lines.
    """
    tokens = [mac, ip, field_strength, ap_mac, aux1, aux2]
    for token in tokens:
        token = str(token)
        if not token or any(c.isspace() for c in token):
            raise ValueError("status token %r is empty or holds white space" % (token,))
    return write_status_line(mac, " ".join(str(t) for t in tokens) + "\n", ap_info)


def remove_wifi_info(mac, ap_info=None):
    """Removes the client's status files: both kinds unless ap_info is given."""
    kinds = (False, True) if ap_info is None else (bool(ap_info),)
    for kind in kinds:
        try:
            os.unlink(status_path(mac, kind))
        except FileNotFoundError:
            pass


def set_ac_status(present):
    """Creates or removes the marker that allows the clt_ap_info fallback."""
    if present:
        os.makedirs(QZTMP_DIR, exist_ok=True)
        with open(AC_STATUS_PATH, "a"):
            pass
    else:
        try:
            os.unlink(AC_STATUS_PATH)
        except FileNotFoundError:
            pass


# --- helpers for bulk runs ------------------------------------------------

def mac_add(mac, n):
    """MAC text plus n, lower case with colons: mac_add("02:00:00:00:00:ff", 1)
    is "02:00:00:00:01:00"."""
    value = (int(mac.replace(":", "").replace("-", ""), 16) + n) % (1 << 48)
    digits = "%012x" % value
    return ":".join(digits[i:i + 2] for i in range(0, 12, 2))


def ip_add(ip, n):
    return str(ipaddress.IPv4Address((int(ipaddress.IPv4Address(ip)) + n) % (1 << 32)))


def paced(items, rate):
    """Yields items at most `rate` per second (all at once when rate is falsy).
    A sender that falls behind catches up without sleeping."""
    if not rate:
        yield from items
        return
    start = time.monotonic()
    for i, item in enumerate(items):
        delay = start + i / rate - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        yield item


def _sndtimeo(sock, seconds):
    sec = int(seconds)
    usec = int((seconds - sec) * 1e6)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", sec, usec))


# --- online/offline datagrams ---------------------------------------------

def build_shell_msg(cmd, text, nul=True):
    """Command type (u32, the daemon's byte order) followed by the text and
    its NUL."""
    data = text.encode() if isinstance(text, str) else bytes(text)
    return struct.pack(byte_order() + "I", cmd) + data + (b"\0" if nul else b"")


def online_text(mac, ip, auth_type, extra=None, account=None):
    """Online text: MAC, IP and type, then EXTRA and ACCOUNT for type-4
    logins. An account without extra gets the placeholder "0"; extra alone
    gives four tokens (a short type-4 message)."""
    tokens = [mac, ip, str(auth_type)]
    if account is not None:
        tokens += ["0" if extra is None else str(extra), str(account)]
    elif extra is not None:
        tokens.append(str(extra))
    return " ".join(tokens)


class ShellSender:
    """One socket sending online/offline datagrams to the daemon.

    Blocking mode waits while the daemon's queue (ten datagrams by default)
    is full, and raises TimeoutError after block_timeout seconds. Non-blocking
    mode gives up at once: send returns False and `refused` counts it, so a
    soak test knows exactly how many datagrams were delivered (`sent`).
    A missing or dead receiver raises OSError in both modes.
    """

    def __init__(self, nonblocking=False, block_timeout=10.0):
        self.nonblocking = nonblocking
        self.sent = 0
        self.refused = 0
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        if not nonblocking:
            _sndtimeo(self.sock, block_timeout)
        self.block_timeout = block_timeout

    def send_raw(self, data):
        flags = socket.MSG_DONTWAIT if self.nonblocking else 0
        try:
            self.sock.sendto(data, flags, SHELL_SOCK_PATH)
        except BlockingIOError:
            if not self.nonblocking:
                raise TimeoutError("%s not read for %.1f s" %
                                   (SHELL_SOCK_PATH, self.block_timeout)) from None
            self.refused += 1
            return False
        self.sent += 1
        return True

    def command(self, cmd, text):
        return self.send_raw(build_shell_msg(cmd, text))

    def online(self, mac, ip, auth_type, extra=None, account=None):
        return self.command(CMD_ONLINE, online_text(mac, ip, auth_type, extra, account))

    def offline(self, mac):
        return self.command(CMD_OFFLINE, mac)

    def send_many(self, messages, rate=None):
        """Sends datagrams (bytes) at `rate` per second; returns (sent, refused)
        for this call."""
        sent, refused = self.sent, self.refused
        for data in paced(messages, rate):
            self.send_raw(data)
        return self.sent - sent, self.refused - refused

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def send_raw(data):
    with ShellSender() as sender:
        return sender.send_raw(data)


# --- the kernel module ----------------------------------------------------

class RegistrationError(AssertionError):
    pass


def parse_registration(data, sender_port=None):
    """Checks a registration message and returns the pid it names.

    sender_port is the port id the message came from (None: unknown); the
    daemon's socket must be bound to the same pid. Raises RegistrationError
    listing every difference.
    """
    problems = []
    if len(data) != REGISTRATION_LEN:
        problems.append("length %d, not %d" % (len(data), REGISTRATION_LEN))
    padded = bytes(data[:REGISTRATION_LEN]).ljust(REGISTRATION_LEN, b"\0")
    order = byte_order()
    nlmsg_len, nlmsg_type, flags, seq, pid = struct.unpack_from(order + "IHHII", padded, 0)
    word, byte20, byte21 = struct.unpack_from(order + "IBB", padded, 16)
    for name, got, want in (("nlmsg_len", nlmsg_len, REGISTRATION_LEN),
                            ("nlmsg_type", nlmsg_type, 0), ("nlmsg_flags", flags, 0),
                            ("nlmsg_seq", seq, 0), ("u32 at 16", word, 1),
                            ("byte 20", byte20, 1), ("byte 21", byte21, 1)):
        if got != want:
            problems.append("%s is %d, not %d" % (name, got, want))
    if any(padded[22:]):
        problems.append("bytes 22..79 are not all zero")
    if pid == 0:
        problems.append("nlmsg_pid is 0")
    if sender_port is not None and sender_port != pid:
        problems.append("sent from port %d but nlmsg_pid is %d" % (sender_port, pid))
    if problems:
        raise RegistrationError("bad registration (%s): %s" % (data.hex(), "; ".join(problems)))
    return pid


def mac_to_bytes(mac):
    """Six bytes from bytes or from text with ":" or "-" separators."""
    if isinstance(mac, (bytes, bytearray)):
        raw = bytes(mac)
    else:
        raw = bytes.fromhex(mac.replace(":", "").replace("-", ""))
    if len(raw) != 6:
        raise ValueError("MAC %r is not six bytes" % (mac,))
    return raw


def build_event(data_type, mac_bytes, src_ip, dst_ip, src_port, dst_port,
                length=DEFAULT_EVENT_LEN, nlmsg_len=None, nlmsg_type=0,
                nlmsg_flags=0, nlmsg_seq=0, nlmsg_pid=0):
    """An event message as the kernel module lays it out.

    mac_bytes is six bytes or MAC text. The message is `length` bytes (cut
    short or zero-padded; a cut may fall inside the fields); nlmsg_len
    defaults to that length and may be set to anything for bad-input tests.
    """
    buf = bytearray(max(length, EVENT_FIELDS_END))
    struct.pack_into(byte_order() + "IHHII", buf, 0, length if nlmsg_len is None else nlmsg_len,
                     nlmsg_type, nlmsg_flags, nlmsg_seq, nlmsg_pid)
    buf[16] = data_type
    buf[32:38] = mac_to_bytes(mac_bytes)
    buf[40:44] = socket.inet_aton(src_ip)
    buf[44:48] = socket.inet_aton(dst_ip)
    struct.pack_into("!HH", buf, 48, src_port, dst_port)
    return bytes(buf[:length])


def nl_port_of(addr):
    """Port id behind a stub address: 0 for the kernel, None for others."""
    if isinstance(addr, (bytes, bytearray)) and addr.startswith(NL_NAME_PREFIX):
        name = bytes(addr[len(NL_NAME_PREFIX):])
        if name == b"kernel":
            return 0
        if name.isdigit():
            return int(name)
    return None


def nl_addr(port):
    return KERNEL_ADDR if port == 0 else NL_NAME_PREFIX + str(port).encode()


class FakeKernel:
    """The kernel module: receives the daemon's registration and sends it
    events, on "\\0qz_nl28/kernel" (bind=False sends from an unnamed socket,
    e.g. while another FakeKernel holds the name).

    Bind it before the daemon starts: the registration is sent only once.
    Like the real module, sends do not wait by default: when the daemon's
    queue is full the event is dropped, send_event returns False and
    `dropped` counts it. block=True waits instead (block_timeout seconds at
    most, then TimeoutError). A daemon without a bound socket raises OSError.
    """

    def __init__(self, bind=True, block=False, block_timeout=10.0):
        self.pid = None
        self.sent = 0
        self.dropped = 0
        self.block = block
        self.block_timeout = block_timeout
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            if bind:
                self.sock.bind(KERNEL_ADDR)
            _sndtimeo(self.sock, block_timeout)
            # Unsent unix datagrams count against the sender's buffer (about
            # 170 events by default); the kernel has no such limit, only the
            # receiver's queue may stop it.
            try:
                self.sock.setsockopt(socket.SOL_SOCKET, SO_SNDBUFFORCE, 64 << 20)
            except PermissionError:
                pass
        except OSError:
            self.sock.close()
            raise

    def recv(self, timeout=5.0):
        """Next message from the daemon as (bytes, sender port), or None."""
        ready, _, _ = select.select([self.sock], [], [], timeout)
        if not ready:
            return None
        data, addr = self.sock.recvfrom(65536, socket.MSG_DONTWAIT)
        return data, nl_port_of(addr)

    def wait_registration(self, timeout=10.0, expected_pid=None):
        """Waits for the registration, checks it and returns the daemon's pid
        (also kept as self.pid). Raises TimeoutError or RegistrationError."""
        got = self.recv(timeout)
        if got is None:
            raise TimeoutError("no registration within %.1f s" % timeout)
        data, port = got
        if port is None:
            raise RegistrationError("registration came from an unnamed socket")
        pid = parse_registration(data, port)
        if expected_pid is not None and pid != expected_pid:
            raise RegistrationError("registration names pid %d, expected %d" % (pid, expected_pid))
        self.pid = pid
        return pid

    def send_raw(self, data, pid=None):
        pid = self.pid if pid is None else pid
        if pid is None:
            raise ValueError("no daemon pid: wait_registration first, or pass pid")
        flags = 0 if self.block else socket.MSG_DONTWAIT
        try:
            self.sock.sendto(data, flags, nl_addr(pid))
        except BlockingIOError:
            if self.block:
                raise TimeoutError("port %d not read for %.1f s" %
                                   (pid, self.block_timeout)) from None
            self.dropped += 1
            return False
        self.sent += 1
        return True

    def send_event(self, data_type, mac_bytes, src_ip, dst_ip, src_port, dst_port,
                   length=DEFAULT_EVENT_LEN, pid=None, **header):
        """Builds an event (see build_event; header takes nlmsg_len and the
        other header fields) and sends it. Returns False if it was dropped."""
        return self.send_raw(build_event(data_type, mac_bytes, src_ip, dst_ip, src_port,
                                         dst_port, length, **header), pid)

    def send_http(self, mac_bytes, src_ip, dst_ip, src_port, dst_port, **kw):
        return self.send_event(DATA_HTTP, mac_bytes, src_ip, dst_ip, src_port, dst_port, **kw)

    def send_many(self, messages, rate=None, pid=None):
        """Sends messages (bytes) at `rate` per second; returns (sent, dropped)
        for this call."""
        sent, dropped = self.sent, self.dropped
        for data in paced(messages, rate):
            self.send_raw(data, pid)
        return self.sent - sent, self.dropped - dropped

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def find_daemon_pid():
    """Pid of the one running qz_fh_audit (as this pid namespace sees it)."""
    pids = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/comm" % entry) as f:
                if f.read().strip() == DAEMON_NAME:
                    pids.append(int(entry))
        except OSError:
            pass
    if len(pids) != 1:
        raise LookupError("%d %s processes running; give --pid" % (len(pids), DAEMON_NAME))
    return pids[0]


# --- command line ---------------------------------------------------------

def _report(sent, refused, count):
    if count > 1:
        print("sent=%d refused=%d" % (sent, refused))
    return 0


def _cmd_wifi(args):
    for i in range(args.count):
        mac = mac_add(args.mac, i) if args.count > 1 else args.mac
        if args.remove:
            remove_wifi_info(mac, True if args.ap_info else None)
        else:
            write_wifi_info(mac, args.ap_mac, args.strength, args.aux1, args.aux2,
                            args.ap_info, ip=ip_add(args.ip, i))
    return 0


def _cmd_ac_status(args):
    set_ac_status(args.state == "on")
    return 0


def _cmd_online(args):
    def messages():
        for i in range(args.count):
            mac = mac_add(args.mac, i) if args.count > 1 else args.mac
            ip = ip_add(args.ip, i)
            if args.wifi:
                write_wifi_info(mac, args.wifi, ip=ip)
            yield build_shell_msg(CMD_ONLINE, online_text(mac, ip, args.auth, args.extra,
                                                          args.account))
    with ShellSender(nonblocking=args.nonblock) as sender:
        sent, refused = sender.send_many(messages(), args.rate)
    return _report(sent, refused, args.count)


def _cmd_offline(args):
    macs = (mac_add(args.mac, i) if args.count > 1 else args.mac for i in range(args.count))
    with ShellSender(nonblocking=args.nonblock) as sender:
        sent, refused = sender.send_many((build_shell_msg(CMD_OFFLINE, m) for m in macs),
                                         args.rate)
    return _report(sent, refused, args.count)


def _cmd_http(args):
    pid = args.pid if args.pid is not None else find_daemon_pid()
    events = (build_event(args.type, mac_add(args.mac, i) if args.count > 1 else args.mac,
                          args.src_ip, args.dst_ip, args.src_port, args.dst_port, args.length)
              for i in range(args.count))
    with FakeKernel(bind=False, block=args.block) as kernel:
        sent, dropped = kernel.send_many(events, args.rate, pid)
    return _report(sent, dropped, args.count)


def _cmd_kernel(args):
    with FakeKernel() as kernel:
        print(kernel.wait_registration(args.timeout), flush=True)
        if not args.stay:
            return 0
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        while True:
            got = kernel.recv(None)
            print("message from port %s: %d bytes" % (got[1], len(got[0])), flush=True)


def main(argv=None):
    parser = argparse.ArgumentParser(description="Plays the router around qz_fh_audit.")
    sub = parser.add_subparsers(dest="command", required=True)

    def bulk(p, nonblock=True):
        p.add_argument("--count", type=int, default=1)
        p.add_argument("--rate", type=float, default=None, help="events per second")
        if nonblock:
            p.add_argument("--nonblock", action="store_true",
                           help="count datagrams refused by a full queue instead of waiting")

    p = sub.add_parser("wifi", help="write or remove a client's status file")
    p.add_argument("mac")
    p.add_argument("ap_mac", nargs="?")
    p.add_argument("--strength", default="-45")
    p.add_argument("--ip", default="192.168.1.2")
    p.add_argument("--aux1", default="x")
    p.add_argument("--aux2", default="y")
    p.add_argument("--ap-info", action="store_true", help="write clt_ap_info instead")
    p.add_argument("--remove", action="store_true")
    p.add_argument("--count", type=int, default=1)
    p.set_defaults(fn=_cmd_wifi)

    p = sub.add_parser("ac-status", help="create or remove AC.status")
    p.add_argument("state", choices=("on", "off"))
    p.set_defaults(fn=_cmd_ac_status)

    p = sub.add_parser("online", help="send online datagrams")
    p.add_argument("mac")
    p.add_argument("ip")
    p.add_argument("auth", type=int)
    p.add_argument("extra", nargs="?")
    p.add_argument("account", nargs="?")
    p.add_argument("--wifi", metavar="AP_MAC", help="write each client's status file first")
    bulk(p)
    p.set_defaults(fn=_cmd_online)

    p = sub.add_parser("offline", help="send offline datagrams")
    p.add_argument("mac")
    bulk(p)
    p.set_defaults(fn=_cmd_offline)

    p = sub.add_parser("http", help="send kernel events (needs libqz_nlstub.so in the daemon)")
    p.add_argument("mac")
    p.add_argument("src_ip")
    p.add_argument("dst_ip")
    p.add_argument("src_port", type=int)
    p.add_argument("dst_port", type=int)
    p.add_argument("--pid", type=int, help="daemon pid (default: the running qz_fh_audit)")
    p.add_argument("--type", type=int, default=DATA_HTTP, help="data type byte")
    p.add_argument("--length", type=int, default=DEFAULT_EVENT_LEN)
    p.add_argument("--block", action="store_true", help="wait on a full queue instead of dropping")
    bulk(p, nonblock=False)
    p.set_defaults(fn=_cmd_http)

    p = sub.add_parser("kernel", help="wait for the daemon's registration and print its pid")
    p.add_argument("--timeout", type=float, default=30.0)
    p.add_argument("--stay", action="store_true", help="keep the kernel address until killed")
    p.set_defaults(fn=_cmd_kernel)

    args = parser.parse_args(argv)
    if args.command == "wifi" and not args.remove and not args.ap_mac:
        parser.error("wifi needs AP_MAC unless --remove is given")
    try:
        return args.fn(args)
    except (OSError, ValueError, LookupError, AssertionError) as e:
        print("%s: %s" % (os.path.basename(sys.argv[0]), e), file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
