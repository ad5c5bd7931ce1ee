"""The netbar group (145) through the real binary: terminals coming online
and going offline by datagram, HTTP events from the kernel side through the
netlink stand-in, the place, vendor and access-point records, and what
reaches the FTP server in each cycle's zip.

The clock mostly runs 60 times fast, so a 300-s cycle takes five real
seconds.
Every zip is paired with its name from the "form zip file" log line and
must pass tools/qz_bcp_check --exact."""

import calendar
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import zipfile

import qz_router_sim as sim
import qz_sandbox
from e2e_base import SandboxCase, log_entries, messages
from qz_sandbox import wait_until

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CHECKER = os.path.join(ROOT, "tools", "qz_bcp_check")

# 2024-03-05 07:04:01 UTC, where the faked clock starts.
START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))
CYCLE_REAL_SECONDS = 5.0

WACODE = "35010010AC1000"
ORG_CODE = "507183926"
ROUTE_IP_NUMBER = "33574154"  # 10.77.0.2, its network-order bytes read little-endian

AP1, AP2 = "00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:6f"
APS = ["1 %s online AP-Lobby" % AP1, "2 %s online AP-Terrace" % AP2]

SOURCE_0001, SOURCE_0002 = "WA_SOURCE_FJ_0001", "WA_SOURCE_FJ_0002"
BASIC_DATASETS = ("WA_BASIC_FJ_0001", "WA_BASIC_FJ_0002",
                  "WA_BASIC_FJ_0003_1", "WA_BASIC_FJ_0003_2")
DATASET_ORDER = (SOURCE_0001, SOURCE_0002) + BASIC_DATASETS

ZIP_LOG = re.compile(r"netbar_report_timer<\d+>: DEBUG:form zip file :(\S+)")
ZIP_NAME = re.compile(r"145-%s-350100-350000-(\d+)-(\d{5})\.zip" % ORG_CODE)
BLOCK = re.compile(r'<ITEM key="A010004" val="([^"]*)".*?<ITEM key="H010020" val="([^"]*)"'
                   r'.*?<ITEM key="I010034" val="([^"]*)"', re.S)


def record_mac(mac):
    return mac.replace(":", "-").upper()


def equipment_id(mac):
    return (ORG_CODE + mac.replace(":", "").replace("-", "").upper())[:20]


def ip_little(ip):
    """An address as the 0001 records carry it: network-order bytes read
    as a little-endian number."""
    return str(struct.unpack("<I", socket.inet_aton(ip))[0])


def ip_host(ip):
    return str(struct.unpack("!I", socket.inet_aton(ip))[0])


def session_id(mac, seconds):
    return (WACODE + mac.replace(":", "").replace("-", "").lower() + str(seconds))[:64]


def online_line(auth_code, account, mac, ip, ap_mac, strength, start, end=""):
    """The 34 fields of a WA_SOURCE_FJ_0001 record."""
    return ([auth_code, account, WACODE, "9"] + [""] * 6 +
            [str(start), str(end), ip_little(ip), ROUTE_IP_NUMBER, "", "80", "80", "", "",
             record_mac(mac), equipment_id(ap_mac), record_mac(ap_mac), "119.30", "26.08",
             session_id(mac, start), strength] + [""] * 8)


def http_line(mac, ip, port, dst_ip, dst_port, ap_mac, capture):
    """The 21 fields of a WA_SOURCE_FJ_0002 record of an HTTP event."""
    return [session_id(mac, capture), WACODE, "1", ip_host(ip), str(port), "16777216", "",
            "256", "256", "", "", ip_host(dst_ip), "", str(dst_port), str(dst_port),
            record_mac(mac), equipment_id(ap_mac), record_mac(ap_mac), "119.30", "26.08",
            str(capture)]


def shell_datagram(cmd, text, nul=True):
    return sim.build_shell_msg(cmd, text, nul)


