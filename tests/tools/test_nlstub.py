#!/usr/bin/python3
"""Self-test of the netlink stub (libqz_nlstub.so) and the router simulator.

  cmake --build build --target qz_nlstub qz_nlstub_probe qz_nlstub_probe_asan
  /usr/bin/python3 tests/tools/test_nlstub.py [--build-dir build] [-v]

Needs root: it re-runs itself in new mount and network namespaces with a
private /tmp, so it can run beside anything else on the machine. The probe
is run plain and built with sanitizers under libfaketime, as the daemon is.
"""
import argparse
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(REPO, "tools"))
import qz_router_sim as sim  # noqa: E402

SIM = os.path.join(REPO, "tools", "qz_router_sim.py")
FAKETIME_LIB = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"
QLEN_SYSCTL = "/proc/sys/net/unix/max_dgram_qlen"
INNER_ENV = "QZ_NLSTUB_TEST_INNER"

# Set by main() once the binaries are staged.
BIN = {}


def probe_env(variant, **extra):
    """Environment for a probe: the stub alone, or after libfaketime with the
    sanitizer settings the daemon's tests use."""
    env = dict(os.environ)
    # A sanitizer build of the tree makes the plain probe a sanitized one too.
    env["ASAN_OPTIONS"] = "verify_asan_link_order=0:detect_leaks=1"
    env["UBSAN_OPTIONS"] = "halt_on_error=1:print_stacktrace=1"
    if variant == "asan":
        env["LD_PRELOAD"] = FAKETIME_LIB + ":" + BIN["stub"]
        env["FAKETIME"] = "@2024-03-05 07:04:01 x60"
        env["TZ"] = "UTC0"
    elif variant == "plain":
        env["LD_PRELOAD"] = BIN["stub"]
    env.update(extra)
    return env


def probe_path(variant):
    return BIN["probe_asan"] if variant == "asan" else BIN["probe"]


def parse_event(line):
    return dict(kv.split("=", 1) for kv in line.split()[1:])


def read_qlen():
    with open(QLEN_SYSCTL) as f:
        return int(f.read())


