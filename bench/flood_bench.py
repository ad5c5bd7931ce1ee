#!/usr/bin/python3
"""Floods: does the daemon lose anything it has read, and how fast is it?

    /usr/bin/python3 bench/flood_bench.py --build build-bench [--bin OTHER_DAEMON]
                                          [--datagrams 150000] [--terminals 1000]

Needs root. In one sandbox (private /tmp, /etc, network, a local FTP server,
the clock 60 times as fast so that a 300-s cycle takes 5 s):

  (a) a blocking sender floods online datagrams for 1,000 terminals while
      every upload stalls 1.5 s: datagrams lost (sent, but in no record of
      the zips received), the rate against a bare recv+write loop fed the
      same datagrams, and the daemon's peak RSS;
  (b) a non-blocking sender at twice the rate of the same flood without
      stalls: sends refused at the sender against sends taken, and taken
      but lost;
  (c) the flood on the real clock (a second of the daemon's is a real one,
      as on a router), with the routing table empty and then with a route:
      rates and losses;
  (d) the flood without stalls in durable mode ("fh_unsent_dir" set, every
      record line flushed before the loop waits): CPU per datagram against
      the default mode.

Every datagram carries its number in the terminal's address, so each record
names the datagram it came from.
"""
import argparse
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "tools"))
import qz_bcp  # noqa: E402
import qz_router_sim as sim  # noqa: E402
import qz_sandbox  # noqa: E402
from bench_support import cpu_seconds, memory_kib, wait_quiet  # noqa: E402
from qz_router_sim import STATUS_LINE, mac_of  # noqa: E402

ACCEL = 60
SOCKET_PATH = "/tmp/qz_hk_audit_srv"


def datagram_numbers(uploads):
    """Numbers of the datagrams whose records arrived in zips of group 145."""
    return [sim.number_of(r) for u in uploads if u.remote == "tmp/145"
            for r in qz_bcp.read(u.path, check_name=False).records("WA_SOURCE_FJ_0001")]


