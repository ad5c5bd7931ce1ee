"""Start-up of the real daemon: options, the single-instance lock, the
configuration load, detaching, log lines and their syslog switch, and the
loop that keeps it alive.  Every return from main() ends with 255."""

import calendar
import os
import random
import re
import signal

import qz_sandbox
from e2e_base import WAIT, SandboxCase
from qz_sandbox import CONFIG_PATH, LOCK_PATH, REMOVE, send_signal, wait_until
from tick_wum import TickWum

LOCK_FAILED = b"can not get file lock or open file failed"
# Logged by the terminal group's set-up, the first thing after the
# configuration: it shows the configuration was accepted.
SETUP_LINE = r"qz2fh_create_dir<\d+>: DEBUG:mkdir /tmp/146 2>/dev/null"
START_EPOCH = calendar.timegm((2024, 3, 5, 7, 4, 1))


def cmdline(pid):
    try:
        with open("/proc/%d/cmdline" % pid, "rb") as f:
            return f.read()
    except OSError:
        return b""


def error(func, text):
    return r"\d{4}(-\d{1,2}){2} \d{1,2}(:\d{1,2}){2} %s<\d+>: ERROR:%s" % (func, re.escape(text))


def refused(key, why):
    return (error("config_get_string", key + why) + error("qz2fh_config_init", key + " is null!")
            + error("main", "config init failed\n"))


class FailedStartTest(SandboxCase):

    def test_each_failed_start_ends_with_255_and_its_message(self):
        load_failed = (error("qz2fh_config_init", "load file:%s failed!" % CONFIG_PATH)
                       + error("main", "config init failed\n"))
        control = " holds a control character, refused"
        # (arguments, configuration: None for none, text, or values; stdout;
        # stderr; whether the lock file is made).  The option errors begin
        # with libc's own diagnostic.
        cases = [
            (["-x"], {}, "", r".*invalid option -- 'x'\nunknown command: \?\n", False),
            (["-D", "--debug"], {}, "", r".*'--debug' requires an argument\nunknown command: \?\n",
             False),
            (["--verbose=1"], {}, "", r".*unrecognized option.*\nunknown command: \?\n", False),
            (["-D"], "dir", "open QZ_FILE_LOCK_PATH failed!", LOCK_FAILED.decode(), False),
            ([], "dir", "open QZ_FILE_LOCK_PATH failed!", LOCK_FAILED.decode(), False),
            (["-D"], None, "", load_failed, True),
            (["--debug=1"], "fh_ftp_port=21\n", "", load_failed, True),
            (["--debug", "1"], "[]", "",
             refused("fh_netbar_property_str", " is not in config or not string"), True),
            # Keys are read in table order; the first bad one ends the load.
            (["-D"], {"fh_dst_str": REMOVE, "fh_ftp_port": 21}, "",
             refused("fh_dst_str", " is not in config or not string"), True),
            (["-D"], {"fh_ftp_port": 21}, "",
             refused("fh_ftp_port", " is not in config or not string"), True),
            (["-D"], {"fh_address": "Main Street 1\n"}, "", refused("fh_address", control), True),
            (["-D"], {"fh_ftp_password": "pa\tss"}, "", refused("fh_ftp_password", control), True),
        ]
        for args, config, out, err, lock_made in cases:
            with self.subTest(args=args, config=config):
                for path in (LOCK_PATH, CONFIG_PATH):
                    if os.path.isdir(path):
                        os.rmdir(path)
                    elif os.path.exists(path):
                        os.unlink(path)
                if config == "dir":
                    os.mkdir(LOCK_PATH)
                    self.sb.write_config()
                elif isinstance(config, str):
                    self.sb.write_config(raw=config)
                elif config is not None:
                    self.sb.write_config(config)
                status, stdout, stderr = self.sb.run_daemon_once(args)
                self.assertEqual(status, 255)
                self.assertEqual(stdout, out)
                self.assertRegex(stderr, "^(%s)$" % err)
                self.assertEqual(os.path.isfile(LOCK_PATH), lock_made)
                self.assertFalse(os.path.exists("/tmp/146"), "a group was set up")


class LockTest(SandboxCase):

    def test_lock_holds_off_a_second_copy_and_goes_with_the_process(self):
        self.sb.write_config()
        # A FIFO listing keeps the first scan's shell waiting: it must not
        # have inherited the lock when the daemon dies.
        self.sb.set_wtps(fifo=True)
        first = self.sb.start_daemon(["-D"], accel=600)
        self.wait_handlers(first.pid)
        first.wait_for(SETUP_LINE)
        os.makedirs("/tmp/146", exist_ok=True)
        open("/tmp/146/marker", "w").close()
        for args in (["-D"], []):
            second = self.sb.start_daemon(args)
            self.assertEqual(second.wait(), 255)
            self.assertEqual((second.stdout_bytes(), second.stderr_bytes()), (b"", LOCK_FAILED))
        self.assertTrue(os.path.exists("/tmp/146/marker"), "a second copy emptied the spool")
        self.assertEqual(qz_sandbox.lock_holders(), [first.pid])

        # Not just any child: set-up commands come and go meanwhile.
        scans = wait_until(lambda: [p for p in qz_sandbox.children_of(first.pid)
                                    if b"wum" in cmdline(p)], WAIT, "the wum scan")
        first.signal(signal.SIGKILL)
        first.wait()
        self.assertTrue(qz_sandbox.is_running(scans[0]), "the scan ended with the daemon")
        again = self.sb.start_daemon(["-D"])
        self.wait_handlers(again.pid)
        self.assertEqual(qz_sandbox.lock_holders(), [again.pid])