class Archive:
    """One uploaded netbar zip: its name, its index blocks in order as
    (dataset, file, count), and the lines of each BCP file."""

    def __init__(self, name, path):
        self.name = name
        self.path = path
        m = ZIP_NAME.fullmatch(name)
        if not m:
            raise AssertionError("zip name %r is not a netbar zip name" % name)
        self.time, self.sequence = int(m.group(1)), int(m.group(2))
        with zipfile.ZipFile(path) as z:
            members = {n[2:] if n.startswith("./") else n: z.read(n) for n in z.namelist()}
        index = members.pop("GAB_ZIP_INDEX.xml").decode()
        self.blocks = [(code, f, int(count)) for code, f, count in BLOCK.findall(index)]
        self.files = {n: data.decode().split("\n")[:-1] for n, data in members.items()}

    def datasets(self):
        return [code for code, _, _ in self.blocks]

    def fields(self, dataset):
        """Field lists of every line of the dataset, its files in index order."""
        return [line.split("\t") for code, f, _ in self.blocks if code == dataset
                for line in self.files[f]]


class NetbarCase(SandboxCase):

    def start_netbar(self, accel=60, aps=APS, env=None, kernel=True):
        """Starts the daemon with the netlink stand-in and, when kernel is
        true, a FakeKernel that has checked its registration."""
        stub = os.path.join(os.path.dirname(qz_sandbox.daemon_binary()), "tools",
                            "libqz_nlstub.so")
        if not os.path.isfile(stub):
            self.fail("no netlink stand-in at %s: build the qz_nlstub target" % stub)
        self.sb.write_config()
        self.sb.set_wtps(aps)
        self.kernel = None
        if kernel:
            # Bound first: the registration is sent once, at start-up.
            self.kernel = sim.FakeKernel(block=True)
            self.addCleanup(self.kernel.close)
        d = self.sb.start_daemon(["-D"], accel=accel, preload=(stub,), env=env)
        if kernel:
            self.kernel.wait_registration(10, expected_pid=d.pid)
        d.wait_for(r"init shell fd success!")
        self.shell = sim.ShellSender(block_timeout=20)
        self.addCleanup(self.shell.close)
        return d

    def zip_names(self, d):
        return ZIP_LOG.findall(d.stdout_text())

    def archives(self, d, count, timeout=None):
        """Waits for the first count netbar zips; returns them as Archives,
        each checked by qz_bcp_check --exact."""
        timeout = timeout or count * CYCLE_REAL_SECONDS + 10
        names = wait_until(lambda: (lambda n: n if len(n) >= count else None)(self.zip_names(d)),
                           timeout, "%d netbar zips in the log" % count)
        uploads = wait_until(
            lambda: (lambda u: u if len(u) >= count else None)(
                [u for u in self.sb.ftp.uploads() if u.remote == "tmp/145"]),
            10, "%d uploads of tmp/145" % count)
        result = []
        for name, upload in zip(names[:count], uploads[:count]):
            self.assert_checker_passes(name, upload.path)
            result.append(Archive(name, upload.path))
        return result

    def assert_checker_passes(self, name, path):
        r = subprocess.run([sys.executable, CHECKER, "--exact", "--json", "--name", name, path],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        summary = json.loads(r.stdout)
        self.assertEqual((r.returncode, summary["faults"]), (0, []),
                         "%s: %s" % (name, r.stderr))

    def online(self, mac, ip, auth, extra=None, account=None):
        self.shell.online(mac, ip, auth, extra, account)

    def offline(self, mac):
        self.shell.offline(mac)

    def http(self, mac, ip, dst_ip, port, dst_port, **kw):
        self.assertTrue(self.kernel.send_http(mac, ip, dst_ip, port, dst_port, **kw))

    def assert_no_errors(self, d, allowed=()):
        """No WARN or ERROR line but the allowed messages, and no sanitizer report."""
        unexpected = [e.message for e in log_entries(d.stderr_text())
                      if e.level is None or e.message not in allowed]
        self.assertEqual(unexpected, [], d.describe())


class EventCycleTest(NetbarCase):

    def test_events_land_in_their_cycle_and_sessions_span_cycles(self):
        # Left by an earlier run; start-up must throw it away unsent.
        os.makedirs("/tmp/145", exist_ok=True)
        with open("/tmp/145/145-350100-1-00000-WA_SOURCE_FJ_0001-0.bcp", "w") as f:
            f.write("stale\n")

        plain, typed, ninety_nine, upper = ("aa:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:01",
                                            "aa:bb:cc:dd:ee:02", "AA:BB:CC:DD:EE:03")
        dropped = {"aa:bb:cc:dd:ee:10": 0, "aa:bb:cc:dd:ee:11": 2, "aa:bb:cc:dd:ee:12": 13}
        no_status = "aa:bb:cc:dd:ee:20"
        web, web_no_status, web_upper_file = ("00:11:22:aa:bb:cc", "00:11:22:aa:bb:dd",
                                              "00:11:22:aa:bb:ee")
        sim.write_wifi_info(plain, AP1, "-45")
        sim.write_wifi_info(typed, AP2, "-60")
        sim.write_wifi_info(ninety_nine, AP1, "-50")
        sim.write_wifi_info(upper, AP2, "-70")
        for mac in dropped:
            sim.write_wifi_info(mac, AP1)
        sim.write_wifi_info(web, AP2, "-55")
        # HTTP events name the terminal in lower case; this file is not it.
        sim.write_wifi_info(web_upper_file.upper(), AP1)

        d = self.start_netbar()
        # Cycle 1.
        self.online(plain, "192.168.1.10", 1)
        self.online(typed, "192.168.1.11", 4, "x", "13800138000")
        self.online(ninety_nine, "192.168.1.12", 99)
        self.online(upper, "192.168.1.13", 1)
        for mac, auth in dropped.items():
            self.online(mac, "192.168.1.30", auth)
        self.online(no_status, "192.168.1.31", 1)
        self.http(web, "192.168.1.10", "10.0.0.1", 51000, 80)
        self.http(web_no_status, "192.168.1.10", "10.0.0.1", 51001, 80)
        self.http(web_upper_file, "192.168.1.10", "10.0.0.1", 51002, 80)
        d.wait_for(r"can not find access mac:00:11:22:aa:bb:ee\n")

        [first] = self.archives(d, 1)
        # Cycle 2: the tick that made the first zip is still running; what
        # is sent now is handled after it.
        self.offline(plain)
        self.offline(plain)
        self.offline(upper.lower())
        self.offline(upper)
        self.online(ninety_nine, "192.168.1.12", 99)
        self.offline(ninety_nine)
        for mac in list(dropped) + [no_status]:
            self.offline(mac)
        self.http(web, "192.168.1.10", "10.0.0.2", 40000, 8080)
        [first, second] = self.archives(d, 2)

        self.assertEqual((first.sequence, second.sequence), (0, 1))
        self.assertEqual(first.datasets(), [SOURCE_0001, SOURCE_0002])
        self.assertEqual(second.datasets(), list(DATASET_ORDER))
        self.assertNotIn("stale", "".join(l for f in first.files.values() for l in f))
        self.assertTrue(all(name.startswith("145-350100-") for name in first.files))

        # Cycle 1: one online record per known terminal with a mapped type.
        lines = first.fields(SOURCE_0001)
        self.assertEqual([l[19] for l in lines], [record_mac(m) for m in
                                                  (plain, typed, ninety_nine, upper)])
        starts = [int(l[10]) for l in lines]
        for start in starts:
            self.assertTrue(START_EPOCH <= start <= first.time, starts)
        self.assertEqual(lines[0], online_line("1029999", plain, plain, "192.168.1.10", AP1,
                                               "-45", starts[0]))
        self.assertEqual(lines[0][12], "167880896")
        self.assertEqual(lines[1], online_line("1020004", "13800138000", typed, "192.168.1.11",
                                               AP2, "-60", starts[1]))
        self.assertEqual(lines[2], online_line("1020001", ninety_nine, ninety_nine,
                                               "192.168.1.12", AP1, "-50", starts[2]))
        # The account keeps the case it came in; the session id uses lower case.
        self.assertEqual(lines[3], online_line("1029999", upper, upper, "192.168.1.13", AP2,
                                               "-70", starts[3]))
        self.assertIn("aabbccddee03", lines[3][24])
        for line in first.files[first.blocks[0][1]]:
            self.assertEqual(line.count("\t"), 33)

        [event] = first.fields(SOURCE_0002)
        capture = int(event[20])
        self.assertTrue(START_EPOCH <= capture <= first.time)
        self.assertEqual(event, http_line(web, "192.168.1.10", 51000, "10.0.0.1", 80, AP2,
                                          capture))
        self.assertEqual(event[3:6], ["3232235786", "51000", "16777216"])
        self.assertEqual(first.files[first.blocks[1][1]][0].count("\t"), 20)
        d.wait_for(r"can not find access mac:00:11:22:aa:bb:dd\n")

        # Cycle 2: offline records carry their session's start and id.
        lines = second.fields(SOURCE_0001)
        self.assertEqual([(l[19], l[11] != "") for l in lines],
                         [(record_mac(plain), True), (record_mac(upper), True),
                          (record_mac(ninety_nine), False), (record_mac(ninety_nine), True)])
        for line in lines[:2] + lines[3:]:
            self.assertTrue(first.time < int(line[11]) <= second.time, line)
        end = int(lines[0][11])
        self.assertEqual(lines[0], online_line("1029999", plain, plain, "192.168.1.10", AP1,
                                               "-45", starts[0], end))
        self.assertEqual(lines[1][10], str(starts[3]))
        self.assertEqual(lines[1][24], first.fields(SOURCE_0001)[3][24])
        # A second online replaced the session: new start, new id, and the
        # offline record belongs to the new one.
        restart = int(lines[2][10])
        self.assertTrue(first.time < restart <= second.time)
        self.assertEqual(lines[3][10], str(restart))
        self.assertEqual(lines[3][24], session_id(ninety_nine, restart))
        self.assertNotEqual(lines[3][24], first.fields(SOURCE_0001)[2][24])

        [event] = second.fields(SOURCE_0002)
        self.assertEqual(event, http_line(web, "192.168.1.10", 40000, "10.0.0.2", 8080, AP2,
                                          int(event[20])))
        self.assertTrue(first.time < int(event[20]) <= second.time)

        # The periodic records written after the first archive.
        [place] = second.fields("WA_BASIC_FJ_0001")
        self.assertEqual(place, [WACODE, "Harbour Cafe", "Main Street 1", "119.30", "26.08",
                                 "9", "3"] + [""] * 9 + [ORG_CODE])
        [vendor] = second.fields("WA_BASIC_FJ_0002")
        self.assertEqual(vendor, ["Example Networks Ltd", ORG_CODE, "Harbour Road 2", "maple",
                                  "0591-88880000", "support@example.com"])
        self.assertEqual(second.fields("WA_BASIC_FJ_0003_1"),
                         [[equipment_id(ap), record_mac(ap), WACODE, "119.30", "26.08", ""]
                          for ap in (AP1, AP2)])
        self.assertEqual(second.fields("WA_BASIC_FJ_0003_2"),
                         [[equipment_id(ap), record_mac(ap), WACODE, "", "", "", "", ""]
                          for ap in (AP1, AP2)])
        self.assert_no_errors(d)


class RolloverTest(NetbarCase):

    TERMINALS = 40
    PAIRS = 3100  # 6200 records: one full file and 1200 more

    def test_full_file_is_indexed_first_then_open_files_in_dataset_order(self):
        macs = [sim.mac_add("02:00:00:00:10:00", i) for i in range(self.TERMINALS)]
        for mac in macs:
            sim.write_wifi_info(mac, AP1)
        burst = []
        for i in range(self.PAIRS):
            mac = macs[i % len(macs)]
            burst.append(shell_datagram(sim.CMD_ONLINE, sim.online_text(mac, "192.168.7.1", 1)))
            burst.append(shell_datagram(sim.CMD_OFFLINE, mac))
        web = "00:11:22:aa:bb:cc"

        # Cycles of 7.5 real seconds leave room for the burst on a loaded
        # machine or in a sanitizer build.
        d = self.start_netbar(accel=40)
        # Nothing happens in cycle 1, which therefore yields no netbar zip;
        # the periodic records written after it open cycle 2's files.
        d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_BASIC_FJ_0003_2:", timeout=15)
        qz_sandbox.wait_idle(d.pid)
        self.assertEqual(self.zip_names(d), [])
        # WA_SOURCE_FJ_0002 opens its file before WA_SOURCE_FJ_0001 fills one.
        sim.write_wifi_info(web, AP2)
        mark = d.mark()
        for _ in range(3):
            self.http(web, "192.168.1.10", "10.0.0.1", 51000, 80)
        wait_until(lambda: d.stdout_text().count("QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:", mark) == 3,
                   5, "three HTTP records")
        self.shell.send_many(burst)
        self.http(web, "192.168.1.10", "10.0.0.1", 51000, 80)
        # The whole burst must have been handled in this cycle.
        self.shell.command(7, "end of burst")
        d.wait_for(r"UNKNOWN cmd type:7\n", timeout=15)
        self.assertEqual(self.zip_names(d), [], "the burst spilled into the next cycle")

        [archive] = self.archives(d, 1, timeout=20)
        self.assertEqual(archive.sequence, 0, "an empty cycle advanced the zip sequence")
        records = 2 * self.PAIRS
        expected = [(SOURCE_0001, 5000), (SOURCE_0001, records - 5000), (SOURCE_0002, 4),
                    ("WA_BASIC_FJ_0001", 1), ("WA_BASIC_FJ_0002", 1),
                    ("WA_BASIC_FJ_0003_1", 2), ("WA_BASIC_FJ_0003_2", 2)]
        self.assertEqual([(code, count) for code, _, count in archive.blocks], expected)
        for code, name, count in archive.blocks:
            self.assertEqual(len(archive.files[name]), count, name)
        # Files of the basic datasets were opened after the first cycle, the
        # others in this one; WA_SOURCE_FJ_0001 went on in its next file.
        sequences = [name.split("-")[3] for code, name, _ in archive.blocks]
        self.assertEqual(sequences, ["00000", "00001"] + ["00000"] * 5)

        # Every offline record closes the online record before it.
        lines = archive.fields(SOURCE_0001)
        self.assertEqual(len(lines), records)
        for on, off in zip(lines[0::2], lines[1::2]):
            self.assertEqual((on[11], on[19]), ("", off[19]))
            self.assertEqual((on[10], on[24]), (off[10], off[24]))
            self.assertNotEqual(off[11], "")
        self.assert_no_errors(d)


class BadInputTest(NetbarCase):

    SECRET_AP = "de:ad:be:ef:00:01"

    def test_bad_datagrams_and_messages_are_refused_and_the_feeds_go_on(self):
        # A status line the daemon must never be tricked into reading.
        os.makedirs("/tmp/qztmp/clt_wifi_info", exist_ok=True)
        with open("/tmp/qztmp/secret", "w") as f:
            f.write("secret 10.0.0.9 -1 %s s1 s2\n" % self.SECRET_AP)
        os.makedirs("/tmp/qztmp/clt_wifi_info/sub", exist_ok=True)
        for name in ("...", "sub/f"):
            with open(os.path.join("/tmp/qztmp/clt_wifi_info", name), "w") as f:
                f.write("x 10.0.0.9 -1 %s s1 s2\n" % self.SECRET_AP)
        # Only a clt_ap_info file, and no AC.status: not consulted.
        sim.write_wifi_info("aa:00:00:00:00:50", self.SECRET_AP, ap_info=True)

        good = iter(sim.mac_add("02:00:00:00:20:00", i) for i in range(100))
        sent_good = []
        on, off = sim.CMD_ONLINE, sim.CMD_OFFLINE
        long_mac = "aa:bb:cc:dd:ee:ff:" + "0" * 14  # 32 characters
        sim.write_wifi_info(long_mac, AP1)
        sim.write_wifi_info("aa:00:00:00:00:01", AP1)
        text = sim.online_text("aa:00:00:00:00:01", "192.168.1.50", 1)
        d = self.start_netbar()

        def read(n):
            return r"read %d from shell \n" % n

        refused = "netbar_recv_callback<\\d+>: DEBUG:datagram refused: "
        online_refused = "netbar_terminal_online<\\d+>: DEBUG:online msg refused: "
        datagrams = [
            ("empty", b"", [read(0), refused + "shorter than its command type"]),
            ("three bytes", b"\x03\x00\x00", [read(3), refused + "shorter than its command type"]),
            ("no NUL", shell_datagram(on, text, nul=False),
             [read(4 + len(text)), refused + "text without a terminator"]),
            # Only 260 bytes are read: a NUL after them is not seen.
            ("NUL after 260 bytes", shell_datagram(on, text + " " * 300),
             [read(260), refused + "text without a terminator"]),
            ("one token", shell_datagram(on, "aa:00:00:00:00:01"),
             [online_refused + "fewer than 3 tokens"]),
            ("two tokens", shell_datagram(on, "aa:00:00:00:00:01 192.168.1.50"),
             [online_refused + "fewer than 3 tokens"]),
            ("blanks only", shell_datagram(on, "    "), [online_refused + "fewer than 3 tokens"]),
            ("type 4, three tokens", shell_datagram(on, "aa:00:00:00:00:01 192.168.1.50 4"),
             [online_refused + "no usable account for type 4"]),
            ("type 4, four tokens", shell_datagram(on, "aa:00:00:00:00:01 192.168.1.50 4 x"),
             [online_refused + "no usable account for type 4"]),
            ("account of 64", shell_datagram(on, "aa:00:00:00:00:01 192.168.1.50 4 x " + "7" * 64),
             [online_refused + "no usable account for type 4"]),
            ("mac of 32", shell_datagram(on, "%s 192.168.1.50 1" % long_mac),
             [online_refused + "unusable mac"]),
            ("ip of 24", shell_datagram(on, "aa:00:00:00:00:01 %s 1" % ("1" * 24)),
             [online_refused + "ip too long"]),
            ("mac ../secret", shell_datagram(on, "../secret 192.168.1.50 1"),
             [online_refused + "unusable mac"]),
            ("mac ..", shell_datagram(on, ".. 192.168.1.50 1"), [online_refused + "unusable mac"]),
            ("mac ...", shell_datagram(on, "... 192.168.1.50 1"),
             [online_refused + "unusable mac"]),
            ("mac with /", shell_datagram(on, "sub/f 192.168.1.50 1"),
             [online_refused + "unusable mac"]),
            ("offline ../secret", shell_datagram(off, "../secret"),
             ["DEBUG:offline msg refused: no usable mac"]),
            ("offline without mac", shell_datagram(off, ""),
             ["DEBUG:offline msg refused: no usable mac"]),
            ("command 0", shell_datagram(0, text), ["DEBUG:UNKNOWN cmd type:0\n"]),
            ("command 1", shell_datagram(1, text), ["DEBUG:UNKNOWN cmd type:1\n"]),
            ("command 4", shell_datagram(4, text), ["DEBUG:UNKNOWN cmd type:4\n"]),
            ("command ~0", shell_datagram(0xFFFFFFFF, text), ["DEBUG:UNKNOWN cmd type:-1\n"]),
            ("auth type text", shell_datagram(on, "aa:00:00:00:00:01 192.168.1.50 one"),
             ["DEBUG:online msg: aa:00:00:00:00:01 192.168.1.50 one\n"]),
            ("auth type too large", shell_datagram(on, "aa:00:00:00:00:01 1.2.3.4 4294967297"),
             ["DEBUG:online msg: aa:00:00:00:00:01 1.2.3.4 4294967297\n"]),
            ("clt_ap_info without AC.status",
             shell_datagram(on, "aa:00:00:00:00:50 192.168.1.50 1"),
             ["DEBUG:online msg: aa:00:00:00:00:50 192.168.1.50 1\n"]),
        ]
        for what, data, expected in datagrams:
            with self.subTest(what):
                mark = d.mark("any")
                self.shell.send_raw(data)
                for pattern in expected:
                    d.wait_for(pattern, stream="any", since=mark, timeout=5)
                # The feed goes on: a valid online right after.
                mac = next(good)
                sim.write_wifi_info(mac, AP2)
                mark = d.mark()
                self.online(mac, "192.168.2.1", 1)
                d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:1029999\t%s\t" % mac,
                           since=mark, timeout=5)
                sent_good.append(mac)

        # A long datagram is cut to 260 bytes; a text ending inside them counts.
        sim.write_wifi_info("aa:00:00:00:00:02", AP1)
        mark = d.mark()
        self.shell.send_raw(shell_datagram(on, "aa:00:00:00:00:02 192.168.1.51 1") + b"z" * 400)
        d.wait_for(read(260), since=mark)
        sent_good.append("aa:00:00:00:00:02")
        self.offline("aa:00:00:00:00:02")
        sent_good.append("aa:00:00:00:00:02")

        web = "00:11:22:aa:bb:cc"
        sim.write_wifi_info(web, AP1)
        kernel_func = "netbar_netlink_recv_callback<\\d+>: "
        messages_ = [
            ("16 bytes", sim.build_event(2, web, "192.168.1.10", "10.0.0.1", 1, 80, length=16),
             [kernel_func + "ERROR:recv err data from kernel broadcast ...\n"]),
            ("71 bytes", sim.build_event(2, web, "192.168.1.10", "10.0.0.1", 1, 80, length=71),
             [kernel_func + "ERROR:recv err data from kernel broadcast ...\n"]),
            ("nlmsg_len past the end",
             sim.build_event(2, web, "192.168.1.10", "10.0.0.1", 1, 80, length=200,
                             nlmsg_len=1000),
             [kernel_func + r"ERROR:netlink message refused: longer than received "
                            r"\(200 bytes received, nlmsg_len 1000\)\n"]),
            ("type 0", sim.build_event(0, web, "192.168.1.10", "10.0.0.1", 1, 80),
             [kernel_func + "DEBUG:recv data UNKNOWN\n"]),
            ("type 4", sim.build_event(4, web, "192.168.1.10", "10.0.0.1", 1, 80),
             [kernel_func + "DEBUG:recv data UNKNOWN\n"]),
            ("type 255", sim.build_event(255, web, "192.168.1.10", "10.0.0.1", 1, 80),
             [kernel_func + "DEBUG:recv data UNKNOWN\n"]),
            ("app data", sim.build_event(1, web, "192.168.1.10", "10.0.0.1", 1, 80),
             [kernel_func + "DEBUG:recv QZ_APP_DATA\n"]),
            ("dpi data", sim.build_event(3, web, "192.168.1.10", "10.0.0.1", 1, 80),
             [kernel_func + "DEBUG:recv QZ_DPI_DATA\n"]),
        ]
        http_ports = []
        for what, data, expected in messages_:
            with self.subTest(what):
                mark = d.mark("any")
                self.assertTrue(self.kernel.send_raw(data))
                for pattern in expected:
                    d.wait_for(pattern, stream="any", since=mark, timeout=5)
                port = 50000 + len(http_ports)
                mark = d.mark()
                self.http(web, "192.168.1.10", "10.0.0.1", port, 80)
                d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:.*\t%d\t16777216\t" % port,
                           since=mark, timeout=5)
                http_ports.append(port)
        # The shortest message that holds every field is handled.
        mark = d.mark()
        self.http(web, "192.168.1.10", "10.0.0.1", 49999, 80, length=72)
        d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:.*\t49999\t16777216\t", since=mark)
        http_ports.append(49999)

        # On a slow machine the cases may straddle the end of a cycle.
        archives = self.archives(d, len(self.zip_names(d)) + 1)
        self.assertEqual([l[1] for a in archives for l in a.fields(SOURCE_0001)], sent_good)
        self.assertEqual([int(l[4]) for a in archives for l in a.fields(SOURCE_0002)], http_ports)
        everything = "\n".join(l for a in archives for f in a.files.values() for l in f)
        self.assertNotIn(record_mac(self.SECRET_AP), everything)
        self.assertNotIn(self.SECRET_AP, d.stdout_text())
        self.assertTrue(d.running())
        self.assert_no_errors(d, allowed=(
            "recv err data from kernel broadcast ...\n",
            "netlink message refused: longer than received (200 bytes received, "
            "nlmsg_len 1000)\n"))
        errors = messages(d.stderr_text(), "ERROR")
        self.assertEqual(len(errors), 3, errors)

    def test_kernel_message_longer_than_the_buffer_is_read_in_part(self):
        # Only the first 1040 bytes are read; the fields lie well inside them.
        web = "00:11:22:aa:bb:cc"
        sim.write_wifi_info(web, AP1)
        d = self.start_netbar()
        for length in (1040, 1041, 2000):
            with self.subTest(length=length):
                mark = d.mark("any")
                self.http(web, "192.168.1.10", "10.0.0.1", length, 80, length=length)
                record = r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:.*\t%d\t16777216\t" % length
                m = d.wait_for(record + r"|ERROR:[^\n]*\n", stream="any", since=mark, timeout=5)
                self.assertNotIn("ERROR:", m.group(0))
        self.assert_no_errors(d)


