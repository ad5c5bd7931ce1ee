"""The end-to-end rows: one per behaviour that only a whole run of the real
binary shows, played by the fixture in scenario.py.

    /usr/bin/python3 -m pytest tests/e2e [-m "not slow"] [-k NAME] [-n 4]

Each row runs in a child of its own in fresh namespaces (this file run as
`test_scenarios.py NAME`, as root); QZ_BIN names the daemon, by default
build/qz_fh_audit of this tree.
"""

import glob
import os
import random
import re
import signal
import stat
import subprocess
import sys
import threading
import time
import urllib.parse
import zipfile

import psutil
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [os.path.join(ROOT, "tools"), HERE]

import qz_bcp  # noqa: E402
import qz_router_sim as sim  # noqa: E402
import qz_sandbox  # noqa: E402
from qz_ftp_sink import FtpSink  # noqa: E402
from qz_sandbox import (CONFIG_PATH, LOCK_PATH, REMOVE, START_EPOCH, STATS_PATH,  # noqa: E402
                        lock_holders, read_stats, signal_set, wait_until)
from scenario import (AP1, AP2, DURABLE, LONG_WAIT, S1, S2, UNSENT, WAIT, WEB, Row,  # noqa: E402
                      as_nobody, fingerprint, foreign, kept, root_only)

LOCK_FAILED = "can not get file lock or open file failed"
OPEN_FAILED = "open QZ_FILE_LOCK_PATH failed!"
APS2 = ("1 %s online AP-Lobby" % AP1, "2 %s online AP-Terrace" % AP2)
RECORD = "QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:"
FAILED = r"upload of (\S+) failed with status (\d+): kept to be sent again"
FAILED_145 = r"upload of (145-\S+\.zip) failed with status \d+: kept to be sent again"
NOT_WRITTEN = r"[A-Z0-9_]+: \d+ records not written since the last report: .*"
SETUP = r"mkdir /tmp/146"
HOUR = 3600


def owner_mode(path):
    st = os.lstat(path)
    return st.st_uid, stat.S_IFMT(st.st_mode), stat.S_IMODE(st.st_mode)


# -- start-up failures: every return from main() ends with 255 -----------------

def error(func, text):
    return r"\d{4}(-\d{1,2}){2} \d{1,2}(:\d{1,2}){2} %s<\d+>: ERROR:%s" % (func, re.escape(text))


LOAD_FAILED = (error("qz2fh_config_init", "load file:%s failed!" % CONFIG_PATH)
               + error("main", "config init failed\n"))
CONTROL = " holds a control character, refused"


def refused(key, why=" is not in config or not string"):
    return (error("config_get_string", key + why) + error("qz2fh_config_init", key + " is null!")
            + error("main", "config init failed\n"))


def failed_start(name, args, err, config={}, out="", lock=True, planted=(), check=None):
    # Ends with 255 and exactly this output, sets up no group, and makes the
    # lock file (or not; None: whatever was planted stays).
    def nothing_set_up(r):
        assert lock is None or os.path.isfile(LOCK_PATH) == lock
        assert not os.path.exists("/tmp/146"), "a group was set up"
        if check:
            check(r)
    return Row(name, args=args, config=config, planted=planted, stop=None, status=255, out=out,
               err=err, check=nothing_set_up)


def plant_secret(r):
    root_only("/etc/qz_secret")
    r.facts["secret"] = fingerprint("/etc/qz_secret")


def secret_untouched(r):
    assert fingerprint("/etc/qz_secret") == r.facts["secret"]
    assert not os.path.lexists("/etc/nologin")
    assert not os.path.exists("/tmp/secret") or \
        fingerprint("/tmp/secret")[:4] == r.facts["secret"][:4]


def hard_link(r):
    root_only("/tmp/secret")
    os.link("/tmp/secret", LOCK_PATH)


def lock_planted(name, plant):
    # Anything but a file of its own at the lock fails as a failed open
    # does, at once (a FIFO must not hold it up), and follows nothing.
    return failed_start("lock_" + name, (("-D",), ()), re.escape(LOCK_FAILED), out=OPEN_FAILED,
                        lock=None, planted=(plant_secret, plant), check=secret_untouched)


START_FAILURES = [
    # The option errors begin with libc's own diagnostic.
    failed_start("unknown_option", ("-x",), r".*invalid option -- 'x'\nunknown command: \?\n",
                 lock=False),
    failed_start("debug_without_value", ("-D", "--debug"),
                 r".*'--debug' requires an argument\nunknown command: \?\n", lock=False),
    failed_start("unrecognized_option", ("--verbose=1",),
                 r".*unrecognized option.*\nunknown command: \?\n", lock=False),
    failed_start("lock_is_a_directory", (("-D",), ()), re.escape(LOCK_FAILED), out=OPEN_FAILED,
                 lock=False, planted=(lambda r: os.mkdir(LOCK_PATH),)),
    failed_start("no_configuration", ("-D",), LOAD_FAILED, config=None),
    failed_start("configuration_not_json", ("--debug=1",), LOAD_FAILED, config="fh_ftp_port=21\n"),
    failed_start("configuration_not_an_object", ("--debug", "1"),
                 refused("fh_netbar_property_str"), config="[]"),
    # Keys are read in table order; the first bad one ends the load.
    failed_start("key_missing", ("-D",), refused("fh_dst_str"),
                 config={"fh_dst_str": REMOVE, "fh_ftp_port": 21}),
    failed_start("key_not_a_string", ("-D",), refused("fh_ftp_port"), config={"fh_ftp_port": 21}),
    failed_start("newline_in_a_value", ("-D",), refused("fh_address", CONTROL),
                 config={"fh_address": "Main Street 1\n"}),
    failed_start("tab_in_the_password", ("-D",), refused("fh_ftp_password", CONTROL),
                 config={"fh_ftp_password": "pa\tss"}),
    lock_planted("link_to_a_root_only_file", lambda r: os.symlink("/etc/qz_secret", LOCK_PATH)),
    lock_planted("dangling_link", lambda r: os.symlink("/etc/nologin", LOCK_PATH)),
    lock_planted("fifo", lambda r: os.mkfifo(LOCK_PATH, 0o666)),
    lock_planted("hard_link_to_a_root_only_file", hard_link),
    # The durable store must be the daemon's own on disk: refused as it is.
    failed_start("store_is_etc", ("-D",), error("unsent_store_open", "fh_unsent_dir /etc: mode 0755, "
                 "not 0700, refused\n") + error("main", "config init failed\n"),
                 config={"fh_unsent_dir": "/etc"},
                 check=lambda r: owner_mode("/etc") == (0, stat.S_IFDIR, 0o755)),
    failed_start("store_linked_into_a_spool", ("-D",), error(
                 "unsent_store_open", "fh_unsent_dir /etc/varlink/145: leads to /tmp/145, inside /tmp, "
                 "refused\n") + error("main", "config init failed\n"),
                 config={"fh_unsent_dir": "/etc/varlink/145"},
                 planted=(lambda r: os.symlink("/tmp", "/etc/varlink"),)),
]


