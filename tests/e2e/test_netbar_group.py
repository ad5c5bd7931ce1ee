"""The netbar group (145) through the real binary: terminals online and
offline by datagram, HTTP events through the netlink stand-in, the cycle
each lands in, full files, bad input on both feeds, and a router without
the kernel module."""

import calendar
import os
import re
import signal

import qz_bcp
import qz_router_sim as sim
import qz_sandbox
from e2e_base import LOG_LINE, LONG_WAIT, SandboxCase, bcp_check, messages, uploads, wait_running
from tick_wum import TickWum

START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))
ROUTE_IP_NUMBER = "33574154"  # 10.77.0.2, its network-order bytes read little-endian
AP1, AP2 = "00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:6f"
APS = ["1 %s online AP-Lobby" % AP1, "2 %s online AP-Terrace" % AP2]
S1, S2 = "WA_SOURCE_FJ_0001", "WA_SOURCE_FJ_0002"
BASIC = [("WA_BASIC_FJ_0001", 1), ("WA_BASIC_FJ_0002", 1),
         ("WA_BASIC_FJ_0003_1", 2), ("WA_BASIC_FJ_0003_2", 2)]
RECORD_1 = r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:1029999\t%s\t"
RECORD_2 = r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:.*\t%d\t16777216\t"


def stream_of(line):
    # Not "any": stderr is unbuffered, so another stream's output may fall
    # between the parts of one of its lines there.
    return "stderr" if line.startswith("ERROR:") else "stdout"


def record_mac(mac):
    return mac.replace(":", "-").upper()


class NetbarCase(SandboxCase):

    def start_netbar(self, pauses=(), env=None, kernel=True):
        """Starts the daemon with the netlink stand-in and, unless kernel is
        false, a stand-in kernel that has checked the registration."""
        stub = os.path.join(os.path.dirname(qz_sandbox.daemon_binary()), "tools",
                            "libqz_nlstub.so")
        self.assertTrue(os.path.isfile(stub), "build the qz_nlstub target")
        self.sb.write_config()
        self.wum = TickWum(self.sb, [APS])
        for tick in pauses:
            self.wum.pause_at(tick)
        if kernel:
            # Bound first: the registration is sent once, at start-up.
            self.kernel = sim.FakeKernel(block=True, block_timeout=LONG_WAIT)
            self.addCleanup(self.kernel.close)
        d = self.sb.start_daemon(["-D"], preload=(stub,), env=env)
        if kernel:
            self.kernel.wait_registration(LONG_WAIT, expected_pid=d.pid)
        d.wait_for(r"init shell fd success!")
        self.shell = sim.ShellSender(block_timeout=LONG_WAIT)
        self.addCleanup(self.shell.close)
        return d

    def archives(self, d, count):
        """The first count netbar zips (qz_bcp.Upload), each passing the checker."""
        names = wait_running(d, lambda: (lambda n: n if len(n) >= count else None)(
            qz_bcp.logged_names(d.stdout_text(), "tmp/145")), "%d netbar zips" % count)
        ups = wait_running(d, lambda: (lambda u: u if len(u) >= count else None)(
            uploads(self.sb.ftp, "tmp/145")), "%d uploads of tmp/145" % count)
        return [bcp_check(self, up.path, name) for name, up in zip(names, ups[:count])]

    def http(self, mac, port, **kw):
        self.kernel.send_http(mac, "192.168.1.10", "10.0.0.1", port, 80, **kw)

    def assert_no_errors(self, d, allowed=()):
        """No WARN or ERROR line but the allowed ones, nor other text such as
        a sanitizer's report (it would run on in a message)."""
        err = d.stderr_text()
        self.assertEqual([m for m in messages(err) if m not in allowed], [], d.describe())
        self.assertEqual(LOG_LINE.split(err)[0], "", d.describe())


