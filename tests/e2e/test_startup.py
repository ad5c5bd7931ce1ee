"""Start-up of the real daemon: options, the single-instance lock,
detaching, the configuration load, log lines and their syslog switch, and
the loop that keeps it alive.  Every path out of main() ends with 255."""

import contextlib
import datetime
import json
import os
import random
import re
import signal
import time
import unittest

import qz_sandbox
from e2e_base import SandboxCase, log_entries, messages
from qz_sandbox import CONFIG_PATH, LOCK_PATH, REMOVE, send_signal, wait_until

LOCK_FAILED = b"can not get file lock or open file failed"
LOAD_FAILED = "load file:/etc/qz_fh_audit.json failed!"
INIT_FAILED = "config init failed\n"
# Logged by the terminal group's set-up, the first thing after the
# configuration: its presence proves the configuration was accepted.
SETUP_LINE = r"qz2fh_create_dir<\d+>: DEBUG:mkdir /tmp/146 2>/dev/null"

LOG_USER = 1
SEVERITY = {"DEBUG": 7, "WARN": 4, "ERROR": 3}


def parsed_time(entry):
    return datetime.datetime(entry.year, entry.month, entry.day, entry.hour, entry.minute,
                             entry.second)


class OptionTest(SandboxCase):

    def test_bad_options_end_before_the_lock(self):
        # libc's getopt_long prints its own diagnostic, then the daemon its line.
        cases = [
            (["-x"], "invalid option -- 'x'"),
            (["-Dx"], "invalid option -- 'x'"),
            (["--debug"], "option '--debug' requires an argument"),
            (["-D", "--debug"], "option '--debug' requires an argument"),
            (["--verbose=1"], "unrecognized option '--verbose=1'"),
        ]
        self.sb.write_config()
        for args, diagnostic in cases:
            with self.subTest(args=args):
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(LOCK_PATH)
                rc, out, err = self.sb.run_daemon_once(args)
                self.assertEqual(rc, 255)
                self.assertEqual(out, "")
                lines = err.splitlines(keepends=True)
                self.assertEqual(len(lines), 2, err)
                self.assertIn(diagnostic, lines[0])
                self.assertEqual(lines[1], "unknown command: ?\n")
                self.assertFalse(os.path.exists(LOCK_PATH), "lock file made after a bad option")

    def test_debug_forms_keep_the_process_in_the_foreground(self):
        forms = [["-D"], ["--debug=1"], ["--debug", "1"], ["--debug=0"], ["-D", "-D"],
                 ["stray", "-D", "words"]]
        self.sb.write_config()
        for args in forms:
            with self.subTest(args=args):
                d = self.sb.start_daemon(args)
                try:
                    # The started process itself takes the lock and runs on.
                    self.wait_handlers(d.pid)
                    self.assertEqual(qz_sandbox.lock_holders(), [d.pid])
                    self.assertEqual(qz_sandbox.pids_of(qz_sandbox.daemon_binary()), [d.pid])
                    d.wait_for(SETUP_LINE)
                finally:
                    self.assertEqual(d.stop(), -signal.SIGTERM)

    def test_debug_forms_log_a_failed_start_on_the_console(self):
        for args in (["--debug=1"], ["--debug", "1"]):
            with self.subTest(args=args):
                rc, out, err = self.sb.run_daemon_once(args)
                self.assertEqual(rc, 255)
                self.assertEqual(messages(err, "ERROR"), [LOAD_FAILED, INIT_FAILED])