class FeedStallTest(NetbarCase):

    def test_command_run_for_one_feed_does_not_stall_the_other(self):
        # The first WA_SOURCE_FJ_0001 record of a run looks up the route
        # address with shell commands, and the feeds are read while they
        # run.  A kernel message that was waiting when the loop woke is
        # taken then; the loop must not go on to block in a read of the
        # emptied netlink socket.
        sim.write_wifi_info("aa:bb:cc:dd:ee:01", AP1)
        sim.write_wifi_info("aa:bb:cc:dd:ee:02", AP1)
        d = self.start_netbar()
        qz_sandbox.wait_idle(d.pid)
        os.kill(d.pid, signal.SIGSTOP)
        try:
            self.assertTrue(self.kernel.send_event(sim.DATA_APP, "00:11:22:aa:bb:cc",
                                                   "192.168.1.10", "10.0.0.1", 1, 80))
            self.online("aa:bb:cc:dd:ee:01", "192.168.1.10", 1)
        finally:
            os.kill(d.pid, signal.SIGCONT)
        d.wait_for(r"recv QZ_APP_DATA\n")
        d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:")

        mark = d.mark()
        self.online("aa:bb:cc:dd:ee:02", "192.168.1.11", 1)
        try:
            d.wait_for(r"online msg: aa:bb:cc:dd:ee:02 ", since=mark, timeout=3)
        except AssertionError:
            with open("/proc/%d/syscall" % d.pid) as f:
                call = f.read().split()
            self.fail("the loop no longer reads the terminal feed; /proc/%d/syscall: %s "
                      "(47 is recvmsg, then the descriptor)" % (d.pid, " ".join(call[:2])))
        self.assert_no_errors(d)


