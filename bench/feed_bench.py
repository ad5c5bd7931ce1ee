#!/usr/bin/python3
"""Feed throughput and memory of the real daemon, against a bare loop.

    /usr/bin/python3 bench/feed_bench.py --build build-bench [--pairs N] [--http N]

Needs root. Runs in a sandbox (private /tmp, /etc, network): the daemon is
started detached on the real clock with the netlink stand-in preloaded, the
status files of every terminal present. It measures:
  - online+offline pairs per second (blocking sender, so the daemon sets the
    pace), the records written for them (a daemon that drops input costs
    less CPU per datagram sent), and the daemon's CPU time per record;
  - HTTP events per second through the netlink stand-in, CPU per event;
  - resident memory with 10,000 terminals online and with a full table
    (16,384, NETBAR_TERMINALS_MAX);
and, in the same run, a bare loop that receives the same datagrams, reads
the same status file and writes a fixed line per datagram.
"""
import argparse
import json
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "tools"))
import qz_router_sim as sim  # noqa: E402
import qz_sandbox  # noqa: E402
from bench_support import cpu_seconds, memory_kib, wait_quiet  # noqa: E402
from qz_router_sim import STATUS_LINE, mac_of  # noqa: E402


def timed_send(sender, *args):
    start = time.monotonic()
    subprocess.run([sender] + [str(a) for a in args], check=True)
    return time.monotonic() - start


def bare_loop(build, pairs):
    bare = subprocess.Popen([os.path.join(build, "bench", "bare_loop"), str(2 * pairs)],
                            stdout=subprocess.PIPE, text=True)
    bare.stdout.readline()  # bound
    wall = timed_send(os.path.join(build, "bench", "feed_sender"), "pairs", pairs)
    _, status, usage = os.wait4(bare.pid, 0)
    cpu = usage.ru_utime + usage.ru_stime
    os.unlink("/tmp/bare_loop.bcp")
    return wall, cpu


def records_written(after):
    """WA_SOURCE_FJ_0001 records written, one per online or offline datagram
    handled, from a counters file written after the time given: a spool
    that reaches its bound is archived early, so its lines do not stay."""
    deadline = time.time() + 30
    while time.time() < deadline:
        try:
            with open("/tmp/qz_fh_stats.json") as f:
                stats = json.load(f)
        except (OSError, ValueError):
            stats = None
        if stats and stats["now"] > after:
            return stats["datasets"]["WA_SOURCE_FJ_0001"]["records"]
        time.sleep(0.2)
    raise RuntimeError("no counters file written after %d" % after)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(REPO, "build-bench"))
    parser.add_argument("--bin", help="daemon binary (default BUILD/qz_fh_audit)")
    parser.add_argument("--pairs", type=int, default=100000)
    parser.add_argument("--http", type=int, default=200000)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    os.environ.setdefault("QZ_BIN", os.path.abspath(args.bin or os.path.join(build, "qz_fh_audit")))
    qz_sandbox.enter_namespaces()

    sender = os.path.join(build, "bench", "feed_sender")
    terminals = 16384  # the table's bound: more would end the oldest
    # The FTP server takes the early archives of a spool that reaches its
    # bound, as a router's would.
    with qz_sandbox.Sandbox() as sb:
        sb.write_config()
        sb.set_wtps(["1 00:1a:2b:3c:4d:5e up"])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        for i in range(max(terminals, args.pairs)):
            with open("/tmp/qztmp/clt_wifi_info/" + mac_of(i), "w") as f:
                f.write(STATUS_LINE)

        bare_wall, bare_cpu = bare_loop(build, args.pairs)

        kernel = sim.FakeKernel()
        stub = os.path.join(build, "tools", "libqz_nlstub.so")
        sb.start_daemon(args=(), start=None, preload=(stub,)).wait(10)
        pid = kernel.wait_registration(10)
        kernel.close()
        wait_quiet(pid)
        base_rss = memory_kib(pid, "VmRSS")

        cpu0 = cpu_seconds(pid)
        pair_wall = timed_send(sender, "pairs", args.pairs)
        pair_cpu = wait_quiet(pid) - cpu0
        written = records_written(int(time.time()))

        cpu0 = cpu_seconds(pid)
        http_wall = timed_send(sender, "http", args.http, pid)
        http_cpu = wait_quiet(pid) - cpu0

        rss = {}
        online = 0
        for target in (10000, terminals):
            timed_send(sender, "online", target - online, online)
            online = target
            wait_quiet(pid)
            rss[target] = memory_kib(pid, "VmRSS")
        hwm = memory_kib(pid, "VmHWM")

    events = 2 * args.pairs
    print("feed benchmark (%s)" % time.strftime("%Y-%m-%d"))
    print("  bare loop:      %8.0f datagrams/s  %.2f us CPU each" %
          (events / bare_wall, bare_cpu / events * 1e6))
    print("  online+offline: %8.0f pairs/s (%.0f datagrams/s, %.0f%% of the bare loop's rate)"
          "  %.2f us CPU per datagram (%.0f%% of the bare loop's CPU efficiency)" %
          (args.pairs / pair_wall, events / pair_wall, 100 * bare_wall / pair_wall,
           pair_cpu / events * 1e6, 100 * bare_cpu / pair_cpu))
    print("  records written: %d of %d (%d lost); %.2f us CPU per record written" %
          (written, events, events - written, pair_cpu / max(written, 1) * 1e6))
    print("  HTTP events:    %8.0f events/s  %.2f us CPU each" %
          (args.http / http_wall, http_cpu / args.http * 1e6))
    print("  RSS: %d KiB idle, %d KiB with 10,000 online, %d KiB with %d online (peak %d KiB)"
          % (base_rss, rss[10000], rss[terminals], terminals, hwm))
    for n in (10000, terminals):
        print("  memory per online terminal at %d: %.0f bytes" % (n, (rss[n] - base_rss) * 1024 / n))


if __name__ == "__main__":
    main()
