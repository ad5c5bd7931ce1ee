#!/usr/bin/python3
"""The long soak, with figures: events sent, received, lost, RSS per cycle.

    /usr/bin/python3 bench/soak_bench.py --build build-bench [--cycles 12] [--accel 20]
    /usr/bin/python3 bench/soak_bench.py --build build-bench --hang [--bin OTHER_DAEMON]

Needs root. --hang: the server stalls the second cycle's upload for 150 s
on the real clock (past wput's 120-s limit), online datagrams at 200/s and
HTTP events at 50/s through both cycles; the longest time the counters
file's "now" stood still is measured too.
"""
import argparse
import json
import os
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "tools"))
import qz_sandbox  # noqa: E402
import soak  # noqa: E402


def watch_counters(still, done):
    """The longest real time between two changes of the counters file's
    "now" (a daemon that stops serving its loop stops writing it)."""
    last, changed = None, time.monotonic()
    while not done.wait(0.5):
        try:
            with open("/tmp/qz_fh_stats.json") as f:
                now = json.load(f)["now"]
        except (OSError, ValueError, KeyError):
            continue
        if now != last:
            if last is not None:
                still[0] = max(still[0], time.monotonic() - changed)
            last, changed = now, time.monotonic()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(REPO, "build-bench"))
    parser.add_argument("--cycles", type=int, default=12)
    parser.add_argument("--rate", type=int, default=1000, help="datagrams per real second")
    parser.add_argument("--http-rate", type=int, default=200, help="HTTP events per real second")
    parser.add_argument("--accel", type=int, default=20, help="clock speed-up")
    parser.add_argument("--bin", help="daemon binary (default BUILD/qz_fh_audit)")
    parser.add_argument("--hang", action="store_true", help="see above")
    parser.add_argument("--durable", action="store_true",
                        help="durable mode, with a SIGTERM restart in cycle 9 and a SIGKILL "
                        "restart in cycle 11")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    binary = os.path.abspath(args.bin or os.path.join(build, "qz_fh_audit"))
    os.environ.setdefault("QZ_BIN", binary)
    qz_sandbox.enter_namespaces()
    plan = dict(cycles=args.cycles, rate=args.rate, http_rate=args.http_rate, slow_cycles=(3, 4, 8),
                down_cycle=6, slow_seconds=5.0, accel=args.accel)
    if args.hang:
        plan = dict(cycles=2, rate=200, http_rate=50, slow_cycles=(2,), down_cycle=None,
                    slow_seconds=150.0, accel=1)
    still = [0.0]
    watching = threading.Event()
    threading.Thread(target=watch_counters, args=(still, watching), daemon=True).start()
    r = soak.run(binary, os.path.join(build, "tools", "libqz_nlstub.so"),
                    log=lambda line: print("  " + line, flush=True), durable=args.durable,
                    term_cycle=9 if args.durable else None,
                    kill_cycle=11 if args.durable else None, **plan)
    watching.set()
    print("soak: %d archive cycles at x%d, %d datagrams/s and %d HTTP events/s (real time);"
          " uploads slow (%.0f s) in cycles %s, server down in cycle %s"
          % (r["cycles"], plan["accel"], plan["rate"], plan["http_rate"], plan["slow_seconds"],
             plan["slow_cycles"], plan["down_cycle"]))
    print("  the counters file stood still for %.1f s at most (real time)" % still[0])
    for feed, what in (("shell", "online/offline"), ("http", "HTTP")):
        refused = r[feed + "_refused"] if feed == "shell" else r[feed + "_dropped"]
        print("  %-14s sent %6d  refused at send %5d  received %6d  lost with the failed upload"
              " %5d (one run: %s)  duplicates %d  unexpected %d"
              % (what, r[feed + "_sent"], refused, r[feed + "_received"],
                 r[feed + "_lost_with_failed_upload"], r[feed + "_lost_in_one_run"],
                 r[feed + "_duplicates"], r[feed + "_unexpected"]))
    if args.durable:
        print("  durable mode: %d restarts (%s); sends while no daemon ran: %d datagrams, %d HTTP"
              % (r["restarts"], ", ".join("%s exit %d after %.2f s" % (k, v["status"], v["seconds"])
                                          for k, v in r["stops"].items()),
                 r["shell_down"], r["http_down"]))
        for feed in ("shell", "http"):
            if feed + "_written_before_kill" in r:
                print("  %-14s at the SIGKILL: %d records written before it, %d of them lost;"
                      " %d sent but unread (in the kernel's queue or being handled)"
                      % (feed, r[feed + "_written_before_kill"], r[feed + "_written_but_lost"],
                         r[feed + "_unread_at_kill"]))
    print("  RSS per cycle (KiB): %s" % " ".join(str(k) for k in r["rss_kib"]))
    print("  ERROR lines: %d" % len(r["errors"]))
    for e in r["errors"][:10]:
        print("    " + e)


if __name__ == "__main__":
    main()