# -- the process: lock, foreground, detach, signals, the counters file -----------

def online_arrives(r):
    r.online(range(3))


def socket_of_ours(r):
    st = os.lstat(sim.SHELL_SOCK_PATH)
    assert (st.st_uid, stat.S_IFMT(st.st_mode), stat.S_IMODE(st.st_mode)) == (0, stat.S_IFSOCK, 0o600)
    assert glob.glob(sim.SHELL_SOCK_PATH + ".untrusted.*")


def second_copies_refused(r):
    first = r.d
    r.handlers()
    os.makedirs("/tmp/146", exist_ok=True)
    open("/tmp/146/marker", "w").close()
    for args in (["-D"], []):
        assert r.sb.run_daemon_once(args) == (255, "", LOCK_FAILED)
    assert os.path.exists("/tmp/146/marker"), "a second copy emptied the spool"
    assert lock_holders() == [first.pid]
    # A hung scan keeps its shell: it must not have inherited the lock.
    scans = wait_until(lambda: [p for p in qz_sandbox.children_of(first.pid)
                                if "wum" in " ".join(p.cmdline())], WAIT, "the wum scan")
    first.signal(signal.SIGKILL)
    first.wait()
    assert scans[0].is_running(), "the scan ended with the daemon"
    r.start(["-D"])
    r.handlers()
    assert lock_holders() == [r.d.pid]


def lines_in_local_time(r):
    # Without the durable key SIGTERM ends it as it always has.
    assert not os.path.exists(UNSENT)
    # 07:04:01 UTC is 15:04:01 eight hours east.
    for stream, levels in (("stdout", "DEBUG"), ("stderr", "WARN|ERROR")):
        lines = r.d.text(stream).splitlines()
        assert lines or stream == "stderr"
        for line in lines:
            assert re.match(r"2024-3-5 15:4:\d{1,2} \w+<[1-9]\d*>: (%s):" % levels, line), line


def holds_the_lock(r):
    r.handlers()
    assert lock_holders() == [r.d.pid]


def foreground(name, args, config):
    return Row("foreground_" + name, args=args, config=config, clock=1, start=START_EPOCH,
               env={"TZ": "CST-8"}, ready=SETUP, steps=(holds_the_lock,), status=-signal.SIGTERM,
               check=lines_in_local_time)


def detached(r):
    # Detaches, and logs to syslog only while switched on.
    d = r.d
    # libc's daemon() ends the parent with _exit(0), not through main.
    assert d.wait() == 0 and d.bytes("stdout") + d.bytes("stderr") == b""
    pids = wait_until(lambda: [p for p in qz_sandbox.pids_of(qz_sandbox.daemon_binary())
                               if p != d.pid], WAIT, "the detached copy")
    assert len(pids) == 1
    pid = pids[0]
    r.handlers(pid)
    p = psutil.Process(pid)
    assert (p.ppid(), os.getsid(pid), p.cwd(), lock_holders()) == (1, pid, "/", [pid])
    assert [os.readlink("/proc/%d/fd/%d" % (pid, fd)) for fd in (0, 1, 2)] == ["/dev/null"] * 3

    def time_passes(seconds):
        # Read from the scans, which run under the daemon's clock.
        def now():
            return max([c[0] for calls in r.ticks().values() for c in calls], default=START_EPOCH)
        until = now() + seconds
        wait_until(lambda: now() >= until, WAIT, "%d simulated seconds" % seconds)

    time_passes(600)
    assert r.sb.syslog.lines() == []
    qz_sandbox.send_signal(pid, signal.SIGUSR1)
    wait_until(lambda: any("DEBUG:" in m for m in r.sb.syslog.lines()), WAIT, "syslog")
    # The bare level with libc's default facility, LOG_USER; the line as on the console.
    for m in r.sb.syslog.lines():
        head = re.match(r"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d qz_fh_audit(\[\d+\])?: ", m)
        entries = qz_sandbox.log_entries(m[head.end():])
        assert len(entries) == 1, m
        assert int(head[1]) == {"DEBUG": 15, "WARN": 12, "ERROR": 11}[entries[0].level], m
    # A storm of switches, then "off" alone: when both are pending, the
    # handler of the later one runs first.
    rng = random.Random(7)
    for _ in range(300):
        os.kill(pid, rng.choice((signal.SIGUSR1, signal.SIGUSR2)))
    wait_until(lambda: not signal_set(pid, "SigPnd", "ShdPnd"), WAIT, "the storm's end")
    time_passes(300)
    qz_sandbox.send_signal(pid, signal.SIGUSR2)
    time_passes(300)
    mark = len(r.sb.syslog.lines())
    time_passes(1200)
    assert r.sb.syslog.lines(mark) == []
    # Terminating signals keep their default action.
    assert not {signal.SIGTERM, signal.SIGINT, signal.SIGHUP} & signal_set(pid, "SigCgt")
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: not qz_sandbox.is_running(pid), WAIT, "the daemon to end")
    assert not qz_sandbox.lock_is_held()


def plant_counter_links(r):
    plant_secret(r)
    os.symlink("/etc/qz_secret", STATS_PATH)
    os.symlink("/etc/qz_secret", STATS_PATH + ".tmp")


def counters_file_planted(r):
    # Links and FIFOs at the counters' names are never followed nor waited
    # on; the file is root's, 0644, and replaced whole.
    first = r.stats(what="counters written")
    st = os.lstat(STATS_PATH)
    assert stat.S_ISREG(st.st_mode) and (st.st_uid, stat.S_IMODE(st.st_mode)) == (0, 0o644)
    assert os.readlink(STATS_PATH + ".tmp") == "/etc/qz_secret"
    assert first["terminals"] == {"now": 0, "peak": 0, "refused": 0}
    tmp = "%s.%d.tmp" % (STATS_PATH, r.d.pid)
    # At this daemon's temporary name, which it may hold for a moment.
    for make in (lambda: os.symlink("/etc/made_by_link", tmp), lambda: os.mkfifo(tmp)):
        def attempt():
            try:
                return make() or True
            except FileExistsError:
                return False
        wait_until(attempt, WAIT, "planted")
        first = r.stats(lambda s: s["now"] > first["now"], "counters written again")
        wait_until(lambda: not os.path.lexists(tmp), WAIT, "what was planted removed")
    wait_until(lambda: sorted(n for n in os.listdir("/tmp") if n.startswith("qz_fh_stats"))
               == ["qz_fh_stats.json", "qz_fh_stats.json.tmp"], WAIT, "no temporary file left")
    secret_untouched(r)
    assert not os.path.lexists("/etc/made_by_link")


# dash sets SIGCHLD back to its default for what it runs; bash passes on
# what the script ignores.
IGNORING_SIGCHLD = "trap '' CHLD; exec \"$@\""


