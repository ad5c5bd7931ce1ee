"""The router around qz_fh_audit, played by tests, benchmarks and the demo.

It writes the wireless status files under /tmp/qztmp, sends the terminal
online/offline datagrams to /tmp/qz_hk_audit_srv, and plays the kernel
module on netlink protocol 28 through libqz_nlstub.so, which carries the
daemon's netlink traffic over abstract unix sockets "\\0qz_nl28/<port>".
Paths are fixed, as in the daemon: isolate runs with namespaces.

Integers in the datagrams and netlink headers are in the daemon's byte
order, as the router's own programs write them: that of $QZ_BIN (a cross
build run under qemu-user), else this machine's.
"""

import functools
import os
import select
import socket
import struct
import sys
import time

WIFI_INFO_DIR = "/tmp/qztmp/clt_wifi_info"
AP_INFO_DIR = "/tmp/qztmp/clt_ap_info"
SHELL_SOCK_PATH = "/tmp/qz_hk_audit_srv"
CMD_OFFLINE = 2
CMD_ONLINE = 3

NL_PREFIX = b"\0qz_nl28/"
KERNEL_ADDR = NL_PREFIX + b"kernel"
DATA_APP, DATA_HTTP, DATA_DPI = 1, 2, 3
REGISTRATION_LEN = 80
EVENT_FIELDS_END = 52  # first byte after the destination port
DEFAULT_EVENT_LEN = 200
SO_SNDBUFFORCE = getattr(socket, "SO_SNDBUFFORCE", 32)
# Made-up terminals carry their number in their address: 10.x.y.z.
NUMBERED_BASE = 0x0A000000
# A status line for every made-up terminal: served by one access point.
STATUS_LINE = "t1 t2 -45 00:1a:2b:3c:4d:5e x y\n"


@functools.lru_cache(maxsize=None)
def byte_order():
    """struct prefix ("<" or ">") for the daemon's integers."""
    if os.environ.get("QZ_BIN"):
        import qz_sandbox
        return "<" if qz_sandbox.daemon_elf()[1] else ">"
    return "<" if sys.byteorder == "little" else ">"


# --- terminals and their status files -------------------------------------

def mac_of(i):
    """Made-up terminal i's MAC: 02:00 and i in the last four bytes."""
    return "02:00:" + ":".join("%02x" % b for b in struct.pack(">I", i))


def numbered_ip(n):
    """Address that carries number n (an event's, a terminal's)."""
    return socket.inet_ntoa(struct.pack(">I", NUMBERED_BASE + n))


def number_of(record):
    """The number the address column of a record (a qz_bcp record) carries:
    WA_SOURCE_FJ_0002 writes the address as a number, WA_SOURCE_FJ_0001 its
    network-order bytes read in the daemon's order."""
    value = int(record["IP_ADDRESS"])
    if "AUTH_ACCOUNT" in record:
        value = struct.unpack(">I", struct.pack(byte_order() + "I", value))[0]
    return value - NUMBERED_BASE


def status_path(mac, ap_info=False):
    if not mac or "/" in mac or mac in (".", ".."):
        raise ValueError("MAC %r cannot name a status file" % (mac,))
    return os.path.join(AP_INFO_DIR if ap_info else WIFI_INFO_DIR, mac)


def write_status_line(mac, text, ap_info=False):
    """Writes a status file with any content, whole at once: the daemon may
    read it at any moment."""
    path = status_path(mac, ap_info)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = os.path.join(os.path.dirname(path), ".%s.tmp" % mac)
    with open(tmp, "w") as f:
        f.write(text)
    os.replace(tmp, path)
    return path


def write_wifi_info(mac, ap_mac, field_strength="-45", ap_info=False, *, ip="192.168.1.2"):
    """The status line "MAC IP STRENGTH AP_MAC AUX1 AUX2"."""
    return write_status_line(mac, "%s %s %s %s x y\n" % (mac, ip, field_strength, ap_mac), ap_info)


def paced(items, rate):
    """Yields items at most `rate` per second (all at once when rate is
    falsy); a sender that falls behind catches up without sleeping."""
    start = time.monotonic()
    for i, item in enumerate(items):
        delay = start + i / rate - time.monotonic() if rate else 0
        if delay > 0:
            time.sleep(delay)
        yield item


def _sndtimeo(sock, seconds):
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO,
                    struct.pack("ll", int(seconds), int(seconds % 1 * 1e6)))


# --- online/offline datagrams ---------------------------------------------

def build_shell_msg(cmd, text, nul=True):
    """Command type (u32, the daemon's byte order), the text and its NUL."""
    data = text.encode() if isinstance(text, str) else bytes(text)
    return struct.pack(byte_order() + "I", cmd) + data + (b"\0" if nul else b"")


def online_text(mac, ip, auth_type, extra=None, account=None):
    """MAC, IP and type, then EXTRA and ACCOUNT of a type-4 login (an
    account without extra gets the placeholder "0")."""
    tokens = [mac, ip, str(auth_type)]
    if account is not None:
        tokens += ["0" if extra is None else str(extra), str(account)]
    elif extra is not None:
        tokens.append(str(extra))
    return " ".join(tokens)


