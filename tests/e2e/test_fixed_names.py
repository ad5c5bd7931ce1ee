"""What other local accounts may plant in /tmp before the daemon runs: links,
FIFOs and foreign files at the lock's and the counters' names are never
followed nor waited on, and a parent that ignores SIGCHLD does not make a
failed upload count as done."""

import json
import os
import re
import signal
import stat
import subprocess

import qz_router_sim as sim
import qz_sandbox
import qz_soak
from e2e_base import LONG_WAIT, WAIT, SandboxCase, wait_running
from qz_sandbox import LOCK_PATH, wait_until

LOCK_FAILED = "can not get file lock or open file failed"
OPEN_FAILED = "open QZ_FILE_LOCK_PATH failed!"
STATS = "/tmp/qz_fh_stats.json"
SECRET = b"root:only:secret\n"
UNSENT = "/tmp/qz_unsent"
AP = "00:1a:2b:3c:4d:5e"
FAILED = re.compile(r"WARN:upload of (145-\S+\.zip) failed with status (\d+): kept to be sent "
                    r"again\n")


def root_only(path, data=SECRET):
    """A file only root may read, with a known mtime: (path, its state)."""
    with open(path, "wb") as f:
        f.write(data)
    os.chmod(path, 0o600)
    os.utime(path, (1000000000, 1000000000))
    return state(path)


def state(path):
    st = os.lstat(path)
    with open(path, "rb") as f:
        return (f.read(), stat.S_IMODE(st.st_mode), st.st_mtime, st.st_nlink)


def read_stats():
    try:
        with open(STATS) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def plant(make):
    """Plants at the daemon's temporary name, which it may hold for a
    moment while it writes."""
    def attempt():
        try:
            make()
            return True
        except FileExistsError:
            return False
    wait_until(attempt, WAIT, "planted")


class LockTest(SandboxCase):

    def test_anything_but_a_file_of_its_own_at_the_lock_fails_as_an_open_does(self):
        self.sb.write_config()

        def link_to_secret():
            os.symlink("/etc/qz_secret", LOCK_PATH)

        def dangling_link():
            os.symlink("/etc/nologin", LOCK_PATH)

        def hard_link():
            root_only("/tmp/secret")
            os.link("/tmp/secret", LOCK_PATH)

        def foreign_file():
            open(LOCK_PATH, "w").close()
            os.chown(LOCK_PATH, 65534, 65534)

        cases = [("link to a root-only file", link_to_secret),
                 ("dangling link", dangling_link),
                 ("FIFO", lambda: os.mkfifo(LOCK_PATH, 0o666)),
                 ("hard link to a root-only file", hard_link)]
        secret = root_only("/etc/qz_secret")
        for what, plant in cases:
            with self.subTest(what):
                plant()
                try:
                    for args in (["-D"], []):
                        # At once: a FIFO there must not hold it up.
                        status, out, err = self.sb.run_daemon_once(args, timeout=15)
                        self.assertEqual((status, out, err), (255, OPEN_FAILED, LOCK_FAILED))
                    self.assertEqual(state("/etc/qz_secret"), secret)
                    self.assertFalse(os.path.lexists("/etc/nologin"))
                    self.assertFalse(os.path.exists("/tmp/146"), "a group was set up")
                    if os.path.exists("/tmp/secret"):
                        self.assertEqual(state("/tmp/secret")[:3], secret[:3])
                finally:
                    for path in (LOCK_PATH, "/tmp/secret", "/etc/nologin"):
                        if os.path.lexists(path):
                            os.unlink(path)


    def test_what_another_account_put_at_the_lock_is_moved_aside(self):
        self.sb.write_config()
        open(LOCK_PATH, "w").close()
        os.chown(LOCK_PATH, 65534, 65534)
        daemon = self.sb.start_daemon(["-D"])
        daemon.wait_for(re.escape("ERROR:%s is not the daemon's own lock file: moved aside to %s.untrusted."
                                  % (LOCK_PATH, LOCK_PATH)), "stderr", WAIT)
        wait_until(lambda: os.path.exists("/tmp/146"), WAIT, "groups set up")
        self.assertEqual(os.lstat(LOCK_PATH).st_uid, 0)


class CountersTest(SandboxCase):

    def test_links_and_fifos_at_the_counters_names_are_not_followed(self):
        sb = self.sb
        sb.write_config()
        sb.set_wtps(["1 %s up" % AP])
        secret = root_only("/etc/qz_secret")
        old_tmp = STATS + ".tmp"
        os.symlink("/etc/qz_secret", STATS)
        os.symlink("/etc/qz_secret", old_tmp)
        d = sb.start_daemon(["-D"])

        def written_after(now):
            s = read_stats()
            return s if s and s["now"] > now else None

        first = wait_running(d, lambda: written_after(0), "counters written", WAIT)
        self.assertEqual(state("/etc/qz_secret"), secret)
        st = os.lstat(STATS)
        self.assertTrue(stat.S_ISREG(st.st_mode))
        self.assertEqual((st.st_uid, stat.S_IMODE(st.st_mode)), (0, 0o644))
        self.assertEqual(os.readlink(old_tmp), "/etc/qz_secret")
        # The temporary name of this daemon: a link there is removed, never
        # followed, and a FIFO there does not hold the daemon up.
        pid_tmp = "%s.%d.tmp" % (STATS, d.pid)
        plant(lambda: os.symlink("/etc/made_by_link", pid_tmp))
        later = wait_running(d, lambda: written_after(first["now"]), "counters written again", WAIT)
        self.assertFalse(os.path.lexists("/etc/made_by_link"))
        wait_until(lambda: not os.path.lexists(pid_tmp), WAIT, "the link removed")
        plant(lambda: os.mkfifo(pid_tmp))
        wait_running(d, lambda: written_after(later["now"]), "counters written after a FIFO", WAIT)
        # Between two writes only the file and the planted link are there.
        wait_until(lambda: sorted(n for n in os.listdir("/tmp") if n.startswith("qz_fh_stats"))
                   == ["qz_fh_stats.json", "qz_fh_stats.json.tmp"], WAIT, "no temporary file left")
        self.assertEqual(state("/etc/qz_secret"), secret)
        self.assertFalse(os.path.lexists("/etc/made_by_link"))
        self.assertNotIn("WARN:counters not written", d.stderr_text())
        self.assertEqual(first["terminals"], {"now": 0, "peak": 0, "refused": 0})