def sigchld_ignored(r):
    # A parent that ignored SIGCHLD changes no upload's result.
    probe = subprocess.run(["/bin/bash", "-c", IGNORING_SIGCHLD, "bash", "grep", "^SigIgn",
                            "/proc/self/status"], capture_output=True, text=True, check=True)
    assert int(probe.stdout.split()[1], 16) & 1 << (signal.SIGCHLD - 1), probe.stdout
    # The daemon itself ignores SIGPIPE, not SIGCHLD.
    assert signal_set(r.d.pid, "SigIgn") & {signal.SIGCHLD, signal.SIGPIPE} == {signal.SIGPIPE}
    r.online(range(1))

    def uploads(at_least):
        c = r.stats(lambda s: s["groups"]["145"]["uploads_ok"] + s["groups"]["145"]
                    ["uploads_failed"] >= at_least, "%d uploads of 145" % at_least)
        return c["groups"]["145"]
    # The server is down: the zip is kept and counted as failed.
    c = uploads(1)
    name = r.log(FAILED_145, "stderr")[1]
    assert (c["uploads_ok"], c["uploads_failed"], c["last_zip"]) == (0, 1, name), c
    assert c["last_upload_status"] != 0, c
    with open("%s/145/%s" % (UNSENT, name), "rb") as f:
        data = f.read()
    # It is back: uploads that work count as done, and the kept zip goes.
    r.sb.ftp.start()
    r.log(r"DEBUG:sent kept file :%s\n" % re.escape(name))
    assert uploads(3)["uploads_failed"] == 1
    assert kept(145) == [] and data in [u.read() for u in r.uploads("tmp/145")]


def console_gone(r):
    first = r.stats(what="counters written")
    # Two cycles' worth of log lines into the broken pipe.
    r.stats(lambda s: s["now"] >= first["now"] + 600, "two cycles")
    assert r.d.running() and len(lock_holders()) == 1


PROCESS_ROWS = [
    Row("lock_held", wum="hung", clock=600, ready=SETUP, steps=(second_copies_refused,)),
    # What another account put at the lock's or the socket's name first is
    # moved aside: the daemon runs, and records arrive.
    Row("lock_and_socket_of_another_account",
        launcher="umask 0; exec \"$@\"",
        planted=(foreign("file", LOCK_PATH), foreign("dir", sim.SHELL_SOCK_PATH)),
        steps=(online_arrives,), online=range(3), allowed=(
            r"%s is not the daemon's own lock file: moved aside to %s\.untrusted\.\d+" % (LOCK_PATH, LOCK_PATH),
            r"%s is not the daemon's own socket: moved aside to %s\.untrusted\.\d+"
            % (sim.SHELL_SOCK_PATH, sim.SHELL_SOCK_PATH)),
        check=socket_of_ours),
    foreground("debug_option", ("-D",), {}),
    foreground("debug_value", ("--debug=1",),
               {"fh_comment": "spare", "fh_port": 21, "fh_netbar_name": ""}),
    foreground("debug_argument_after_a_stray_one", ("stray", "--debug", "1"),
               {"fh_netbar_name": " Harbour Café 港口 ",
                "fh_org_address": "Road 2; \"Unit\" $(x) `y` \\"}),
    # x600: a 300-s cycle every half second.
    Row("detached", args=(), clock=600, ready=None, steps=(detached,)),
    Row("counters_file_planted", planted=(plant_counter_links,), steps=(counters_file_planted,)),
    Row("sigchld_ignored_by_the_parent", config=DURABLE, launcher=IGNORING_SIGCHLD, sink="down",
        steps=(sigchld_ignored,), allowed=(FAILED,)),
    # A console that goes away does not end the daemon.  But zip lists what
    # it adds on that console, and SIGPIPE ends it there: each cycle's zip
    # fails and its records are lost (a fault of the daemon's, pinned here
    # until it is mended).
    Row("console_gone", launcher="\"$@\" | true", ready=None, steps=(console_gone,),
        allowed=(r"zip of \S+ failed \(status 141\)", NOT_WRITTEN)),
]


# -- the groups' cycles ------------------------------------------------------------

SMOKE_CYCLES = {"tmp/145": 2, "tmp/146": 2, "tmp/144": 3}
TERMINAL = "aa:bb:cc:dd:ee:ff"
TIME = re.compile(rb"(?<!\d)1[78]\d{8}(?!\d)")  # the run's faked times


def smoke_events(r):
    # Sent while the first tick is held: all three land in the second cycle.
    r.held(0)
    r.shell.online(TERMINAL, "192.168.1.10", 1)
    r.kernel.send_http(TERMINAL, "192.168.1.10", "10.0.0.1", 51000, 80)
    r.shell.offline(TERMINAL)
    r.resume(0)


def smoke_golden(r):
    # Everything uploaded, times taken out, equals golden/smoke.txt, which
    # the x86-64 build wrote; each index is the checker's, which rebuilds it
    # byte for byte from the column tables.
    out = []
    for remote, n in SMOKE_CYCLES.items():
        for name, up in r.named(remote)[:n]:
            out.append(b"== " + TIME.sub(b"<time>", name.encode()))
            # Members in name order, the order of equal times being the file system's.
            for member, data in sorted((TIME.sub(b"<time>", m.encode()), d)
                                       for m, d in up.stored.items()):
                out += [b"-- " + member] if up.kind == "zip" else []
                if member != b"GAB_ZIP_INDEX.xml":
                    out += [TIME.sub(b"<time>", line) for line in data.split(b"\n")]
    text = b"\n".join(out) + b"\n"
    if os.environ.get("QZ_SMOKE_OUT"):
        with open(os.environ["QZ_SMOKE_OUT"], "wb") as f:
            f.write(text)
    with open(os.path.join(HERE, "golden", "smoke.txt"), "rb") as f:
        golden = f.read()
    assert text.decode(errors="replace").splitlines() == golden.decode(errors="replace").splitlines()
    assert text == golden


# A terminal comes online, makes an HTTP request and goes offline, and two
# archive cycles upload the netbar, terminal and status files: what every
# build passes, the cross builds under qemu-user too (scripts/cross-test.sh).
SMOKE = Row("smoke", aps=(APS2,), pauses=(0,), netlink="kernel", steps=(smoke_events,),
            planted=(lambda r: sim.write_wifi_info(TERMINAL, AP1, "-45"),),
            uploads=SMOKE_CYCLES, check=smoke_golden)

BASIC = [("WA_BASIC_FJ_0001", 1), ("WA_BASIC_FJ_0002", 1),
         ("WA_BASIC_FJ_0003_1", 2), ("WA_BASIC_FJ_0003_2", 2)]
PAIRS = 3100  # with one more offline: a full file and 1201 records
TYPED = "aa:bb:cc:dd:ee:01"