class ProbeTest(unittest.TestCase):
    """The stub loaded into a C client, plain and with sanitizers."""

    VARIANTS = ("plain", "asan")

    def run_probe(self, variant, args, env=None, timeout=30):
        return subprocess.run([probe_path(variant)] + args, env=env or probe_env(variant),
                              capture_output=True, text=True, timeout=timeout)

    def test_local_checks(self):
        for variant in self.VARIANTS:
            with self.subTest(variant=variant):
                r = self.run_probe(variant, ["checks"])
                self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
                self.assertIn("failures=0", r.stdout)
                self.assertNotIn("ERROR", r.stderr)  # sanitizer reports

    def test_protocol_missing_without_stub(self):
        # The reason the stub exists; if this starts failing the machine has
        # grown a real protocol 28 and the stub hides it.
        r = self.run_probe("none", ["register", "0"], env=probe_env("none"))
        self.assertEqual(r.returncode, 2)
        self.assertIn("errno=93", r.stdout)

    # (description, build_event arguments, receive path, expected fields)
    EVENTS = [
        ("http event of the edge case",
         dict(data_type=2, mac_bytes="00:11:22:aa:bb:cc", src_ip="192.168.1.10",
              dst_ip="10.0.0.1", src_port=51000, dst_port=80),
         "recvmsg",
         dict(ret="200", port="0", namelen="12", trunc="0", nlmsg_len="200", type="2",
              mac="00:11:22:aa:bb:cc", src="192.168.1.10:51000", dst="10.0.0.1:80")),
        ("shortest valid event",
         dict(data_type=1, mac_bytes="02:00:00:00:00:01", src_ip="10.1.2.3", dst_ip="8.8.8.8",
              src_port=1, dst_port=65535, length=72),
         "recvfrom",
         dict(ret="72", port="0", namelen="12", nlmsg_len="72", type="1",
              src="10.1.2.3:1", dst="8.8.8.8:65535")),
        ("one byte too short",
         dict(data_type=3, mac_bytes="02:00:00:00:00:02", src_ip="1.2.3.4", dst_ip="5.6.7.8",
              src_port=2, dst_port=3, length=71),
         "recv",
         dict(ret="71", nlmsg_len="71", type="3")),
        ("longer than the receive buffer",
         dict(data_type=2, mac_bytes="02:00:00:00:00:03", src_ip="1.1.1.1", dst_ip="2.2.2.2",
              src_port=4, dst_port=5, length=1100),
         "recvmsg",
         dict(ret="1040", trunc="1", nlmsg_len="1100", port="0")),
        ("header claims more than was sent",
         dict(data_type=2, mac_bytes="02:00:00:00:00:04", src_ip="1.1.1.1", dst_ip="2.2.2.2",
              src_port=4, dst_port=5, length=100, nlmsg_len=1000),
         "recvfrom",
         dict(ret="100", nlmsg_len="1000", namelen="12")),
        ("unknown data type",
         dict(data_type=0, mac_bytes="02:00:00:00:00:05", src_ip="1.1.1.1", dst_ip="2.2.2.2",
              src_port=4, dst_port=5),
         "recv",
         dict(ret="200", type="0")),
    ]

    def test_registration_and_events(self):
        for variant in self.VARIANTS:
            with self.subTest(variant=variant), sim.FakeKernel(block=True) as kernel:
                proc = subprocess.Popen([probe_path(variant), "register", str(len(self.EVENTS))],
                                        env=probe_env(variant), stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
                try:
                    try:
                        kernel.wait_registration(10, expected_pid=proc.pid)
                    except (TimeoutError, sim.RegistrationError):
                        proc.kill()
                        out, err = proc.communicate()
                        self.fail("probe said: %s%s" % (out, err))
                    for _, event, _, _ in self.EVENTS:
                        kernel.send_event(**event)
                    out, err = proc.communicate(timeout=30)
                finally:
                    proc.kill()
                    proc.wait()
                self.assertEqual(proc.returncode, 0, out + err)
                self.assertNotIn("ERROR", err)
                lines = out.splitlines()
                self.assertIn("cloexec=1", lines)
                self.assertIn("bound port=%d" % proc.pid, lines)
                self.assertIn("dontwait ret=-1 errno=EAGAIN", lines)
                self.assertIn("registered ret=80", lines)
                events = [parse_event(l) for l in lines if l.startswith("event ")]
                self.assertEqual(len(events), len(self.EVENTS))
                for got, (name, _, via, want) in zip(events, self.EVENTS):
                    self.assertEqual(got["via"], via, name)
                    for key, value in want.items():
                        self.assertEqual(got.get(key), value, "%s: %s" % (name, key))

    # (description, QZ_NLSTUB_FAIL, kernel bound, line the probe must print)
    FAILURES = [
        ("no kernel listening", None, False, r"registered ret=-1 Connection refused"),
        ("injected send failure", "send", True, r"registered ret=-1 Connection refused"),
        ("injected bind failure", "bind", True, r"bind failed errno=98"),
        ("injected socket failure", "socket", True, r"socket failed errno=93"),
    ]

    def test_failures(self):
        for name, fail, bind, pattern in self.FAILURES:
            for variant in self.VARIANTS:
                with self.subTest(name, variant=variant):
                    extra = {"QZ_NLSTUB_FAIL": fail} if fail else {}
                    kernel = sim.FakeKernel() if bind else None
                    try:
                        r = self.run_probe(variant, ["register", "0"],
                                           env=probe_env(variant, **extra))
                        self.assertRegex(r.stdout, pattern)
                        if kernel and fail:
                            self.assertIsNone(kernel.recv(0.1), "message got through")
                    finally:
                        if kernel:
                            kernel.close()


# Stands in for the daemon where the test must control its reading: the
# stub is loaded into a Python child, whose socket module calls the libc
# functions the stub replaces.
SILENT_DAEMON = r"""
import socket, sys
s = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 28)
s.bind((0, 0))
print(s.getsockname()[0], flush=True)
sys.stdin.read()
"""


class QueueDepthTest(unittest.TestCase):
    def depth(self, extra_env):
        env = probe_env("plain", **extra_env)
        with subprocess.Popen([sys.executable, "-c", SILENT_DAEMON], env=env,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as proc:
            try:
                port = int(proc.stdout.readline())
                self.assertEqual(port, proc.pid)
                with sim.FakeKernel(bind=False) as kernel:
                    sent, dropped = kernel.send_many((bytes(200) for _ in range(600)), pid=port)
                self.assertEqual(sent + dropped, 600)
                return sent
            finally:
                proc.kill()

    def test_depth_follows_setting_and_sysctl_is_restored(self):
        before = read_qlen()
        # A unix datagram queue takes one more than max_dgram_qlen.
        self.assertEqual(self.depth({}), before + 1)
        self.assertEqual(self.depth({"QZ_NLSTUB_QLEN": "300"}), 301)
        self.assertEqual(read_qlen(), before)


class MessageLayoutTest(unittest.TestCase):
    """Bytes written out by hand from the kernel module's layout."""

    def test_registration_golden(self):
        want = bytes.fromhex("50000000" "0000" "0000" "00000000" "04030201"
                             "01000000" "01" "01") + bytes(58)
        self.assertEqual(sim.build_registration(0x01020304), want)
        self.assertEqual(sim.parse_registration(want, 0x01020304), 0x01020304)

    def test_registration_faults(self):
        good = sim.build_registration(4321)

        def patched(offset, fmt, value):
            b = bytearray(good)
            struct.pack_into(fmt, b, offset, value)
            return bytes(b)

        cases = [
            ("short", good[:79], None, "length 79"),
            ("long", good + b"\0", None, "length 81"),
            ("nlmsg_len", patched(0, "=I", 81), None, "nlmsg_len is 81"),
            ("type", patched(4, "=H", 16), None, "nlmsg_type is 16"),
            ("flags", patched(6, "=H", 1), None, "nlmsg_flags is 1"),
            ("seq", patched(8, "=I", 7), None, "nlmsg_seq is 7"),
            ("pid zero", patched(12, "=I", 0), None, "nlmsg_pid is 0"),
            ("word", patched(16, "=I", 0x01000000), None, "u32 at 16"),
            ("byte 20", patched(20, "B", 0), None, "byte 20 is 0"),
            ("byte 21", patched(21, "B", 2), None, "byte 21 is 2"),
            ("tail", patched(79, "B", 1), None, "not all zero"),
            ("other port", good, 4322, "sent from port 4322"),
        ]
        for name, data, port, message in cases:
            with self.subTest(name):
                with self.assertRaisesRegex(sim.RegistrationError, message):
                    sim.parse_registration(data, port)

    def test_event_golden(self):
        want = bytearray(200)
        want[0:4] = bytes.fromhex("c8000000")
        want[16] = 2
        want[32:38] = bytes.fromhex("001122aabbcc")
        want[40:52] = bytes.fromhex("c0a8010a" "0a000001" "c738" "0050")
        got = sim.build_event(2, "00:11:22:AA:BB:CC", "192.168.1.10", "10.0.0.1", 51000, 80)
        self.assertEqual(got, bytes(want))
        self.assertEqual(sim.build_event(2, bytes.fromhex("001122aabbcc"), "192.168.1.10",
                                         "10.0.0.1", 51000, 80), got)

    def test_event_lengths_and_header(self):
        e = sim.build_event(2, "00-11-22-33-44-55", "1.2.3.4", "5.6.7.8", 1, 2, length=71,
                            nlmsg_len=5000, nlmsg_seq=9, nlmsg_pid=3)
        self.assertEqual(len(e), 71)
        self.assertEqual(struct.unpack_from("=IHHII", e), (5000, 0, 0, 9, 3))
        cut = sim.build_event(2, "00:11:22:33:44:55", "1.2.3.4", "5.6.7.8", 1, 2, length=36)
        self.assertEqual(cut[32:], bytes.fromhex("00112233"))
        with self.assertRaises(ValueError):
            sim.build_event(2, "00:11:22:33:44", "1.2.3.4", "5.6.7.8", 1, 2)

    def test_shell_messages(self):
        cases = [
            (sim.build_shell_msg(sim.CMD_ONLINE, sim.online_text(
                "aa:bb:cc:dd:ee:ff", "192.168.1.10", 1)),
             b"\x03\0\0\0aa:bb:cc:dd:ee:ff 192.168.1.10 1\0"),
            (sim.build_shell_msg(sim.CMD_ONLINE, sim.online_text(
                "aa:bb:cc:dd:ee:ff", "192.168.1.10", 4, "x", "13800000000")),
             b"\x03\0\0\0aa:bb:cc:dd:ee:ff 192.168.1.10 4 x 13800000000\0"),
            (sim.build_shell_msg(sim.CMD_ONLINE, sim.online_text("m", "i", 4, extra="x")),
             b"\x03\0\0\0m i 4 x\0"),
            (sim.build_shell_msg(sim.CMD_OFFLINE, "aa:bb:cc:dd:ee:ff"),
             b"\x02\0\0\0aa:bb:cc:dd:ee:ff\0"),
            (sim.build_shell_msg(7, b"no-nul", nul=False), b"\x07\0\0\0no-nul"),
        ]
        for got, want in cases:
            with self.subTest(want=want):
                self.assertEqual(got, want)


def clear_tmp():
    for name in os.listdir("/tmp"):
        path = os.path.join("/tmp", name)
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        else:
            os.unlink(path)


class StatusFileTest(unittest.TestCase):
    def setUp(self):
        clear_tmp()

    def read(self, path):
        with open(path) as f:
            return f.read()

    def test_line_as_the_daemon_splits_it(self):
        path = sim.write_wifi_info("aa:bb:cc:dd:ee:ff", "00:aa:bb:cc:dd:01", "-61", "ch6", "5g",
                                   ip="192.168.1.10")
        self.assertEqual(path, "/tmp/qztmp/clt_wifi_info/aa:bb:cc:dd:ee:ff")
        line = self.read(path)
        self.assertEqual(line, "aa:bb:cc:dd:ee:ff 192.168.1.10 -61 00:aa:bb:cc:dd:01 ch6 5g\n")
        self.assertEqual(line.split(" ")[2:5], ["-61", "00:aa:bb:cc:dd:01", "ch6"])
        self.assertEqual(os.listdir("/tmp/qztmp/clt_wifi_info"), ["aa:bb:cc:dd:ee:ff"])

    def test_ap_info_and_removal(self):
        sim.write_wifi_info("m1", "ap", ap_info=True)
        sim.write_wifi_info("m1", "ap")
        self.assertTrue(os.path.exists("/tmp/qztmp/clt_ap_info/m1"))
        sim.remove_wifi_info("m1", ap_info=False)
        self.assertFalse(os.path.exists("/tmp/qztmp/clt_wifi_info/m1"))
        self.assertTrue(os.path.exists("/tmp/qztmp/clt_ap_info/m1"))
        sim.remove_wifi_info("m1")
        sim.remove_wifi_info("m1")  # already gone
        self.assertFalse(os.path.exists("/tmp/qztmp/clt_ap_info/m1"))

    def test_tokens_that_would_shift_fields_are_refused(self):
        for bad in (dict(field_strength=""), dict(aux1="a b"), dict(aux2="y\n"),
                    dict(ap_mac="aa bb")):
            with self.subTest(**bad):
                args = dict(mac="m2", ap_mac="ap")
                args.update(bad)
                with self.assertRaises(ValueError):
                    sim.write_wifi_info(**args)
                self.assertFalse(os.path.exists("/tmp/qztmp/clt_wifi_info/m2"))
        for mac in ("", "a/b", ".."):
            with self.assertRaises(ValueError):
                sim.write_wifi_info(mac, "ap")

    def test_raw_line_and_ac_status(self):
        sim.write_status_line("m3", "a b c d e")
        self.assertEqual(self.read("/tmp/qztmp/clt_wifi_info/m3"), "a b c d e")
        sim.set_ac_status(True)
        sim.set_ac_status(True)
        self.assertTrue(os.path.exists("/tmp/qztmp/AC.status"))
        sim.set_ac_status(False)
        sim.set_ac_status(False)
        self.assertFalse(os.path.exists("/tmp/qztmp/AC.status"))


class ShellSenderTest(unittest.TestCase):
    def setUp(self):
        clear_tmp()
        self.receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.receiver.bind(sim.SHELL_SOCK_PATH)

    def tearDown(self):
        self.receiver.close()

    def drain(self):
        got = []
        while True:
            try:
                got.append(self.receiver.recv(4096, socket.MSG_DONTWAIT))
            except BlockingIOError:
                return got

    def test_nonblocking_counts_what_was_delivered(self):
        with sim.ShellSender(nonblocking=True) as sender:
            results = [sender.offline("m%d" % i) for i in range(30)]
            delivered = self.drain()
            self.assertEqual(sender.sent, len(delivered))
            self.assertEqual(sender.sent + sender.refused, 30)
            self.assertEqual(sender.sent, read_qlen() + 1)
            self.assertEqual(results.count(True), sender.sent)
            self.assertEqual(delivered[-1], b"\x02\0\0\0m%d\0" % (sender.sent - 1))

    def test_blocking_times_out_on_a_full_queue(self):
        with sim.ShellSender(block_timeout=0.2) as sender:
            for _ in range(read_qlen() + 1):
                sender.offline("m")
            start = time.monotonic()
            with self.assertRaises(TimeoutError):
                sender.offline("m")
            self.assertGreater(time.monotonic() - start, 0.15)

    def test_missing_receiver_raises(self):
        self.receiver.close()
        os.unlink(sim.SHELL_SOCK_PATH)
        for nonblocking in (False, True):
            with sim.ShellSender(nonblocking=nonblocking) as sender:
                with self.assertRaises(FileNotFoundError):
                    sender.offline("m")

    def test_rate_limit(self):
        with sim.ShellSender() as sender:
            start = time.monotonic()
            msgs = [sim.build_shell_msg(2, "m")] * 10
            self.assertEqual(sender.send_many(msgs, rate=100), (10, 0))
            self.assertGreaterEqual(time.monotonic() - start, 0.085)


class CommandLineTest(unittest.TestCase):
    def setUp(self):
        clear_tmp()

    def cli(self, *args, **kw):
        return subprocess.run([sys.executable, SIM] + list(args), capture_output=True,
                              text=True, timeout=30, **kw)

    def test_online_bulk_with_status_files(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
            receiver.bind(sim.SHELL_SOCK_PATH)
            r = self.cli("online", "02:00:00:00:00:ff", "10.0.0.254", "4", "x", "acct",
                         "--count", "3", "--wifi", "00:aa:00:aa:00:aa")
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(r.stdout, "sent=3 refused=0\n")
            got = [receiver.recv(4096) for _ in range(3)]
        self.assertEqual(got[2], b"\x03\0\0\x0002:00:00:00:01:01 10.0.1.0 4 x acct\0")
        with open("/tmp/qztmp/clt_wifi_info/02:00:00:00:01:00") as f:
            self.assertEqual(f.read().split(" ")[:4],
                             ["02:00:00:00:01:00", "10.0.0.255", "-45", "00:aa:00:aa:00:aa"])

    def test_wifi_offline_and_ac_status(self):
        self.assertEqual(self.cli("wifi", "m", "ap", "--strength", "-70").returncode, 0)
        with open("/tmp/qztmp/clt_wifi_info/m") as f:
            self.assertEqual(f.read().split(" ")[2], "-70")
        self.assertEqual(self.cli("wifi", "--remove", "m").returncode, 0)
        self.assertFalse(os.path.exists("/tmp/qztmp/clt_wifi_info/m"))
        self.assertEqual(self.cli("ac-status", "on").returncode, 0)
        self.assertTrue(os.path.exists(sim.AC_STATUS_PATH))
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
            receiver.bind(sim.SHELL_SOCK_PATH)
            self.assertEqual(self.cli("offline", "AA:BB").returncode, 0)
            self.assertEqual(receiver.recv(4096), b"\x02\0\0\0AA:BB\0")
        r = self.cli("offline", "AA:BB")  # the socket file is left, nobody reads it
        self.assertEqual(r.returncode, 1)
        self.assertIn("Connection refused", r.stderr)

    def test_http_to_a_port(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as daemon:
            daemon.bind(sim.nl_addr(4242))
            r = self.cli("http", "00:11:22:aa:bb:cc", "192.168.1.10", "10.0.0.1", "51000", "80",
                         "--pid", "4242", "--length", "72")
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(daemon.recv(4096), sim.build_event(
                2, "00:11:22:aa:bb:cc", "192.168.1.10", "10.0.0.1", 51000, 80, length=72))

    def test_kernel_prints_the_registered_pid(self):
        kernel = subprocess.Popen([sys.executable, SIM, "kernel", "--timeout", "20"],
                                  stdout=subprocess.PIPE, text=True)
        try:
            for _ in range(200):  # until it holds the kernel address
                with open("/proc/net/unix") as f:
                    if "@qz_nl28/kernel" in f.read():
                        break
                time.sleep(0.05)
            probe = subprocess.Popen([BIN["probe"], "register", "0"], env=probe_env("plain"),
                                     stdout=subprocess.PIPE, text=True)
            probe_out, _ = probe.communicate(timeout=20)
            self.assertIn("registered ret=80", probe_out)
            out, _ = kernel.communicate(timeout=20)
        finally:
            kernel.kill()
            kernel.wait()
        self.assertEqual(kernel.returncode, 0)
        self.assertEqual(out, "%d\n" % probe.pid)


def stage_binaries(build_dir, stage):
    """Copies what the tests run out of the way of the private /tmp."""
    names = {"stub": "tools/libqz_nlstub.so", "probe": "tests/qz_nlstub_probe",
             "probe_asan": "tests/qz_nlstub_probe_asan"}
    for key, name in names.items():
        src = os.path.join(build_dir, name)
        if not os.path.exists(src):
            sys.exit("%s is missing: cmake --build BUILD --target qz_nlstub qz_nlstub_probe "
                     "qz_nlstub_probe_asan" % src)
        BIN[key] = os.path.join(stage, os.path.basename(name))
        shutil.copy2(src, BIN[key])
    # The simulator too: a checkout under /tmp is hidden by the private one.
    global SIM
    SIM = shutil.copy2(SIM, os.path.join(stage, os.path.basename(SIM)))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    args, rest = parser.parse_known_args()
    tools_dir = os.path.abspath(args.build_dir)

    if os.environ.get(INNER_ENV) != "1":
        if os.geteuid() != 0:
            sys.exit("needs root (new network and mount namespaces)")
        env = dict(os.environ, **{INNER_ENV: "1"})
        cmd = ["unshare", "--mount", "--net", "--", sys.executable, os.path.abspath(__file__),
               "--build-dir", os.path.abspath(args.build_dir)] + rest
        sys.exit(subprocess.call(cmd, env=env))

    stage = tempfile.mkdtemp(prefix="qz_nlstub_test.", dir="/var/tmp")
    try:
        stage_binaries(tools_dir, stage)
        subprocess.run(["mount", "-t", "tmpfs", "qz_nlstub_test", "/tmp"], check=True)
        prog = unittest.main(argv=[sys.argv[0]] + rest, exit=False)
        return 0 if prog.result.wasSuccessful() else 1
    finally:
        shutil.rmtree(stage, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