class ShellSender:
    """One socket sending online/offline datagrams.  Blocking mode waits
    while the daemon's queue (ten datagrams) is full, for block_timeout
    seconds at most (then TimeoutError); non-blocking mode gives up at once
    and counts the send in `refused`.  No receiver raises OSError."""

    def __init__(self, nonblocking=False, block_timeout=10.0):
        self.nonblocking = nonblocking
        self.sent = self.refused = 0
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        _sndtimeo(self.sock, block_timeout)

    def send_raw(self, data):
        try:
            self.sock.sendto(data, socket.MSG_DONTWAIT if self.nonblocking else 0,
                             SHELL_SOCK_PATH)
        except BlockingIOError:
            if not self.nonblocking:
                raise TimeoutError("%s not read in time" % SHELL_SOCK_PATH) from None
            self.refused += 1
            return False
        self.sent += 1
        return True

    def online(self, mac, ip, auth_type, extra=None, account=None):
        return self.send_raw(build_shell_msg(CMD_ONLINE, online_text(mac, ip, auth_type, extra,
                                                                     account)))

    def offline(self, mac):
        return self.send_raw(build_shell_msg(CMD_OFFLINE, mac))

    def send_many(self, messages, rate=None):
        """Sends datagrams at `rate` per second; returns (sent, refused) of the call."""
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


# --- the kernel module ----------------------------------------------------

def parse_registration(data, sender_port):
    """Checks the daemon's registration message, sent from sender_port
    (None: unnamed); returns the pid it names.  AssertionError lists every
    difference."""
    problems = []
    if len(data) != REGISTRATION_LEN:
        problems.append("length %d, not %d" % (len(data), REGISTRATION_LEN))
    padded = bytes(data[:REGISTRATION_LEN]).ljust(REGISTRATION_LEN, b"\0")
    length, kind, flags, seq, pid, word, b20, b21 = struct.unpack_from(byte_order() + "IHHIIIBB",
                                                                       padded)
    for name, got, want in (("nlmsg_len", length, REGISTRATION_LEN), ("nlmsg_type", kind, 0),
                            ("nlmsg_flags", flags, 0), ("nlmsg_seq", seq, 0),
                            ("u32 at 16", word, 1), ("byte 20", b20, 1), ("byte 21", b21, 1)):
        if got != want:
            problems.append("%s is %d, not %d" % (name, got, want))
    if any(padded[22:]):
        problems.append("bytes 22..79 are not all zero")
    if pid == 0 or sender_port != pid:
        problems.append("nlmsg_pid %d, sent from port %s" % (pid, sender_port))
    if problems:
        raise AssertionError("bad registration (%s): %s" % (data.hex(), "; ".join(problems)))
    return pid


def build_event(data_type, mac, src_ip, dst_ip, src_port, dst_port, length=DEFAULT_EVENT_LEN,
                nlmsg_len=None):
    """An event as the kernel module lays it out, `length` bytes (cut short or
    zero-padded); nlmsg_len defaults to that length."""
    buf = bytearray(max(length, EVENT_FIELDS_END))
    struct.pack_into(byte_order() + "I", buf, 0, length if nlmsg_len is None else nlmsg_len)
    buf[16] = data_type
    buf[32:38] = bytes.fromhex(mac.replace(":", ""))
    buf[40:48] = socket.inet_aton(src_ip) + socket.inet_aton(dst_ip)
    struct.pack_into("!HH", buf, 48, src_port, dst_port)
    return bytes(buf[:length])


class FakeKernel:
    """The kernel module on "\\0qz_nl28/kernel": receives the daemon's
    registration (bind it before the daemon starts: it is sent once) and
    sends it events.  Like the real module it does not wait by default: an
    event the daemon's full queue refuses is counted in `dropped`.
    block=True waits instead, block_timeout seconds at most."""

    def __init__(self, block=False, block_timeout=10.0):
        self.pid = None
        self.sent = self.dropped = 0
        self.block = block
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(KERNEL_ADDR)
        _sndtimeo(self.sock, block_timeout)
        # Unsent unix datagrams count against the sender's buffer; the
        # kernel has no such limit, only the receiver's queue may stop it.
        self.sock.setsockopt(socket.SOL_SOCKET, SO_SNDBUFFORCE, 64 << 20)

    def wait_registration(self, timeout=10.0, expected_pid=None):
        """Waits for the registration, checks it and returns the daemon's pid."""
        if not select.select([self.sock], [], [], timeout)[0]:
            raise TimeoutError("no registration within %.1f s" % timeout)
        data, addr = self.sock.recvfrom(65536)
        name = addr[len(NL_PREFIX):] if isinstance(addr, bytes) and addr.startswith(NL_PREFIX) else b""
        self.pid = parse_registration(data, int(name) if name.isdigit() else None)
        if expected_pid is not None and self.pid != expected_pid:
            raise AssertionError("registration names pid %d, not %d" % (self.pid, expected_pid))
        return self.pid

    def send_raw(self, data):
        try:
            self.sock.sendto(data, 0 if self.block else socket.MSG_DONTWAIT,
                             NL_PREFIX + str(self.pid).encode())
        except BlockingIOError:
            if self.block:
                raise TimeoutError("port %d not read in time" % self.pid) from None
            self.dropped += 1
            return False
        self.sent += 1
        return True

    def send_event(self, data_type, mac, src_ip, dst_ip, src_port, dst_port, **kw):
        return self.send_raw(build_event(data_type, mac, src_ip, dst_ip, src_port, dst_port, **kw))

    def send_http(self, mac, src_ip, dst_ip, src_port, dst_port, **kw):
        return self.send_event(DATA_HTTP, mac, src_ip, dst_ip, src_port, dst_port, **kw)

    def send_many(self, messages, rate=None):
        """Sends events at `rate` per second; returns (sent, dropped) of the call."""
        sent, dropped = self.sent, self.dropped
        for data in paced(messages, rate):
            self.send_raw(data)
        return self.sent - sent, self.dropped - dropped

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