class NetlinkSetupTest(NetbarCase):

    def test_registration_names_the_daemon(self):
        # start_netbar checks the 80 bytes, the pid in the header and the
        # port the message came from.
        d = self.start_netbar()
        self.assertEqual(self.kernel.pid, d.pid)
        self.assertIsNone(self.kernel.recv(0.5), "a second message from the daemon")

    def test_failed_netlink_set_up_leaves_the_terminal_feed_working(self):
        cases = [
            ("socket", [r"ERROR:create netlink socket error:-1:Protocol not supported!\n",
                        r"ERROR:netbar 0002 init socket fail\n"]),
            ("bind", [r"ERROR:bind netlink socket error! \d+:Address already in use\n",
                      r"ERROR:netbar 0002 init socket fail\n"]),
            ("send", [r"DEBUG:sock_fd:\d+\n"]),
        ]
        sim.write_wifi_info("aa:bb:cc:dd:ee:ff", AP1)
        for i, (call, expected) in enumerate(cases):
            with self.subTest(call):
                d = self.start_netbar(env={"QZ_NLSTUB_FAIL": call}, kernel=False)
                try:
                    for pattern in expected:
                        d.wait_for(pattern, stream="any")
                    self.online("aa:bb:cc:dd:ee:ff", "192.168.1.10", 1)
                    d.wait_for(r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:")
                    self.assertTrue(d.running())
                    if i == 0:
                        # The dataset is set up all the same: the cycle
                        # archives the record.
                        [archive] = self.archives(d, 1)
                        self.assertEqual(archive.datasets(), [SOURCE_0001])
                finally:
                    d.stop()