def send(build, *args):
    start = time.monotonic()
    out = subprocess.run([os.path.join(build, "bench", "feed_sender")] + [str(a) for a in args],
                         check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    return time.monotonic() - start, int(out[1]), int(out[3])


def bare_rate(build, datagrams, terminals):
    bare = subprocess.Popen([os.path.join(build, "bench", "bare_loop"), str(datagrams)],
                            stdout=subprocess.PIPE, text=True)
    bare.stdout.readline()  # bound
    wall, _, _ = send(build, "flood", datagrams, terminals)
    bare.wait()
    os.unlink("/tmp/bare_loop.bcp")
    return datagrams / wall


def spool_numbers():
    """Numbers of the datagrams whose records are in finished BCP files of
    /tmp/145 (a file is finished, and flushed, at 5000 records)."""
    numbers = []
    for name in os.listdir("/tmp/145"):
        if "WA_SOURCE_FJ_0001" in name:
            with open(os.path.join("/tmp/145", name), encoding="utf-8", newline="\n") as f:
                numbers += [sim.number_of(qz_bcp.record("WA_SOURCE_FJ_0001", line)) for line in f]
    return numbers


def run_daemon(sb, binary, build, datagrams, terminals, stall=0.0, rate=0.0, faked=True,
               durable=False):
    """One daemon, one flood; returns a dict of figures. With the faked
    clock the records are counted in the zips of the next two cycles; on
    the real clock no cycle ends, and a flood of a multiple of 5000 records
    is counted in the finished files of the spool directory."""
    sb.ftp.set_delay(stall)
    sb.write_config({"fh_unsent_dir": "/tmp/qz_unsent"} if durable else None)
    before = len(sb.ftp.uploads())
    if os.path.exists(SOCKET_PATH):
        os.unlink(SOCKET_PATH)
    sb.start_daemon(args=(), accel=ACCEL, start=qz_sandbox.DEFAULT_START if faked else None,
                    env={"QZ_BIN": binary}).wait(10)
    qz_sandbox.wait_until(lambda: os.path.exists(SOCKET_PATH) and qz_sandbox.lock_holder(), 10,
                          "daemon ready")
    pid = qz_sandbox.lock_holder()
    cpu0 = cpu_seconds(pid)
    wall, taken, refused = send(build, "flood", datagrams, terminals, rate)
    cpu = wait_quiet(pid) - cpu0
    sb.ftp.set_delay(0)
    if faked:
        # The cycle under way and the next one archive whatever was open;
        # early archives of a spool that reached its bound came before.
        for _ in range(2):
            mark = len(sb.ftp.uploads())
            qz_sandbox.wait_until(lambda: any(u.remote == "tmp/145"
                                              for u in sb.ftp.uploads()[mark:]), 60, "upload")
        numbers = datagram_numbers(sb.ftp.uploads()[before:])
    else:
        numbers = spool_numbers() + datagram_numbers(sb.ftp.uploads()[before:])
    hwm = memory_kib(pid, "VmHWM")
    os.kill(pid, 15)
    qz_sandbox.wait_until(lambda: not qz_sandbox.is_running(pid), 10, "daemon stopped")
    received = set(numbers)
    return {"wall": wall, "taken": taken, "refused": refused, "rate": taken / wall,
            "cpu_us": cpu / max(taken, 1) * 1e6, "received": len(numbers),
            "duplicates": len(numbers) - len(received), "lost": taken - len(received),
            "hwm_kib": hwm}


def set_route(present):
    run = qz_sandbox.run
    if present:
        run("ip", "addr", "add", qz_sandbox.ROUTE_IP + "/24", "dev", qz_sandbox.ROUTE_IF,
            check=False)
        run("ip", "route", "add", "default", "via", qz_sandbox.GATEWAY_IP, "dev",
            qz_sandbox.ROUTE_IF, check=False)
    else:
        run("ip", "addr", "flush", "dev", qz_sandbox.ROUTE_IF)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(REPO, "build-bench"))
    parser.add_argument("--bin", help="daemon binary (default BUILD/qz_fh_audit)")
    parser.add_argument("--datagrams", type=int, default=150000)
    parser.add_argument("--terminals", type=int, default=1000)
    parser.add_argument("--stall", type=float, default=1.5, help="seconds per upload in (a)")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    binary = os.path.abspath(args.bin or os.path.join(build, "qz_fh_audit"))
    os.environ.setdefault("QZ_BIN", binary)
    qz_sandbox.enter_namespaces()

    n, t = args.datagrams, args.terminals
    with qz_sandbox.Sandbox() as sb:
        sb.write_config()
        sb.set_wtps(["1 00:1a:2b:3c:4d:5e up"])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        for i in range(t):
            with open("/tmp/qztmp/clt_wifi_info/" + mac_of(i), "w") as f:
                f.write(STATUS_LINE)

        bare = bare_rate(build, n, t)
        a = run_daemon(sb, binary, build, n, t, stall=args.stall)
        sustained = run_daemon(sb, binary, build, n, t)
        durable = run_daemon(sb, binary, build, n, t, durable=True)
        b = run_daemon(sb, binary, build, n, t, rate=2 * sustained["rate"])
        # On the real clock only finished files show: a flood that stays
        # under the spool's 16-MiB bound, so that no early archive moves
        # the 5000-record boundaries.
        rounded = max(5000, min(n, 60000) // 5000 * 5000)
        set_route(False)
        c_none = run_daemon(sb, binary, build, rounded, t, faked=False)
        set_route(True)
        c_route = run_daemon(sb, binary, build, rounded, t, faked=False)

    print("flood benchmark (%s), %d online datagrams for %d terminals"
          % (time.strftime("%Y-%m-%d"), n, t))
    print("  bare loop: %.0f datagrams/s" % bare)

    def line(name, r):
        print("  %-36s taken %6d  refused %6d  received %6d  lost %6d  duplicates %d  "
              "%6.0f datagrams/s (%.2fx bare)  %.1f us CPU each  peak RSS %d KiB"
              % (name, r["taken"], r["refused"], r["received"], r["lost"], r["duplicates"],
                 r["rate"], r["rate"] / bare, r["cpu_us"], r["hwm_kib"]))
    line("(a) blocking, uploads stall %.1f s" % args.stall, a)
    line("    blocking, no stall", sustained)
    line("(d) the same in durable mode", durable)
    line("(b) non-blocking, paced at %.0f/s" % (2 * sustained["rate"]), b)
    line("(c) blocking, real clock, no route", c_none)
    line("(c) blocking, real clock, route", c_route)
    print("  (a)-(b) on a clock 60 times as fast (5-s cycles); (c) on the real clock")
    print("  no route against route: %.2fx" % (c_none["rate"] / c_route["rate"]))
    print("  durable mode against default: %.2fx the CPU per datagram"
          % (durable["cpu_us"] / sustained["cpu_us"]))


if __name__ == "__main__":
    main()