class CycleTest(NetbarCase):

    PAIRS = 3100  # with one more offline: a full file and 1201 records

    def test_events_land_in_their_cycle_and_full_files_come_first(self):
        # Left by an earlier run; start-up must throw it away unsent.
        os.makedirs("/tmp/145")
        with open("/tmp/145/145-350100-1-00000-WA_SOURCE_FJ_0001-0.bcp", "w") as f:
            f.write("stale\n")
        plain, typed, web = "aa:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:01", "00:11:22:aa:bb:cc"
        no_status = "00:11:22:aa:bb:dd"
        sim.write_wifi_info(plain, AP1, "-45")
        sim.write_wifi_info(typed, AP2)
        sim.write_wifi_info(web, AP2)
        macs = [sim.mac_add("02:00:00:00:10:00", i) for i in range(40)]
        for mac in macs:
            sim.write_wifi_info(mac, AP1)
        burst = [sim.build_shell_msg(cmd, text) for i in range(self.PAIRS)
                 for cmd, text in ((sim.CMD_ONLINE, "%s 192.168.7.1 1" % macs[i % 40]),
                                   (sim.CMD_OFFLINE, macs[i % 40]))]

        # Events sent while a tick is held are handled when it is over, so
        # each batch belongs to the cycle that follows, whatever the load.
        d = self.start_netbar(pauses=(0, 1))
        self.wum.wait_paused(d, 0)
        self.shell.online(plain, "192.168.1.10", 1)
        self.shell.online(typed, "192.168.1.11", 4, "x", "13800138000")
        self.http(web, 51000)
        self.http(no_status, 51001)
        self.wum.resume(0)
        self.wum.wait_paused(d, 1)
        # HTTP first: WA_SOURCE_FJ_0002 opens its file before
        # WA_SOURCE_FJ_0001 fills one, yet the full file is indexed first.
        self.http(web, 40000)
        self.shell.offline(plain)
        self.shell.send_many(burst)
        self.http(web, 40001)
        self.wum.resume(1)
        first, second = self.archives(d, 2)

        # Nothing was archived at 300 s: the place, vendor and access-point
        # records written then arrive one cycle later.
        self.assertGreaterEqual(first.time, START_EPOCH + 600)
        self.assertEqual((first.sequence, second.sequence), (0, 1))
        self.assertEqual([(f["dataset"], f["records"]) for f in first.files],
                         [(S1, 2), (S2, 1)] + BASIC)
        self.assertEqual([(f["dataset"], f["records"]) for f in second.files],
                         [(S1, 5000), (S1, 2 * self.PAIRS + 1 - 5000), (S2, 2)] + BASIC)
        self.assertEqual([f["sequence"] for f in second.files], [1, 2] + [1] * 5)
        self.assertNotIn(b"stale", b"".join(first.stored.values()))

        on = list(first.records(S1))
        self.assertEqual([(r["AUTH_TYPE"], r["AUTH_ACCOUNT"], r["MAC"]) for r in on],
                         [("1029999", plain, record_mac(plain)),
                          ("1020004", "13800138000", record_mac(typed))])
        # The address the probe found through the real route and ip commands.
        self.assertEqual([(r["IP_ADDRESS"], r["SRC_IP"]) for r in on],
                         [("167880896", ROUTE_IP_NUMBER), ("184658112", ROUTE_IP_NUMBER)])
        for r in on:
            self.assertTrue(START_EPOCH + 300 <= int(r["START_TIME"]) <= first.time, r)
        [event] = first.records(S2)
        self.assertEqual((event["IP_ADDRESS"], event["PORT"], event["SRC_IP"], event["MAC"],
                          event["AP_MAC"]),
                         ("3232235786", "51000", "16777216", record_mac(web), record_mac(AP2)))
        self.assertIn("can not find access mac:%s\n" % no_status, d.stdout_text())

        # The offline record a cycle later carries its session's start and id.
        off, *pairs = second.records(S1)
        session = ("MAC", "START_TIME", "SESSIONID")
        self.assertEqual([off[k] for k in session], [on[0][k] for k in session])
        self.assertTrue(first.time < int(off["END_TIME"]) <= second.time, off)
        for a, b in zip(pairs[0::2], pairs[1::2]):
            self.assertEqual([a[k] for k in ("END_TIME",) + session],
                             [""] + [b[k] for k in session])
            self.assertNotEqual(b["END_TIME"], "")
        self.assertEqual([int(r["PORT"]) for r in second.records(S2)], [40000, 40001])
        self.assert_no_errors(d)