class LockTest(SandboxCase):

    def test_second_copy_is_refused_and_leaves_the_first_alone(self):
        self.sb.write_config()
        first = self.sb.start_daemon(["-D"])
        self.wait_handlers(first.pid)
        qz_sandbox.wait_idle(first.pid)
        os.makedirs("/tmp/146", exist_ok=True)
        with open("/tmp/146/marker", "w") as f:
            f.write("first copy's file\n")

        for args in (["-D"], []):
            with self.subTest(args=args):
                second = self.sb.start_daemon(args)
                self.assertEqual(second.wait(5), 255)
                self.assertEqual(second.stderr_bytes(), LOCK_FAILED)
                self.assertEqual(second.stdout_bytes(), b"")

        self.assertTrue(first.running())
        self.assertEqual(qz_sandbox.lock_holders(), [first.pid])
        self.assertEqual(qz_sandbox.pids_of(qz_sandbox.daemon_binary()), [first.pid])
        self.assertTrue(os.path.exists("/tmp/146/marker"), "second copy emptied the spool")

    def test_lock_of_a_killed_copy_does_not_block_a_new_start(self):
        self.sb.write_config()
        binary = qz_sandbox.daemon_binary()
        for args in (["-D"], []):
            with self.subTest(args=args):
                d = self.sb.start_daemon(args)
                pid = d.pid if args else self.detached_child(d.pid)
                self.wait_handlers(pid)
                os.kill(pid, signal.SIGKILL)
                wait_until(lambda: not qz_sandbox.is_running(pid), 5, "the killed copy to end")
                self.assertTrue(os.path.isfile(LOCK_PATH))
                self.assertFalse(qz_sandbox.lock_is_held())

                again = self.sb.start_daemon(args)
                pid = again.pid if args else self.detached_child(again.pid)
                self.wait_handlers(pid)
                self.assertEqual(qz_sandbox.lock_holders(), [pid])
                os.kill(pid, signal.SIGKILL)
                wait_until(lambda: not qz_sandbox.pids_of(binary), 5, "the copies to end")

    def test_commands_do_not_inherit_the_lock(self):
        # wum blocks on a FIFO listing, so the scan's shell outlives a
        # SIGKILL of the daemon; it must not keep the lock alive.
        self.sb.write_config()
        self.sb.set_wtps(fifo=True)
        d = self.sb.start_daemon(["-D"], accel=600)
        self.wait_handlers(d.pid)
        d.wait_for(r"DEBUG:mkdir /tmp/144")
        kids = wait_until(lambda: [p for p in qz_sandbox.children_of(d.pid)
                                   if qz_sandbox.children_of(p)], 10, "the wum scan")
        self.assertEqual(qz_sandbox.open_by(LOCK_PATH), [d.pid])
        d.signal(signal.SIGKILL)
        d.wait(5)
        self.assertTrue(qz_sandbox.is_running(kids[0]), "the scan ended with the daemon")
        again = self.sb.start_daemon(["-D"])
        self.wait_handlers(again.pid)
        self.assertEqual(qz_sandbox.lock_holders(), [again.pid])

    def test_lock_file_that_cannot_be_opened(self):
        self.sb.write_config()
        os.mkdir(LOCK_PATH)
        for args in (["-D"], []):
            with self.subTest(args=args):
                d = self.sb.start_daemon(args)
                self.assertEqual(d.wait(5), 255)
                self.assertEqual(d.stdout_bytes(), b"open QZ_FILE_LOCK_PATH failed!")
                self.assertEqual(d.stderr_bytes(), LOCK_FAILED)
        self.assertFalse(os.path.exists("/tmp/146"))