class ForegroundTest(SandboxCase):

    def test_debug_forms_stay_in_the_foreground_and_log_local_time(self):
        # Each with a configuration the load must take as it is.
        forms = [
            (["-D"], {}),
            (["--debug=1"], {"fh_comment": "spare", "fh_port": 21, "fh_netbar_name": ""}),
            (["stray", "--debug", "1"], {"fh_netbar_name": " Harbour Café 港口 ",
                                         "fh_org_address": "Road 2; \"Unit\" $(x) `y` \\"}),
        ]
        for args, values in forms:
            with self.subTest(args=args):
                self.sb.write_config(values)
                # 07:04:01 UTC is 15:04:01 eight hours east.
                d = self.sb.start_daemon(args, accel=1, start=START_EPOCH, env={"TZ": "CST-8"})
                self.wait_handlers(d.pid)
                self.assertEqual(qz_sandbox.lock_holders(), [d.pid])
                d.wait_for(SETUP_LINE)
                self.assertEqual(d.stop(), -signal.SIGTERM)
                lines = d.stdout_text().splitlines()
                self.assertTrue(lines)
                for line in lines:
                    self.assertRegex(line, r"^2024-3-5 15:4:\d{1,2} \w+<[1-9]\d*>: DEBUG:")
                for line in d.stderr_text().splitlines():
                    self.assertRegex(line, r"^2024-3-5 15:4:\d{1,2} \w+<[1-9]\d*>: (WARN|ERROR):")


class BackgroundTest(SandboxCase):

    def test_detached_copy_logs_only_to_syslog_when_switched_on(self):
        self.sb.write_config()
        wum = TickWum(self.sb, [["1 00:1a:2b:3c:4d:5e up AP-01"]])

        def time_passes(seconds):
            # Read from the scans, which run under the daemon's clock.
            def now():
                return max([c.time for calls in wum.ticks().values() for c in calls],
                           default=START_EPOCH)
            until = now() + seconds
            wait_until(lambda: now() >= until, WAIT, "%d simulated seconds" % seconds)

        # x600: a 300-s cycle every half second.
        d = self.sb.start_daemon([], accel=600)
        # libc's daemon() ends the parent with _exit(0), not through main.
        self.assertEqual(d.wait(), 0)
        self.assertEqual(d.stdout_bytes() + d.stderr_bytes(), b"")
        pids = wait_until(lambda: [p for p in qz_sandbox.pids_of(qz_sandbox.daemon_binary())
                                   if p != d.pid], WAIT, "the detached copy")
        self.assertEqual(len(pids), 1)
        pid = pids[0]
        self.wait_handlers(pid)
        self.assertEqual(qz_sandbox.proc_status(pid)["PPid"], "1")
        with open("/proc/%d/stat" % pid) as f:
            self.assertEqual(int(f.read().rsplit(")", 1)[1].split()[3]), pid, "no session")
        self.assertEqual(os.readlink("/proc/%d/cwd" % pid), "/")
        for fd in (0, 1, 2):
            self.assertEqual(os.readlink("/proc/%d/fd/%d" % (pid, fd)), "/dev/null")
        self.assertEqual(qz_sandbox.lock_holders(), [pid])

        time_passes(600)
        self.assertEqual(self.sb.syslog_lines(), [])
        send_signal(pid, signal.SIGUSR1)
        rec = self.sb.syslog.wait_for(r"DEBUG:")
        # The bare level; libc adds its default facility, LOG_USER.
        self.assertEqual((rec.facility, rec.severity, rec.tag), (1, 7, "qz_fh_audit"))
        # A storm of switches, then "off" alone: when both are pending, the
        # handler of the later one runs first.
        rng = random.Random(7)
        for _ in range(300):
            os.kill(pid, rng.choice((signal.SIGUSR1, signal.SIGUSR2)))
        wait_until(lambda: not qz_sandbox.pending_signals(pid), WAIT, "the storm's end")
        time_passes(300)
        send_signal(pid, signal.SIGUSR2)
        time_passes(300)
        mark = self.sb.syslog.mark()
        # Twenty simulated minutes more, and nothing more in syslog.
        time_passes(1200)
        self.assertEqual(self.sb.syslog_lines(mark), [])
        self.assertTrue(qz_sandbox.is_running(pid))

        # Terminating signals keep their default action.
        terminating = {signal.SIGTERM, signal.SIGINT, signal.SIGHUP}
        self.assertFalse(terminating & qz_sandbox.caught_signals(pid))
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not qz_sandbox.is_running(pid), WAIT, "the daemon to end")
        self.assertFalse(qz_sandbox.lock_is_held())
