"""FTP server that stands in for the platform's upload server in tests.

Every file it receives is moved at once out of the FTP tree into a capture
directory, named "<arrival counter>-<remote path with / as ->", e.g.
"0003-tmp-146".  The daemon's uploader stores every zip under the same
remote name and skips or resumes an upload whose remote file already exists,
so a file left in place would make later uploads vanish or be spliced.

Runs in a thread of the caller (FtpSink) or on its own:
    /usr/bin/python3 tools/qz_ftp_sink.py --root DIR [--port N]
"""

import argparse
import dataclasses
import logging
import os
import shutil
import threading
import time

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import ThreadedFTPServer

DEFAULT_USER = "qzaudit"
DEFAULT_PASSWORD = "qz-pass-1"
# Remote directories the daemon's uploads are addressed to; the uploader
# does not create them, so they must exist.
REMOTE_DIRS = ("tmp",)

# Quiet inside tests: with a handler present pyftpdlib does not install its
# own chatty one.  The command-line server turns the session log back on.
_ftp_log = logging.getLogger("pyftpdlib")
_ftp_log.setLevel(logging.WARNING)
_ftp_log.addHandler(logging.NullHandler())


@dataclasses.dataclass(frozen=True)
class Upload:
    seq: int         # arrival counter, from 1
    user: str        # login name the client used
    remote: str      # path under the FTP root, e.g. "tmp/146"
    path: str        # where the received bytes are now
    size: int
    time: float      # time.time() at arrival

    def read(self):
        with open(self.path, "rb") as f:
            return f.read()


class FtpSink:
    """pyftpdlib server on 127.0.0.1 with one user; captures uploads.

    root holds "ftp" (the FTP tree) and "capture" (received files).
    port 0 picks a free port; after stop() a new start() listens on the
    same port again, so a test can take the server away and bring it back.
    """

    def __init__(self, root, user=DEFAULT_USER, password=DEFAULT_PASSWORD, port=0,
                 host="127.0.0.1"):
        self.root = root
        self.home = os.path.join(root, "ftp")
        self.capture_dir = os.path.join(root, "capture")
        self.user = user
        self.password = password
        self.host = host
        self.port = port
        self._lock = threading.Lock()
        self._changed = threading.Condition(self._lock)
        self._uploads = []
        self._logins = []
        self._delay = 0.0
        self._server = None
        self._thread = None
        self._serving = False
        self._stopping = threading.Event()
        for d in (self.home, self.capture_dir):
            os.makedirs(d, exist_ok=True)
        for d in REMOTE_DIRS:
            os.makedirs(os.path.join(self.home, d), exist_ok=True)

    # -- control -----------------------------------------------------------

    def start(self):
        if self._server is not None:
            return self
        authorizer = DummyAuthorizer()
        authorizer.add_user(self.user, self.password, self.home, perm="elradfmwMT")
        sink = self

        class Handler(FTPHandler):
            # Failed logins are answered at once, not after the default pause.
            auth_failed_timeout = 0.1

            def on_login(self, username):
                sink._note_login(username)

            def ftp_STOR(self, file, mode="w"):
                if sink._delay > 0:
                    # One thread per connection: only this upload waits.
                    sink._stopping.wait(sink._delay)
                return super().ftp_STOR(file, mode)

            def on_file_received(self, file):
                sink._capture(self.username, file)

            def on_incomplete_file_received(self, file):
                sink._drop_incomplete(self.username, file)

        Handler.authorizer = authorizer
        Handler.banner = "qz ftp sink ready."
        Handler.passive_ports = None
        self._server = ThreadedFTPServer((self.host, self.port), Handler)
        self.port = self._server.address[1]
        self._serving = True
        self._stopping.clear()
        self._thread = threading.Thread(target=self._serve, name="qz-ftp-sink", daemon=True)
        self._thread.start()
        return self

    def _serve(self):
        while self._serving:
            self._server.serve_forever(timeout=0.05, blocking=False, handle_exit=False)

    def stop(self):
        """Stops listening and drops open sessions: later connects are refused."""
        if self._server is None:
            return
        self._serving = False
        self._stopping.set()
        self._thread.join(5)
        self._server.close_all()
        self._server = None
        self._thread = None

    def set_delay(self, seconds):
        """Every later STOR waits this long (real time) before it is accepted."""
        self._delay = float(seconds)

    def url_base(self):
        return "ftp://%s:%d" % (self.host, self.port)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    # -- results -----------------------------------------------------------

    def uploads(self):
        """Completed uploads, in arrival order."""
        with self._lock:
            return list(self._uploads)

    def logins(self):
        """User names of successful logins, in order."""
        with self._lock:
            return list(self._logins)

    # -- handler side ------------------------------------------------------

    def _remote(self, file):
        return os.path.relpath(file, self.home)

    def _note_login(self, username):
        with self._changed:
            self._logins.append(username)
            self._changed.notify_all()

    def _capture(self, username, file):
        remote = self._remote(file)
        with self._changed:
            seq = len(self._uploads) + 1
            dest = os.path.join(self.capture_dir,
                                "%04d-%s" % (seq, remote.replace(os.sep, "-")))
            shutil.move(file, dest)
            self._uploads.append(Upload(seq, username, remote, dest,
                                        os.path.getsize(dest), time.time()))
            self._changed.notify_all()

    def _drop_incomplete(self, username, file):
        with self._changed:
            try:
                os.unlink(file)
            except FileNotFoundError:
                pass
            self._changed.notify_all()


def main():
    ap = argparse.ArgumentParser(description="FTP server that captures every upload.")
    ap.add_argument("--root", required=True, help="directory for the FTP tree and captures")
    ap.add_argument("--port", type=int, default=0, help="port (default: a free one)")
    ap.add_argument("--user", default=DEFAULT_USER)
    ap.add_argument("--password", default=DEFAULT_PASSWORD)
    ap.add_argument("--delay", type=float, default=0.0, help="seconds to hold each upload")
    ap.add_argument("--verbose", action="store_true", help="log every FTP command")
    args = ap.parse_args()
    if args.verbose:
        logging.basicConfig(format="[ftp] %(message)s")
        _ftp_log.setLevel(logging.INFO)

    sink = FtpSink(args.root, args.user, args.password, args.port)
    sink.set_delay(args.delay)
    sink.start()
    print("listening on %s, user %r, captures in %s" % (sink.url_base(), sink.user,
                                                         sink.capture_dir), flush=True)
    seen = 0
    try:
        while True:
            time.sleep(0.2)
            ups = sink.uploads()
            for u in ups[seen:]:
                print("%s  %-10s %8d bytes  from %r" % (os.path.basename(u.path), u.remote,
                                                        u.size, u.user), flush=True)
            seen = len(ups)
    except KeyboardInterrupt:
        pass
    finally:
        sink.stop()


if __name__ == "__main__":
    main()