class ConfigTest(SandboxCase):

    def assert_refused(self, expected_errors):
        rc, out, err = self.sb.run_daemon_once(["-D"])
        self.assertEqual(rc, 255, err)
        self.assertEqual(messages(err), expected_errors)
        self.assertEqual(log_entries(err)[-1].func, "main")
        # No group was set up.
        self.assertEqual(out, "")
        self.assertFalse(os.path.exists("/tmp/146"))

    def test_file_that_does_not_load(self):
        cases = {
            "missing": None,
            "empty": b"",
            "cut short": b'{"fh_netbar_property_str": "3", "fh_net',
            "not JSON": b"fh_ftp_port=21\n",
            "a directory": "dir",
        }
        for name, content in cases.items():
            with self.subTest(name):
                if os.path.isdir(CONFIG_PATH):
                    os.rmdir(CONFIG_PATH)
                self.sb.remove_config()
                if content == "dir":
                    os.mkdir(CONFIG_PATH)
                elif content is not None:
                    self.sb.write_config(raw=content)
                self.assert_refused([LOAD_FAILED, INIT_FAILED])

    def test_missing_or_non_string_key_stops_the_load_there(self):
        cases = [
            ({"fh_ftp_port": 21}, "fh_ftp_port"),
            ({"fh_latitude": 26.08}, "fh_latitude"),
            ({"fh_org_mail": None}, "fh_org_mail"),
            ({"fh_address": ["Main Street 1"]}, "fh_address"),
            ({"fh_netbar_property_str": REMOVE}, "fh_netbar_property_str"),
            ({"fh_ftp_password": REMOVE}, "fh_ftp_password"),
            # Keys are read in table order; the first bad one ends the load.
            ({"fh_dst_str": REMOVE, "fh_ftp_port": 21}, "fh_dst_str"),
        ]
        for values, key in cases:
            with self.subTest(values=values):
                self.sb.write_config(values)
                self.assert_refused(["%s is not in config or not string" % key,
                                     "%s is null!" % key, INIT_FAILED])

    def test_top_level_that_is_not_an_object(self):
        for raw in (b"[]", b'"fh_ftp_port"', b"17"):
            with self.subTest(raw=raw):
                self.sb.write_config(raw=raw)
                rc, _, err = self.sb.run_daemon_once(["-D"])
                self.assertEqual(rc, 255)
                self.assertEqual(messages(err)[-1], INIT_FAILED)

    def test_control_character_in_a_value_is_refused_by_name(self):
        cases = [
            ({"fh_netbar_name": "Harbour\tCafe"}, "fh_netbar_name"),
            ({"fh_address": "Main Street 1\n"}, "fh_address"),
            ({"fh_ftp_password": "pa\rss"}, "fh_ftp_password"),
        ]
        for values, key in cases:
            with self.subTest(values=values):
                self.sb.write_config(values)
                rc, out, err = self.sb.run_daemon_once(["-D"])
                self.assertEqual(rc, 255)
                errors = messages(err, "ERROR")
                self.assertEqual(errors[-1], INIT_FAILED)
                self.assertTrue(any(key in m for m in errors[:-1]), err)
                self.assertEqual(out, "")

    def test_valid_files_start(self):
        cases = {
            "unknown keys beside": {"fh_comment": "spare", "fh_port": 21,
                                    "nested": {"fh_ftp_port": 21}},
            "empty strings": {"fh_netbar_name": "", "fh_org_mail": "", "fh_longitude": ""},
            "blanks and non-ASCII": {"fh_netbar_name": "  Harbour Café 港口 ",
                                     "fh_org_address": "Road 2; \"Unit\" $(x) `y` \\"},
        }
        for name, values in cases.items():
            with self.subTest(name):
                self.sb.write_config(values)
                d = self.sb.start_daemon(["-D"])
                try:
                    d.wait_for(SETUP_LINE)
                    self.assertTrue(d.running())
                    self.assertNotIn(INIT_FAILED, d.stderr_text())
                finally:
                    self.assertEqual(d.stop(), -signal.SIGTERM)

    def test_keys_in_another_order_start(self):
        values = self.sb.config_values()
        self.sb.write_config(raw=json.dumps(dict(reversed(list(values.items())))))
        d = self.sb.start_daemon(["-D"])
        d.wait_for(SETUP_LINE)
        self.assertNotIn(INIT_FAILED, d.stderr_text())

    def test_load_errors_are_logged_under_qz2fh_config_init(self):
        # Function names are part of the log output; the load and its
        # per-key failure are reported by qz2fh_config_init.
        self.sb.write_config({"fh_ftp_port": 21})
        _, _, err = self.sb.run_daemon_once(["-D"])
        self.sb.remove_config()
        _, _, err_missing = self.sb.run_daemon_once(["-D"])
        funcs = [e.func for e in log_entries(err) + log_entries(err_missing)]
        self.assertEqual(funcs, ["config_get_string", "qz2fh_config_init", "main",
                                 "qz2fh_config_init", "main"])


class LogFormatTest(SandboxCase):

    def test_console_lines_carry_unpadded_local_time(self):
        # (fake start, TZ, accepted stamps of a line written in the first
        # seconds).  A number is seconds since the epoch.
        cases = [
            ("2024-03-05 07:04:01", "UTC0", {"2024-3-5 7:4:%d" % s for s in range(1, 5)}),
            ("2024-01-01 09:05:03", "UTC0", {"2024-1-1 9:5:%d" % s for s in range(3, 7)}),
            # 2024-03-05 07:04:01 UTC is 15:04:01 eight hours east.
            (1709622241, "CST-8", {"2024-3-5 15:4:%d" % s for s in range(1, 5)}),
            # 2024-12-31 23:59:59 UTC is already New Year there.
            (1735689599, "CST-8", {"2025-1-1 7:59:59"} | {"2025-1-1 8:0:%d" % s
                                                          for s in range(0, 3)}),
        ]
        self.sb.write_config()
        for start, tz, stamps in cases:
            with self.subTest(start=start, tz=tz):
                d = self.sb.start_daemon(["-D"], accel=1, start=start, env={"TZ": tz})
                try:
                    d.wait_for(SETUP_LINE)
                    qz_sandbox.wait_idle(d.pid)
                finally:
                    d.stop()
                out, err = log_entries(d.stdout_text()), log_entries(d.stderr_text())
                self.assertEqual(out[0].level, "DEBUG", "stdout does not start with a line")
                for e in out:
                    self.assertEqual(e.level, "DEBUG")
                    self.assertIn(e.stamp, stamps)
                    self.assertGreater(e.line, 0)
                for e in err:
                    self.assertIn(e.level, ("WARN", "ERROR"))
                    self.assertIn(e.stamp, stamps)

    def test_message_without_newline_runs_on_into_the_next_line(self):
        self.sb.remove_config()
        _, _, err = self.sb.run_daemon_once(["-D"])
        # "load file:%s failed!" has no "\n" of its own.
        self.assertRegex(err, r"^\S+ \S+ \w+<\d+>: ERROR:load file:/etc/qz_fh_audit\.json failed!"
                              r"\d{4}-\d+-\d+ \d+:\d+:\d+ main<\d+>: ERROR:config init failed\n$")