def netbar_plant(r):
    # Left by an earlier run: the start throws it away unsent.
    os.makedirs("/tmp/145")
    with open("/tmp/145/145-350100-1-00000-WA_SOURCE_FJ_0001-0.bcp", "w") as f:
        f.write("stale\n")
    for mac, ap in [(TERMINAL, AP1), (TYPED, AP2), (WEB, AP2)] + [(sim.mac_of(i), AP1)
                                                                   for i in range(40)]:
        sim.write_wifi_info(mac, ap)


def netbar_cycles(r):
    # Events sent while a tick is held are handled when it is over, so each
    # batch belongs to the cycle that follows, whatever the load.
    r.held(0)
    r.shell.online(TERMINAL, "192.168.1.10", 1)
    r.shell.online(TYPED, "192.168.1.11", 4, "x", "13800138000")
    r.kernel.send_http(WEB, "192.168.1.10", "10.0.0.1", 51000, 80)
    r.kernel.send_http("00:11:22:aa:bb:dd", "192.168.1.10", "10.0.0.1", 51001, 80)  # no status file
    r.resume(0)
    r.held(1)
    # HTTP first: WA_SOURCE_FJ_0002 opens its file before WA_SOURCE_FJ_0001
    # fills one, yet the full file is indexed first.
    r.kernel.send_http(WEB, "192.168.1.10", "10.0.0.1", 40000, 80)
    r.shell.offline(TERMINAL)
    r.shell.send_many(sim.build_shell_msg(cmd, text) for i in range(PAIRS)
                      for cmd, text in ((sim.CMD_ONLINE, "%s 192.168.7.1 1" % sim.mac_of(i % 40)),
                                        (sim.CMD_OFFLINE, sim.mac_of(i % 40))))
    r.kernel.send_http(WEB, "192.168.1.10", "10.0.0.1", 40001, 80)
    r.resume(1)


def netbar_landed(r):
    (_, first), (_, second) = r.named("tmp/145")[:2]
    # Nothing was archived at 300 s: the place, vendor and access-point
    # records written then arrive one cycle later.
    assert first.time >= START_EPOCH + 600 and (first.sequence, second.sequence) == (0, 1)
    assert [(f["dataset"], f["records"]) for f in first.files] == [(S1, 2), (S2, 1)] + BASIC
    assert [(f["dataset"], f["records"]) for f in second.files] == \
        [(S1, 5000), (S1, 2 * PAIRS + 1 - 5000), (S2, 2)] + BASIC
    assert [f["sequence"] for f in second.files] == [1, 2] + [1] * 5
    assert b"stale" not in b"".join(first.stored.values())
    on = list(first.records(S1))
    # The router's address as the probe found it through the real route
    # and ip commands (10.77.0.2, its network-order bytes read little-endian).
    assert [(x["AUTH_ACCOUNT"], x["IP_ADDRESS"], x["SRC_IP"]) for x in on] == \
        [(TERMINAL, "167880896", "33574154"), ("13800138000", "184658112", "33574154")]
    assert all(START_EPOCH + 300 <= int(x["START_TIME"]) <= first.time for x in on), on
    assert [x["PORT"] for x in first.records(S2)] == ["51000"]
    # The offline record a cycle later carries its session's start and id.
    off = next(second.records(S1))
    assert [off[k] for k in ("START_TIME", "SESSIONID")] == [on[0][k] for k in ("START_TIME",
                                                                                 "SESSIONID")]
    assert first.time < int(off["END_TIME"]) <= second.time, off
    assert [x["PORT"] for x in second.records(S2)] == ["40000", "40001"]


USER = "us er"
# Quotes, command substitution, a separator, backquotes, a backslash and
# URL syntax, all to arrive as text.  The double quotes are balanced, so a
# command line with the password pasted in would run both touches.
PASSWORD = 'p"w$(touch /tmp/pwned);x`touch /tmp/pwned2`"y\\z\'%41@:z'
LEFTOVERS = {
    "/tmp/146/146-350100-1700000000-00009-WA_BASIC_FJ_1002-0.bcp": b"LEFTOVER\n",
    "/tmp/146/GAB_ZIP_INDEX.xml": b"LEFTOVER",
    "/tmp/146/146-507183926-350100-350000-1700000000-00009.zip": b"LEFTOVER",
    "/tmp/144/145-350100-1700000000-9-DEVICESTATUS-0.bjson": b'{"sc":"LEFTOVER"}\n',
}
B_MAC = "a4:b1:c2:d3:e4:f5"
TERMINAL_DATASETS = ("WA_BASIC_FJ_1001", "WA_BASIC_FJ_1002", "WA_BASIC_FJ_1003", "WA_BASIC_FJ_1004")


def odd_credentials(r):
    r.sb.ftp.stop()
    r.sb.ftp = FtpSink(os.path.join(r.sb.private, "ftp-odd"), USER, PASSWORD).start()
    for path, data in LEFTOVERS.items():
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)


def terminal_cycles(r):
    r.facts["after_start"] = [os.listdir("/tmp/146"), os.listdir("/tmp/144")]
    # The server goes away once zip 0 is sent and is back once zip 1 failed.
    r.log(r"form zip file :146-\S+-00000\.zip")
    r.facts["before_outage"] = len(r.uploads("tmp/146"))
    r.sb.ftp.stop()
    r.log(r"form zip file :146-\S+-00001\.zip")
    r.sb.ftp.start()
    r.log(r"form zip file :146-\S+-00003\.zip")
    r.until(lambda: 4 in r.ticks(), "tick 4")
    r.facts["pwned"] = glob.glob("/tmp/pwned*") + glob.glob(os.path.join(r.sb.work_dir, "pwned*"))


def terminal_checks(r):
    # Numbered zips, a lost one stays lost, spools emptied at the start and
    # every cycle, odd credentials reach the server and run nothing.
    names = qz_sandbox.logged_names(r.d.stdout_text(), "tmp/146")[:4]
    assert [n[-9:-4] for n in names] == ["00000", "00001", "00002", "00003"]
    zips = r.uploads("tmp/146")[:3]
    assert r.facts["before_outage"] == 1 and len(zips) == 3, names
    times = [START_EPOCH + 300] + [int(n.split("-")[-2]) for n in names]
    # The first archive, at 600 s, holds the records written at 300 s.
    assert times[1] >= START_EPOCH + 600
    for up, cycle in zip(zips, (0, 2, 3)):
        got = r.read(up, names[cycle])
        assert [(f["dataset"], f["records"], f["file"].split("-")[3]) for f in got.files] == \
            [(code, n, "%05d" % cycle) for code, n in zip(TERMINAL_DATASETS, (2, 2, 1, 1))]
        aps = list(got.records("WA_BASIC_FJ_1001"))
        assert [x["COLLECTION_EQUIPMENTID"] for x in aps] == \
            [(qz_bcp.ORG_CODE + m.replace(":", "").upper())[:20] for m in (AP1, B_MAC)]
        # Written in the tick after the previous archive.
        assert all(times[cycle] <= int(x["TIME"]) < times[cycle + 1] for x in aps), aps
    assert {u.remote for u in r.uploads()} == {"tmp/144", "tmp/145", "tmp/146"}
    assert r.facts["after_start"] == [[], []]
    assert sorted(r.ticks())[:5] == list(range(5))
    for up in r.uploads():
        assert b"LEFTOVER" not in b"".join(r.read(up).stored.values()), up.path
    out = r.d.stdout_text() + r.d.stderr_text()
    assert r.facts["pwned"] == [] and "system cmd: wput" in out
    for shown in (PASSWORD, urllib.parse.quote(PASSWORD, safe=""), "pwned"):
        assert shown not in out
    assert {u.user for u in r.uploads()} == set(r.sb.ftp.logins()) == {USER}


