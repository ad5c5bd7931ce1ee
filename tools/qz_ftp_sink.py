"""FTP server that stands in for the platform's upload server, in a thread
of the caller.

Every file it receives is moved at once out of the FTP tree into a capture
directory, named "<arrival counter>-<remote path with / as ->", e.g.
"0003-tmp-146": the daemon's uploader stores every zip under the same
remote name and skips or resumes an upload whose remote file already
exists, so a file left in place would make later uploads vanish or be
spliced.

It can be up (start), down (stop: connections are refused), stalled
(set_delay: each upload waits before it is taken) or hung (hang: it greets
and then never answers).
"""

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

# Quiet: with a handler present pyftpdlib does not install its own.
logging.getLogger("pyftpdlib").addHandler(logging.NullHandler())
logging.getLogger("pyftpdlib").setLevel(logging.WARNING)


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
    """pyftpdlib server on 127.0.0.1 with one user; port 0 picks a free
    port, which a later start() listens on again."""

    def __init__(self, root, user=DEFAULT_USER, password=DEFAULT_PASSWORD, port=0,
                 host="127.0.0.1"):
        self.home = os.path.join(root, "ftp")
        self.capture_dir = os.path.join(root, "capture")
        self.user, self.password, self.host, self.port = user, password, host, port
        self._lock = threading.Lock()
        self._uploads = []
        self._logins = []
        self._delay = 0.0
        self._hung = False
        self._server = None
        self._serving = False
        self._stopping = threading.Event()
        self._unhang = threading.Event()
        # The uploads go to /tmp/<group>: the uploader makes no directory.
        for d in (os.path.join(self.home, "tmp"), self.capture_dir):
            os.makedirs(d, exist_ok=True)

    def start(self):
        """Serves again, not stalled nor hung; sessions held by hang() end."""
        self._hung = False
        self._unhang.set()
        if self._server is not None:
            return self
        self._stopping.clear()
        authorizer = DummyAuthorizer()
        authorizer.add_user(self.user, self.password, self.home, perm="elradfmwMT")
        sink = self

        class Handler(FTPHandler):
            auth_failed_timeout = 0.1  # failed logins are answered at once
            banner = "qz ftp sink ready."
            passive_ports = None

            def pre_process_command(self, line, cmd, arg):
                # One thread per connection: only this session waits.
                if sink._hung:
                    sink._unhang.wait()
                    self.close()
                    return None
                if cmd == "STOR" and sink._delay > 0:
                    sink._stopping.wait(sink._delay)
                return super().pre_process_command(line, cmd, arg)

            def on_login(self, username):
                with sink._lock:
                    sink._logins.append(username)

            def on_file_received(self, file):
                sink._capture(self.username, file)

            def on_incomplete_file_received(self, file):
                os.unlink(file)

        Handler.authorizer = authorizer
        self._server = ThreadedFTPServer((self.host, self.port), Handler)
        self.port = self._server.address[1]
        self._serving = True
        self._thread = threading.Thread(target=self._serve, daemon=True)
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
        self._unhang.set()
        self._thread.join(5)
        self._server.close_all()
        self._server = None

    def set_delay(self, seconds):
        """Every later upload waits this long (real time) before it is taken."""
        self._delay = float(seconds)

    def hang(self):
        """Greets every later session and never answers it."""
        self.start()
        self._unhang.clear()
        self._hung = True

    def uploads(self):
        """Completed uploads, in arrival order."""
        with self._lock:
            return list(self._uploads)

    def logins(self):
        """User names of successful logins, in order."""
        with self._lock:
            return list(self._logins)

    def _capture(self, username, file):
        remote = os.path.relpath(file, self.home)
        with self._lock:
            seq = len(self._uploads) + 1
            dest = os.path.join(self.capture_dir, "%04d-%s" % (seq, remote.replace(os.sep, "-")))
            shutil.move(file, dest)
            self._uploads.append(Upload(seq, username, remote, dest, os.path.getsize(dest),
                                        time.time()))