class BadInputTest(NetbarCase):

    def test_bad_input_is_dropped_with_a_line_and_the_feeds_go_on(self):
        secret_ap = "de:ad:be:ef:00:01"
        # Status lines the daemon must never be tricked into reading.
        os.makedirs("/tmp/qztmp/clt_wifi_info/sub")
        for path in ("secret", "clt_wifi_info/...", "clt_wifi_info/sub/f"):
            with open("/tmp/qztmp/" + path, "w") as f:
                f.write("x 10.0.0.9 -1 %s s1 s2\n" % secret_ap)
        # Only a clt_ap_info file, and no AC.status: not consulted.
        sim.write_wifi_info("aa:00:00:00:00:50", secret_ap, ap_info=True)
        long_mac = "aa:bb:cc:dd:ee:ff:" + "0" * 14  # 32 characters
        mac, web = "aa:00:00:00:00:01", "00:11:22:aa:bb:cc"
        for m in (long_mac, mac, web):
            sim.write_wifi_info(m, AP1)
        good = (sim.mac_add("02:00:00:00:20:00", i) for i in range(100))
        d = self.start_netbar()

        # The first online record runs the route look-up while a kernel
        # message waits too; the command runner takes that message, and the
        # loop must not then block reading the emptied netlink socket.
        qz_sandbox.wait_idle(d.pid)
        os.kill(d.pid, signal.SIGSTOP)
        try:
            self.kernel.send_event(sim.DATA_APP, web, "192.168.1.10", "10.0.0.1", 1, 80)
            self.shell.online(mac, "192.168.1.50", 1)
        finally:
            os.kill(d.pid, signal.SIGCONT)
        d.wait_for(RECORD_1 % mac)
        self.shell.online(mac, "192.168.1.50", 1)
        d.wait_for(r"(%s.*){2}" % (RECORD_1 % mac), flags=re.S)

        # Not subtests: once the daemon is stuck, every later case would wait in vain.

        on, dg = sim.CMD_ONLINE, sim.build_shell_msg
        text = "%s 192.168.1.50 1" % mac
        datagrams = [
            (b"", "datagram refused: shorter than its command type"),
            (b"\3\0\0", "datagram refused: shorter than its command type"),
            (dg(on, text, nul=False), "datagram refused: text without a terminator"),
            # Only 260 bytes are read: a NUL after them is not seen.
            (dg(on, text + " " * 300), "datagram refused: text without a terminator"),
            (dg(on, mac + " 192.168.1.50"), "online msg refused: fewer than 3 tokens"),
            (dg(on, mac + " 192.168.1.50 4 x"), "online msg refused: no usable account"),
            (dg(on, mac + " 192.168.1.50 4 x " + "7" * 64), "online msg refused: no usable"),
            (dg(on, long_mac + " 192.168.1.50 1"), "online msg refused: unusable mac"),
            (dg(on, mac + " " + "1" * 24 + " 1"), "online msg refused: ip too long"),
            (dg(on, "../secret 192.168.1.50 1"), "online msg refused: unusable mac"),
            (dg(on, "... 192.168.1.50 1"), "online msg refused: unusable mac"),
            (dg(on, "sub/f 192.168.1.50 1"), "online msg refused: unusable mac"),
            (dg(sim.CMD_OFFLINE, "../secret"), "offline msg refused: no usable mac"),
            (dg(7, text), "UNKNOWN cmd type:7\n"),
            (dg(0xFFFFFFFF, text), "UNKNOWN cmd type:-1\n"),
            (dg(on, "aa:00:00:00:00:50 192.168.1.50 1"), "online msg: aa:00:00:00:00:50 "),
        ]
        for data, line in datagrams:
            mark = d.mark()
            self.shell.send_raw(data)
            d.wait_for(re.escape(line), since=mark)
            m = next(good)
            sim.write_wifi_info(m, AP2)
            self.shell.online(m, "192.168.2.1", 1)
            d.wait_for(RECORD_1 % m, since=mark)

        def event(kind=sim.DATA_HTTP, **kw):
            return sim.build_event(kind, web, "192.168.1.10", "10.0.0.1", 1, 80, **kw)
        kernel = [
            (event(length=71), "ERROR:recv err data from kernel broadcast ...\n"),
            # The header's length is not consulted: the event is handled.
            (event(nlmsg_len=1000), "DEBUG:recv QZ_HTTP_DATA\n"),
            (event(0), "DEBUG:recv data UNKNOWN\n"),
            (event(4), "DEBUG:recv data UNKNOWN\n"),
            (event(sim.DATA_APP), "DEBUG:recv QZ_APP_DATA\n"),
            (event(sim.DATA_DPI), "DEBUG:recv QZ_DPI_DATA\n"),
        ]
        # After each, an HTTP event of the shortest length that holds every
        # field, or longer than the 1040 bytes read.
        for (data, line), length in zip(kernel, (72, 1040, 1041, 2000, 200, 200)):
            stream = stream_of(line)
            mark, out_mark = d.mark(stream), d.mark()
            self.kernel.send_raw(data)
            d.wait_for(re.escape(line), stream=stream, since=mark)
            self.http(web, length, length=length)
            d.wait_for(RECORD_2 % length, since=out_mark)

        out = d.stdout_text()
        self.assertEqual(out.count("QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:"), len(datagrams) + 2)
        self.assertEqual(out.count("QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:"), len(kernel) + 1)
        self.assertNotIn(secret_ap, out)
        self.assertNotIn(record_mac(secret_ap), out)
        self.assert_no_errors(d, allowed=[kernel[0][1][6:]])
        self.assertEqual(len(messages(d.stderr_text())), 1)


class NetlinkSetupTest(NetbarCase):

    def test_failed_netlink_set_up_leaves_the_terminal_feed_working(self):
        fail = r"ERROR:netbar 0002 init socket fail\n"
        cases = [("socket", [r"ERROR:create netlink socket error:-1:Protocol not supported!\n",
                             fail]),
                 ("bind", [r"ERROR:bind netlink socket error! \d+:Address already in use\n",
                           fail]),
                 ("send", [r"DEBUG:sock_fd:\d+\n"])]
        sim.write_wifi_info("aa:bb:cc:dd:ee:ff", AP1)
        for call, lines in cases:
            with self.subTest(call):
                d = self.start_netbar(env={"QZ_NLSTUB_FAIL": call}, kernel=False)
                try:
                    for line in lines:
                        d.wait_for(line, stream=stream_of(line))
                    self.shell.online("aa:bb:cc:dd:ee:ff", "192.168.1.10", 1)
                    d.wait_for(RECORD_1 % "aa:bb:cc:dd:ee:ff")
                finally:
                    d.stop()