A_ID, B_ID = "507183926001A2B3C4D5", "507183926A4B1C2D3E4F"
B_DASHES = "A4-B1-C2-D3-E4-F5"
# The listing of each tick, and the (device, ds) its status file must hold;
# None: no file is uploaded.
STATUS_TICKS = [
    (("1 %s up AP-01" % AP1, "2 %s up AP-02" % B_DASHES), [(A_ID, 0), (B_ID, 0)]),
    # B has gone; A named twice is still one access point.
    (("1 %s up AP-01" % AP1, "7 %s up AP-01" % AP1), [(A_ID, 0), (B_ID, 1)]),
    (("1 %s up AP-01" % AP1,), [(A_ID, 0)]),
    ((), [(A_ID, 1)]),
    # Nothing known and nothing listed: an empty file, not uploaded.
    ((), None),
    (("2 %s up AP-02" % B_DASHES,), [(B_ID, 0)]),
]


def status_files(r):
    names = [n for n in qz_sandbox.logged_names(r.d.stdout_text(), "tmp/144")
             if int(n.split("-")[3]) < len(STATUS_TICKS)]
    expected = [(tick, lines) for tick, (_, lines) in enumerate(STATUS_TICKS) if lines]
    got = [r.read(up, name) for name, up in zip(names, r.uploads("tmp/144"))]
    # Every report takes a number, the unsent one too.
    assert [(g.source, g.sequence) for g in got] == [("350100", tick) for tick, _ in expected]
    times = [g.time for g in got]
    assert times == sorted(times) and times[0] >= START_EPOCH + 300
    for g, (tick, lines) in zip(got, expected):
        # Where a new access point enters the list is the daemon's choice.
        assert sorted((s["dc"], int(s["ds"])) for s in g.status) == sorted(lines), tick
    assert sorted(r.ticks())[:len(STATUS_TICKS) + 1] == list(range(len(STATUS_TICKS) + 1))


GROUP_ROWS = [
    SMOKE,
    Row("netbar_cycles", aps=(APS2,), pauses=(0, 1), netlink="kernel", planted=(netbar_plant,),
        steps=(netbar_cycles,), uploads={"tmp/145": 2}, check=netbar_landed),
    Row("terminal_cycles_odd_credentials_one_lost", aps=(("1 " + AP1, "2 %s up AP-02" % B_MAC),),
        planted=(odd_credentials,), steps=(terminal_cycles,),
        check=terminal_checks, slow=True),
    Row("status_files_follow_the_listing", aps=tuple(a for a, _ in STATUS_TICKS),
        steps=(lambda r: r.until(lambda: len(STATUS_TICKS) in r.ticks(), "the last tick"),),
        check=status_files, slow=True),
]


# -- outside input --------------------------------------------------------------------

SECRET_AP = "de:ad:be:ef:00:01"
LONG_MAC = "aa:bb:cc:dd:ee:ff:" + "0" * 14  # 32 characters
MAC = "aa:00:00:00:00:01"
RECORD_1 = r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0001:1029999\t%s\t"
RECORD_2 = r"QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:.*\t%d\t16777216\t"


def bad_input_plant(r):
    # Status lines the daemon must never be tricked into reading.
    os.makedirs("/tmp/qztmp/clt_wifi_info/sub")
    for path in ("secret", "clt_wifi_info/...", "clt_wifi_info/sub/f"):
        with open("/tmp/qztmp/" + path, "w") as f:
            f.write("x 10.0.0.9 -1 %s s1 s2\n" % SECRET_AP)
    # Only a clt_ap_info file, and no AC.status: not consulted.
    sim.write_wifi_info("aa:00:00:00:00:50", SECRET_AP, ap_info=True)
    for m in (LONG_MAC, MAC, WEB):
        sim.write_wifi_info(m, AP1)


def planted_status_files(r):
    # Terminal k's status file is a FIFO (0), a link to a root-only file (1)
    # or another account's (2): each counts as missing (no record, as for a
    # terminal without one), the daemon waits on none, and no word of the
    # secret reaches a record; terminal 3's own file is read as ever.
    root_only("/etc/qz_secret", b"a b -99 SECRET x y\n")
    for k, kind in enumerate(("fifo", "link", "file")):
        foreign(kind, sim.status_path(sim.mac_of(k)))(r)
        r.shell.online(sim.mac_of(k), sim.numbered_ip(k), 1)
    r.online([3])


def no_secret(r):
    for up in r.uploads("tmp/145"):
        assert b"SECRET" not in b"".join(r.read(up).stored.values())