class SyslogTest(SandboxCase):

    def test_background_copy_logs_to_syslog_only_when_switched_on(self):
        usr1, usr2 = signal.SIGUSR1, signal.SIGUSR2
        # Start-up waits on a FIFO configuration until the signals are in;
        # then a broken file makes it log two ERROR lines and end.
        cases = [
            ((), False),
            ((usr1,), True),
            ((usr1, usr2), False),
            ((usr2, usr1), True),
            ((usr1, usr1, usr2), False),
            ((usr1, usr2) * 5, False),
            ((usr2, usr1) * 5, True),
        ]
        for signals, on in cases:
            with self.subTest(signals=[signal.Signals(s).name for s in signals]):
                mark = self.sb.syslog.mark()
                d, pid = self.start_with_config_fifo([])
                for sig in signals:
                    send_signal(pid, sig)
                self.feed_config_fifo(b"{not json")
                wait_until(lambda: not qz_sandbox.is_running(pid), 5, "the failed start to end")
                records = self.sb.syslog.records(mark)
                if not on:
                    self.assertEqual(records, [])
                    continue
                self.assertEqual([r.message for r in records],
                                 [r.message for r in records if r.tag == "qz_fh_audit"])
                self.assertEqual(messages("".join(r.message for r in records)),
                                 [LOAD_FAILED, INIT_FAILED])
                # The daemon passes the bare level; libc adds its default
                # facility, LOG_USER.
                self.assertEqual([(r.facility, r.severity) for r in records],
                                 [(LOG_USER, 3), (LOG_USER, 3)])
                self.assertEqual(d.stdout_bytes() + d.stderr_bytes(), b"")
                os.unlink(CONFIG_PATH)

    def test_debug_mode_writes_each_line_to_console_and_syslog(self):
        d, pid = self.start_with_config_fifo(["-D"])
        send_signal(pid, signal.SIGUSR1)
        self.feed_config_fifo(b"[")
        self.assertEqual(d.wait(5), 255)
        records = self.sb.syslog.records()
        self.assertEqual("".join(r.message for r in records), d.stderr_text())
        self.assertEqual(len(records), 2)

    def test_switches_while_running(self):
        # x600: a 300-s cycle every half second, each logging DEBUG lines.
        self.sb.write_config()
        self.sb.set_wtps(["1 00:1a:2b:3c:4d:5e up AP-01"])
        d = self.sb.start_daemon(["-D"], accel=600)
        self.wait_handlers(d.pid)
        d.wait_for(SETUP_LINE)

        def next_lines():
            mark = d.mark()
            d.wait_for(r"DEBUG:", since=mark, timeout=10)
            # Let the cycle that started finish.
            d.wait_for(r"DEBUG:", since=d.mark(), timeout=10)

        next_lines()
        self.assertEqual(self.sb.syslog_lines(), [], "syslog before SIGUSR1")

        for round_ in range(2):
            send_signal(d.pid, signal.SIGUSR1)
            on_mark = self.sb.syslog.mark()
            rec = self.sb.syslog.wait_for(r"DEBUG:", since=on_mark)
            self.assertEqual((rec.facility, rec.severity), (LOG_USER, 7))
            next_lines()
            for r in self.sb.syslog.records(on_mark):
                [entry] = log_entries(r.message)
                self.assertEqual((r.facility, r.severity), (LOG_USER, SEVERITY[entry.level]),
                                 r.raw)
                # The console got the same line first; only the time may
                # differ, as each output reads the clock for itself.
                d.wait_for(re.escape("%s<%d>: %s:%s" % (entry.func, entry.line, entry.level,
                                                        entry.message)),
                           stream="any", timeout=5)

            send_signal(d.pid, signal.SIGUSR2)
            off_mark = self.sb.syslog.mark()
            next_lines()
            next_lines()
            self.assertEqual(self.sb.syslog_lines(off_mark), [], "syslog after SIGUSR2")