# dash sets SIGCHLD back to its default for what it runs; bash passes on
# what the script ignores.
IGNORING_SIGCHLD = "trap '' CHLD; exec \"$@\""


def with_shell(script, argv=None):
    """A command line that runs the daemon (or argv) as "$@" of a bash
    script."""
    if argv is None:
        argv = qz_sandbox.daemon_argv(["-D"], faketime=True)
    return ["/bin/bash", "-c", script, "bash"] + argv


def ignored_signals(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"^SigIgn:\s*(\S+)", f.read(), re.M).group(1), 16)


def ignores(mask, sig):
    return mask & (1 << (sig - 1)) != 0


class ChildSignalsTest(SandboxCase):

    def start(self, argv):
        d = qz_sandbox.Daemon(argv, self.sb.daemon_env(), cwd=self.sb.work_dir)
        self.sb.daemons.append(d)
        return d

    def test_a_parent_ignoring_sigchld_changes_no_upload_result(self):
        sb = self.sb
        sb.write_config({"fh_unsent_dir": UNSENT})
        sb.set_wtps(["1 %s up" % AP])
        os.makedirs("/tmp/qztmp/clt_wifi_info")
        sb.ftp.stop()
        probe = subprocess.run(with_shell(IGNORING_SIGCHLD, ["grep", "^SigIgn", "/proc/self/status"]),
                               capture_output=True, text=True, check=True)
        self.assertTrue(ignores(int(probe.stdout.split()[1], 16), signal.SIGCHLD), probe.stdout)
        d = self.start(with_shell(IGNORING_SIGCHLD))
        d.wait_for(r"mkdir /tmp/144")
        # The daemon itself ignores SIGPIPE, not SIGCHLD.
        self.assertFalse(ignores(ignored_signals(d.pid), signal.SIGCHLD))
        self.assertTrue(ignores(ignored_signals(d.pid), signal.SIGPIPE))
        with open("/tmp/qztmp/clt_wifi_info/" + qz_soak.mac_of(0), "w") as f:
            f.write("t1 t2 -45 %s x y\n" % AP)
        with sim.ShellSender() as shell:
            shell.online(qz_soak.mac_of(0), qz_soak.flood_ip(0), 1)

        def uploads_of_145(done):
            s = read_stats()
            if not s:
                return None
            c = s["groups"]["145"]
            return c if c["uploads_ok"] + c["uploads_failed"] >= done else None

        # The server is down: the zip is kept and counted as failed.
        c = wait_running(d, lambda: uploads_of_145(1), "the first upload of group 145", LONG_WAIT)
        self.assertEqual((c["uploads_ok"], c["uploads_failed"]), (0, 1), c)
        self.assertNotEqual(c["last_upload_status"], 0, c)
        name = d.wait_for(FAILED.pattern, stream="stderr").group(1)
        self.assertEqual(c["last_zip"], name)
        with open(os.path.join(UNSENT, "145", name), "rb") as f:
            kept = f.read()
        # It is back: uploads that work count as done, and the kept zip goes.
        sb.ftp.start()
        d.wait_for(r"DEBUG:sent kept file :%s\n" % re.escape(name), timeout=LONG_WAIT)
        c = wait_running(d, lambda: uploads_of_145(3), "three uploads counted", WAIT)
        self.assertEqual(c["uploads_failed"], 1, c)
        self.assertEqual(os.listdir(os.path.join(UNSENT, "145")), [])
        self.assertIn(kept, [u.read() for u in sb.ftp.uploads() if u.remote == "tmp/145"])

    def test_a_console_that_goes_away_does_not_end_the_daemon(self):
        sb = self.sb
        sb.write_config()
        sb.set_wtps(["1 %s up" % AP])
        # Its console is a pipe whose reader has gone at once.
        d = self.start(with_shell("\"$@\" | true"))
        first = wait_running(d, read_stats, "counters written", WAIT)
        # Two cycles' worth of log lines into the broken pipe.
        wait_running(d, lambda: (read_stats() or first)["now"] >= first["now"] + 600,
                     "two cycles", LONG_WAIT)
        self.assertTrue(d.running(), d.describe())
        self.assertEqual(len(qz_sandbox.lock_holders()), 1)


if __name__ == "__main__":
    import unittest
    unittest.main()