def bad_input(r):
    # Each bad datagram or kernel message is dropped with its line, and the
    # feed takes the next good one.
    d, good = r.d, iter(range(100))
    # The first online record runs the route look-up while a kernel message
    # waits too; the command runner takes that message, and the loop must
    # not then block reading the emptied netlink socket.
    qz_sandbox.wait_idle(d.pid)
    os.kill(d.pid, signal.SIGSTOP)
    try:
        r.kernel.send_event(sim.DATA_APP, WEB, "192.168.1.10", "10.0.0.1", 1, 80)
        r.shell.online(MAC, "192.168.1.50", 1)
    finally:
        os.kill(d.pid, signal.SIGCONT)
    d.wait_for(RECORD_1 % MAC)
    r.shell.online(MAC, "192.168.1.50", 1)
    d.wait_for(r"(%s.*){2}" % (RECORD_1 % MAC), flags=re.S)
    # In one row: once the daemon is stuck, every later input would wait in vain.
    on, dg, text = sim.CMD_ONLINE, sim.build_shell_msg, "%s 192.168.1.50 1" % MAC
    datagrams = [
        (b"", "datagram refused: shorter than its command type"),
        (b"\3\0\0", "datagram refused: shorter than its command type"),
        (dg(on, text, nul=False), "datagram refused: text without a terminator"),
        # Only 260 bytes are read: a NUL after them is not seen.
        (dg(on, text + " " * 300), "datagram refused: text without a terminator"),
        (dg(on, MAC + " 192.168.1.50"), "online msg refused: fewer than 3 tokens"),
        (dg(on, MAC + " 192.168.1.50 4 x"), "online msg refused: no usable account"),
        (dg(on, MAC + " 192.168.1.50 4 x " + "7" * 64), "online msg refused: no usable"),
        (dg(on, LONG_MAC + " 192.168.1.50 1"), "online msg refused: unusable mac"),
        (dg(on, MAC + " " + "1" * 24 + " 1"), "online msg refused: ip too long"),
        (dg(on, "../secret 192.168.1.50 1"), "online msg refused: unusable mac"),
        (dg(on, "... 192.168.1.50 1"), "online msg refused: unusable mac"),
        (dg(on, "sub/f 192.168.1.50 1"), "online msg refused: unusable mac"),
        (dg(sim.CMD_OFFLINE, "../secret"), "offline msg refused: no usable mac"),
        (dg(7, text), "UNKNOWN cmd type:7\n"),
        (dg(0xFFFFFFFF, text), "UNKNOWN cmd type:-1\n"),
        (dg(on, "aa:00:00:00:00:50 192.168.1.50 1"), "online msg: aa:00:00:00:00:50 "),
    ]
    for data, line in datagrams:
        mark = len(d.stdout_text())
        r.shell.send_raw(data)
        d.wait_for(re.escape(line), since=mark)
        m = sim.mac_of(next(good))
        sim.write_wifi_info(m, AP2)
        r.shell.online(m, "192.168.2.1", 1)
        d.wait_for(RECORD_1 % m, since=mark)

    def event(kind=sim.DATA_HTTP, **kw):
        return sim.build_event(kind, WEB, "192.168.1.10", "10.0.0.1", 1, 80, **kw)
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
        stream = "stderr" if line.startswith("ERROR:") else "stdout"
        mark, out_mark = len(d.text(stream)), len(d.stdout_text())
        r.kernel.send_raw(data)
        d.wait_for(re.escape(line), stream=stream, since=mark)
        r.kernel.send_http(WEB, "192.168.1.10", "10.0.0.1", length, 80, length=length)
        d.wait_for(RECORD_2 % length, since=out_mark)
    out = d.stdout_text()
    assert out.count(RECORD) == len(datagrams) + 2
    assert out.count("QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:") == len(kernel) + 1
    assert SECRET_AP not in out and SECRET_AP.replace(":", "-").upper() not in out
    assert [e.level for e in qz_sandbox.log_entries(d.stderr_text())] == ["ERROR"]


def netlink_fails(call, *lines):
    # A failed netlink set-up leaves the terminal feed working.
    def online_works(r):
        sim.write_wifi_info(TERMINAL, AP1)
        r.shell.online(TERMINAL, "192.168.1.10", 1)
        r.d.wait_for(RECORD_1 % TERMINAL)
    return Row("netlink_%s_fails" % call, env={"QZ_NLSTUB_FAIL": call}, steps=(online_works,),
               log=lines, allowed=[line[6:-2] for _, line in lines if line.startswith("ERROR:")])


NETLINK_FAILED = (("stderr", r"ERROR:netbar 0002 init socket fail\n"),
                  ("stderr", r"ERROR:a feed could not be opened: running without it\n"))
INPUT_ROWS = [
    Row("status_files_planted", steps=(planted_status_files,), online=range(3, 4), check=no_secret,
        allowed=(r"status file /tmp/qztmp/clt_wifi_info/\S+ not used: (not a regular file|a link|"
                 r"owned by another account)",)),
    Row("bad_input", netlink="kernel", planted=(bad_input_plant,), steps=(bad_input,),
        allowed=(re.escape("recv err data from kernel broadcast ..."),)),
    netlink_fails("socket", ("stderr", r"ERROR:create netlink socket error:-1:Protocol not "
                                       r"supported!\n"), *NETLINK_FAILED),
    netlink_fails("bind", ("stderr", r"ERROR:bind netlink socket error! \d+:Address already in "
                                     r"use\n"), *NETLINK_FAILED),
    netlink_fails("send", ("stdout", r"DEBUG:sock_fd:\d+\n")),
]


# -- durable runs, floods and what the host does wrong --------------------------------

def durable_runs(r):
    # A first upload fails and is sent again a cycle later, SIGTERM in the
    # middle of a cycle keeps it, SIGKILL after records were handled loses
    # none of them, and a third run sends everything kept.
    r.online(range(20))
    r.log(re.escape(RECORD), count=20)
    r.log(r"DEVICESTATUS-0.bjson failed with status", "stderr")
    r.log(FAILED_145, "stderr")
    # The groups and the status report upload side by side: either fails first.
    failed = sorted(m[0] for m in re.findall(FAILED, r.d.stderr_text()))
    assert len(failed) == 2 and failed[1].startswith("145-507183926-350100-350000-") and \
        "DEVICESTATUS" in failed[0], failed
    kept_bytes = {}
    for name in failed:
        path = "%s/%s/%s" % (UNSENT, 144 if "DEVICESTATUS" in name else 145, name)
        r.until(lambda: os.path.exists(path), path)
        with open(path, "rb") as f:
            kept_bytes[name] = f.read()
    r.sb.ftp.start()
    # Next cycle: its own zip, then the kept ones, unchanged.
    r.log("sent kept file", count=2)
    r.online(range(20, 35))
    r.log(re.escape(RECORD), count=35)
    began = time.monotonic()
    r.d.signal(signal.SIGTERM)
    assert r.d.wait(LONG_WAIT) == 0 and time.monotonic() - began < 5, r.d.describe()
    at_stop = {g: kept(g) for g in (144, 145, 146)}
    assert [len(at_stop[g]) for g in (144, 145, 146)] == [0, 1, 1], at_stop
    out = r.d.stdout_text()
    assert qz_sandbox.logged_names(out, "tmp/145")[0] == failed[1]
    assert sorted(re.findall(r"DEBUG:sent kept file :(\S+)\n", out)) == failed
    first = {g: len(r.uploads("tmp/%d" % g)) for g in (144, 145, 146)}
    assert all(data in [u.read() for u in r.uploads()] for data in kept_bytes.values())
    r.read([u for u in r.uploads() if u.read() == kept_bytes[failed[1]]][0], failed[1])
    # The counters agree with the server.
    s = read_stats()
    for g in (144, 145, 146):
        c = s["groups"][str(g)]
        assert (c["uploads_ok"], c["uploads_failed"], c["unsent_files"]) == \
            (first[g], g != 146, len(at_stop[g])), (g, c)
    assert s["groups"]["145"]["last_zip"] == at_stop[145][0]
    assert s["datasets"][S1] == {"records": 35, "refused": 0}
    feed = s["feeds"]["online_offline"]
    assert (feed["received"], feed["handled"], feed["refused"]) == (35, 35, 0)
    assert set(s["feeds"]) == {"online_offline", "http"} and s["started"] <= s["now"]

    r.start(start=START_EPOCH + HOUR)
    r.online(range(35, 45))
    r.log(re.escape(RECORD), count=10)
    # Handled lines are in their file before the loop waits again.
    r.until(lambda: sum(open("/tmp/145/" + n).read().count("\n") for n in os.listdir("/tmp/145")
                        if S1 in n) == 10, "lines in the file")
    r.d.signal(signal.SIGKILL)
    r.d.wait(LONG_WAIT)
    assert len([n for n in os.listdir("/tmp/145") if S1 in n]) == 1

    r.start(start=START_EPOCH + 2 * HOUR)
    r.until(lambda: not kept(145) and not kept(146), "kept files sent")
    assert len(r.uploads("tmp/145")) > first[145]
    # The status report follows the groups in its tick: a stop in the middle
    # of its upload would rightly keep its file too.
    r.log("send bjson file :", count=r.d.stdout_text().count("send bjson file :") + 1)