class DetachTest(SandboxCase):

    def test_background_start(self):
        self.sb.write_config()
        d = self.sb.start_daemon([], accel=600)
        # libc's daemon() ends the parent with _exit(0), not through main.
        self.assertEqual(d.wait(5), 0)
        self.assertEqual(d.stdout_bytes() + d.stderr_bytes(), b"")
        child = self.detached_child(d.pid)
        self.wait_handlers(child)

        status = qz_sandbox.proc_status(child)
        self.assertEqual(status["PPid"], "1")
        with open("/proc/%d/stat" % child) as f:
            session = int(f.read().rsplit(")", 1)[1].split()[3])
        self.assertEqual(session, child, "not a session leader")
        self.assertEqual(os.readlink("/proc/%d/cwd" % child), "/")
        for fd in (0, 1, 2):
            self.assertEqual(os.readlink("/proc/%d/fd/%d" % (child, fd)), "/dev/null")
        self.assertEqual(qz_sandbox.lock_holders(), [child])

        # Several 300-s cycles pass at x600; nothing reaches syslog.
        time.sleep(1.5)
        self.assertTrue(qz_sandbox.is_running(child))
        self.assertEqual(self.sb.syslog_lines(), [])
        send_signal(child, signal.SIGUSR1)
        rec = self.sb.syslog.wait_for(r"DEBUG:")
        self.assertEqual((rec.facility, rec.severity), (LOG_USER, 7))
        send_signal(child, signal.SIGUSR2)
        mark = self.sb.syslog.mark()
        time.sleep(1.5)
        self.assertEqual(self.sb.syslog_lines(mark), [])


class LoopTest(SandboxCase):

    def test_ticks_and_signal_storms_keep_the_loop_running(self):
        accel, real_seconds = 240, 5.0
        self.sb.write_config()
        self.sb.set_wtps(["1 00:1a:2b:3c:4d:5e up AP-01"])
        d = self.sb.start_daemon(["-D"], accel=accel)
        self.wait_handlers(d.pid)
        qz_sandbox.wait_idle(d.pid)

        # The five-second tick wakes the loop 48 times a real second.
        before = qz_sandbox.context_switches(d.pid)
        time.sleep(1.0)
        self.assertGreater(qz_sandbox.context_switches(d.pid) - before, 20)

        rng = random.Random(7)
        deadline = time.monotonic() + real_seconds - 1.0
        sent = 0
        while time.monotonic() < deadline:
            os.kill(d.pid, rng.choice((signal.SIGUSR1, signal.SIGUSR2)))
            sent += 1
            time.sleep(0.01)
        send_signal(d.pid, signal.SIGUSR2)
        self.assertGreater(sent, 100)

        self.assertTrue(d.running(), d.describe())
        before = qz_sandbox.context_switches(d.pid)
        time.sleep(0.5)
        self.assertGreater(qz_sandbox.context_switches(d.pid) - before, 10)
        entries = [e for e in log_entries(d.stdout_text()) if e.level]
        simulated = parsed_time(entries[-1]) - parsed_time(entries[0])
        self.assertGreaterEqual(simulated, datetime.timedelta(minutes=15), d.describe())
        self.assertNotIn("fdsafdas", d.stdout_text())

    def test_terminating_signals_take_their_default_action(self):
        self.sb.write_config()
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(signal=sig.name):
                d = self.sb.start_daemon(["-D"])
                try:
                    self.wait_handlers(d.pid)
                    qz_sandbox.wait_idle(d.pid)
                    self.assertNotIn(sig, qz_sandbox.caught_signals(d.pid))
                    d.signal(sig)
                    self.assertEqual(d.wait(3), -sig)
                finally:
                    d.stop()
                self.assertNotIn("fdsafdas", d.stdout_text())
                self.assertTrue(os.path.isfile(LOCK_PATH))
                self.assertFalse(qz_sandbox.lock_is_held())


if __name__ == "__main__":
    unittest.main()