def durable_third_stop(r):
    # What the third run kept at its stop is its own open cycles.
    assert kept(144) + kept(145) + kept(146) == \
        sorted(re.findall(r"DEBUG:form zip file :(\S+)\n", r.d.stdout_text())[-2:])


def flood(r):
    # A blocking sender floods while every upload stalls: the daemon reads
    # only what it can keep and the sender waits, so every datagram sent is
    # in exactly one record of the zips received.
    for i in range(200):
        sim.write_status_line(sim.mac_of(i), sim.STATUS_LINE)
    # Half a second an upload: 30 s of the daemon's clock, inside wput's
    # time-outs, which run on that clock too.
    r.sb.ftp.set_delay(0.5)
    wait_until(lambda: qz_sandbox.lock_holder() and os.path.exists(sim.SHELL_SOCK_PATH),
               LONG_WAIT, "the detached daemon")
    sent, began = 0, time.monotonic()
    # Bursts of 30,000, until two stalled uploads of the group have come
    # and gone.
    while len(r.uploads("tmp/145")) < 2:
        assert time.monotonic() - began < LONG_WAIT, "no uploads during the flood"
        for _ in range(30000):
            r.shell.online(sim.mac_of(sent % 200), sim.numbered_ip(sent), 1)
            sent += 1
        time.sleep(1.5)
    r.sb.ftp.set_delay(0)
    # The cycle under way and the next one archive what is still open.
    for _ in range(2):
        mark = len(r.uploads())
        wait_until(lambda: "tmp/145" in [u.remote for u in r.uploads()[mark:]], LONG_WAIT,
                   "an upload")
    assert sent > 1000 and sorted(r.received(S1)) == list(range(sent))
    s = r.stats(lambda s: s["datasets"][S1]["records"] == sent, "the counters")
    feed = s["feeds"]["online_offline"]
    assert (feed["received"], feed["handled"], feed["refused"]) == (sent, sent, 0), feed


MOVED = "%s is not the daemon's own directory: moved aside to (%s\\.untrusted\\.\\d+)"
SPOOL = "/tmp/145"
VICTIM = "/etc/qz_victim"
MARK = b"qz-host-faults-secret"


def foreign_spool(kind, *plants):
    # /tmp/145 made before the daemon by uid 65534 (or by root, open to
    # all), with links to a root-only file in it: nothing of that is
    # uploaded or changed, and the daemon's /tmp/145 ends up its own.
    def plant(r):
        root_only("/etc/qz_secret", MARK)
        os.mkdir(VICTIM, 0o700)
        for name in ("shadow", "145-350100-1709000000-00000-WA_SOURCE_FJ_0002-0.bcp"):
            root_only(os.path.join(VICTIM, name), MARK)
        sim.write_wifi_info(WEB, AP1)

    def facts(r):
        r.facts.update(inode=os.stat(SPOOL).st_ino, before=[fingerprint(p) for p in sorted(
            glob.glob(VICTIM + "/*") + ["/etc/qz_secret"])])

    def owned(r):
        if kind == "roots":
            r.until(lambda: owner_mode(SPOOL)[2] == 0o700, "chmod to 0700")
            assert os.stat(SPOOL).st_ino == r.facts["inode"], "not the same directory"
        else:
            assert os.path.lexists(r.log("ERROR:" + MOVED % (SPOOL, SPOOL), "stderr")[1])
        assert owner_mode(SPOOL) == (0, stat.S_IFDIR, 0o700)
        # Too late now: the directory is root's and closed to others.
        status, err = as_nobody("os.symlink('/etc/qz_secret', %r)" % (SPOOL + "/yy"))
        assert status != 0 and "PermissionError" in err
        r.http(range(10))

    def untouched(r):
        assert [fingerprint(p) for p in sorted(glob.glob(VICTIM + "/*") + ["/etc/qz_secret"])] \
            == r.facts["before"]
        for up in r.uploads():
            assert not any(MARK in name.encode() + data for name, data in r.read(up).stored.items())
        assert owner_mode(SPOOL) == (0, stat.S_IFDIR, 0o700)

    return Row("foreign_spool_" + kind, netlink="kernel", planted=(plant,) + plants + (facts,),
               steps=(owned,), http=range(10), allowed=(MOVED % (SPOOL, SPOOL),), check=untouched,
               counters={"groups.145.dirs_replaced": 0 if kind == "roots" else 1})


def roots_open_spool(r):
    os.mkdir(SPOOL)
    os.chmod(SPOOL, 0o777)


EARLY = r"group 145 holds (\d+) bytes in one cycle, archiving early"
BEHIND = r"feeds behind since the last report: .*"


def spool_bound_plant(r):
    os.mkdir(SPOOL, 0o700)
    qz_sandbox.run("mount", "-t", "tmpfs", "-o", "size=4m,mode=0700", "qzspool", SPOOL)
    sim.write_wifi_info(WEB, AP1)


def spool_bound(r):
    # 30,000 HTTP events (5 MB of lines) into a 4 MiB /tmp/145 in one cycle:
    # the spool's bound (a quarter of its file system) starts early
    # archives, and every event arrives once.
    r.http(range(30000))
    r.arrived(S2, range(30000))
    fs = os.statvfs(SPOOL)
    assert fs.f_blocks * fs.f_frsize // 4 == 1 << 20
    early = [int(m) for m in re.findall(EARLY, r.d.stderr_text())]
    # How many depends on how many cycles the flood spans: at least one,
    # each at the bound, reached by the records of one wake-up of the feed.
    assert early and all(1 << 20 <= size < (1 << 20) + 65536 for size in early), early
    lines = sum(i.file_size for u in r.uploads("tmp/145") for i in
                zipfile.ZipFile(u.path).infolist() if S2 in i.filename)
    assert lines > fs.f_blocks * fs.f_frsize, "the flood fits the file system"
    r.stats(lambda s: s["feeds"]["http"]["handled"] == 30000 and
            s["groups"]["145"]["early_archives"] == len(early) and
            s["datasets"][S2]["refused"] == 0, "early archives counted")


def failing_zip(r):
    # The first zip of group 145 fails; every other call is the real zip.
    with open(os.path.join(r.sb.bin_dir, "zip"), "w") as f:
        f.write("#!/bin/sh\ncase \"$*\" in *145-507183926-*)\n"
                "    [ -e /etc/qz_sim/zip-failed ] || { : > /etc/qz_sim/zip-failed; exit 12; } ;;\n"
                "esac\nexec /usr/bin/zip \"$@\"\n")
    os.chmod(os.path.join(r.sb.bin_dir, "zip"), 0o755)
    sim.write_wifi_info(WEB, AP1)


def zip_fails(r):
    r.http(range(30))
    r.log(re.escape("QZ2FH_NETBAR_TYPE-WA_SOURCE_FJ_0002:"), count=30)
    r.held(0)
    r.resume(0)
    r.log(r"WARN:zip of 145-507183926-\S+\.zip failed \(status 12\)\n", "stderr")
    r.http(range(30, 60))


HUNG_ONLINE = 16000  # within the terminal table (16,384): no offline records


def hung_server(r):
    # A server that greets and never answers, for the first 16 real seconds
    # of the run: uploads wait beside the loop while online datagrams come
    # at 1,000 a second from a non-blocking sender. None is refused (the
    # socket holds a second of them, so that the machine's own hiccups do
    # not count), the counters file keeps time, and the kept zips arrive
    # once the server answers again.
    times = []
    done = threading.Event()

    def watch():
        while not done.wait(0.2):
            s = read_stats()
            if s and (not times or times[-1][1] != s["now"]):
                times.append((time.monotonic(), s["now"]))
    watcher = threading.Thread(target=watch)
    watcher.start()
    refused = r.online(range(HUNG_ONLINE), rate=1000, nonblocking=True)
    done.set()
    watcher.join()
    assert refused == [], len(refused)
    assert max(b[0] - a[0] for a, b in zip(times, times[1:])) < 5, times
    name = r.log(FAILED_145, "stderr")[1]
    r.sb.ftp.start()
    r.log(r"DEBUG:sent kept file :%s\n" % re.escape(name))
    # Stopped between ticks: the status report follows the groups in theirs.
    r.log("send bjson file :", count=r.d.stdout_text().count("send bjson file :") + 1)


def no_route(r):
    qz_sandbox.run("ip", "addr", "flush", "dev", qz_sandbox.ROUTE_IF)
    # Each probe of the tick's leaves its time.
    with open(os.path.join(r.sb.bin_dir, "route"), "w") as f:
        f.write("#!/bin/sh\ndate +%s >> /etc/qz_sim/probes\nexec /usr/sbin/route \"$@\"\n")
    os.chmod(os.path.join(r.sb.bin_dir, "route"), 0o755)


def route_comes_up(r):
    # The router's address is the tick's probe's, never a record's: a record
    # built once the route is up, before a tick has found it, says 0.
    def probes():
        with open("/etc/qz_sim/probes") as f:
            return len(f.readlines())
    seen = r.until(lambda: os.path.exists("/etc/qz_sim/probes") and probes(), "a probe")
    r.until(lambda: probes() > seen, "a tick's probe")
    qz_sandbox.run("ip", "addr", "add", qz_sandbox.ROUTE_IP + "/24", "dev", qz_sandbox.ROUTE_IF)
    qz_sandbox.run("ip", "route", "add", "default", "via", qz_sandbox.GATEWAY_IP)
    r.online([0])
    seen = probes()
    r.until(lambda: probes() > seen, "the next tick's probe")
    time.sleep(0.5)
    r.online([1])
    # The records as the console shows them: the files are written later.
    got = r.until(lambda: (lambda x: x if len(x) == 2 else None)(
        re.findall(re.escape(RECORD) + "(.*)", r.d.stdout_text())), "two records")
    assert [qz_bcp.record(S1, x)["SRC_IP"] for x in got] == ["0", "33574154"], got


HOST_ROWS = [
    Row("route_comes_up_after_the_start", clock=None, planted=(no_route,), steps=(route_comes_up,)),
    Row("durable_runs", config=DURABLE, sink="down", steps=(durable_runs,), status=0,
        online=range(45), allowed=(FAILED,), check=durable_third_stop, slow=True),
    Row("flood_through_stalled_uploads", args=(), ready=None, steps=(flood,), slow=True),
    foreign_spool("nobodys", foreign("dir", SPOOL), foreign("link", SPOOL + "/zz")),
    foreign_spool("link", foreign("link", SPOOL, VICTIM)),
    foreign_spool("roots", roots_open_spool, foreign("link", SPOOL + "/zz")),
    Row("spool_bound", netlink="kernel", clock=12, planted=(spool_bound_plant,),
        steps=(spool_bound,), http=range(30000), allowed=(EARLY, BEHIND), slow=True),
    # Without the durable key the failed cycle's records go, as always.
    Row("zip_fails", netlink="kernel", pauses=(0,), planted=(failing_zip,), steps=(zip_fails,),
        http=range(30, 60), allowed=(r"zip of 145-507183926-\S+\.zip failed \(status 12\)",
                                     r"WA_SOURCE_FJ_0002: 30 records not written since the last "
                                     r"report: Input/output error")),
    Row("hung_server", config=DURABLE, sink="hung", steps=(hung_server,), online=range(HUNG_ONLINE),
        planted=(lambda r: qz_sandbox.run("sysctl", "-qw", "net.unix.max_dgram_qlen=1000"),),
        allowed=(FAILED, r"wput still running after 120 s: killed with its process group"), slow=True),
    # A listing that hangs is killed at every scan, and holds nothing else
    # up: the first cycle's online records arrive with its archive, on time.
    Row("hung_wum", wum="hung", steps=(online_arrives,), online=range(3), uploads={"tmp/145": 1},
        allowed=(r"wum still running after 10 s: killed with its process group",),
        check=lambda r: r.named("tmp/145")[0][1].time == START_EPOCH + 300),
]

ROWS = {row.name: row for row in START_FAILURES + PROCESS_ROWS + GROUP_ROWS + INPUT_ROWS + HOST_ROWS}


@pytest.mark.parametrize("row_name", [pytest.param(row.name, id=row.name,
                                                 marks=[pytest.mark.slow] if row.slow else [])
                                    # the slow first: side by side they end sooner
                                    for row in sorted(ROWS.values(), key=lambda r: not r.slow)])
def test_row(row_name):
    env = dict(os.environ)
    env.setdefault("QZ_BIN", os.path.join(ROOT, "build", "qz_fh_audit"))
    r = subprocess.run(["/usr/bin/python3", os.path.abspath(__file__), row_name], env=env,
                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True, timeout=900)
    assert r.returncode == 0, r.stdout


if __name__ == "__main__":
    qz_sandbox.enter_namespaces()
    import scenario
    with qz_sandbox.Sandbox() as sandbox:
        scenario.run(ROWS[sys.argv[1]], sandbox)
