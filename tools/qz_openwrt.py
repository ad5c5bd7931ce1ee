"""OpenWrt's own userland around the OpenWrt package, in a private world.

scripts/openwrt-userland.sh builds procd, ubusd, rpcd, logd, uci, jshn,
validate_data, jsonfilter and uhttpd from ../shared/openwrt into a staging
root.  A Router lays out a root file system from it inside a
qz_sandbox.Sandbox: busybox as /bin/sh and every other applet, zip and
curl of this machine, its C library, the package's files where
packaging/openwrt/Makefile installs them, and procd services for logd,
rpcd and uhttpd as OpenWrt's packages start them.  boot() runs procd as
PID 1 of a pid namespace of its own, rooted there, in container mode: /sys
is empty and /proc/kmsg reads as /dev/null, so nothing of this machine's
is touched.  procd starts ubusd and boots /etc/rc.d through rcS.

The router's /tmp is the sandbox's, so the sandbox's stand-ins (status
files, datagram socket, netlink stand-in, FTP sink on 127.0.0.1) reach the
daemon.  /usr/sbin/qz_fh_audit is a wrapper that notes each start, runs
the daemon on the sandbox's faked clock with the netlink stand-in, the
sandbox's bin directory first on PATH and its standard output kept, and
execs $QZ_BIN: procd supervises the binary's own pid.

    /usr/bin/python3 tools/qz_openwrt.py     # a shell on such a router (root)
"""

import contextlib
import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

TOOLS_DIR = os.path.dirname(os.path.abspath(__file__))
if TOOLS_DIR not in sys.path:
    sys.path.insert(0, TOOLS_DIR)

import qz_sandbox  # noqa: E402

ROOT = os.path.dirname(TOOLS_DIR)
USERLAND_SCRIPT = os.path.join(ROOT, "scripts", "openwrt-userland.sh")
MAKEFILE = os.path.join(ROOT, "packaging", "openwrt", "Makefile")
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"  # procd's, and a login shell's

# Base services, as OpenWrt's packages start them: name, START, command.
BASE_SERVICES = [
    ("log", 12, "/sbin/logd -S 64"),
    ("rpcd", 12, "/sbin/rpcd -s /var/run/ubus/ubus.sock -t 30"),
    ("uhttpd", 50, "/usr/sbin/uhttpd -f -h /www -u /ubus -t 60 -p 127.0.0.1:{port}"),
]
SERVICE_SCRIPT = """#!/bin/sh /etc/rc.common
START={start}
USE_PROCD=1
start_service() {{
	procd_open_instance
	procd_set_param command {command}
	procd_set_param respawn
	procd_close_instance
}}
"""
# A login with only the package's ACL group, as an integrator would give
# a monitoring account: name, password, and the password's crypt(3) hash
# (openssl passwd -1 -salt qzsalt qz-monitor).
MONITOR = ("monitor", "qz-monitor", "$1$qzsalt$fJwWKxiu22paUIuXUbI/x/")
ETC = {
    "inittab": "::sysinit:/etc/init.d/rcS S boot\n::shutdown:/etc/init.d/rcS K shutdown\n",
    "passwd": "root:x:0:0:root:/root:/bin/ash\nnobody:*:65534:65534:nobody:/var:/bin/false\n",
    "group": "root:x:0:\nnogroup:x:65534:\n",
    "hosts": "127.0.0.1 localhost\n",
    # As base-files' boot does: reload_config compares with what it saw last.
    "init.d/boot": "#!/bin/sh /etc/rc.common\nSTART=10\nboot() {\n\t/sbin/reload_config\n}\n",
    "config/rpcd": ("config rpcd\n\toption socket /var/run/ubus/ubus.sock\n\toption timeout 30\n\n"
                    "config login\n\toption username '%s'\n\toption password '%s'\n"
                    "\tlist read 'qz_fh_audit'\n" % (MONITOR[0], MONITOR[2])),
}
# PID 1's first steps, as OpenWrt's init takes them before it execs procd.
INIT = ("mount -t proc proc /proc && mount --bind /dev/null /proc/kmsg && "
        "mkdir -p /tmp/run /tmp/lock /tmp/state /tmp/shm && "
        "exec env -i container=qz_sandbox PATH=%s /sbin/procd -S" % PATH)
DAEMON_WRAPPER = """#!/bin/sh
echo "$$" >>{starts}
{env}
exec {binary} "$@" >>{stdout}
"""
_INSTALL = re.compile(r"^\t\$\((INSTALL_BIN|INSTALL_CONF|INSTALL_DATA)\) (\S+) (\S+)$")
_MODES = {"INSTALL_BIN": 0o755, "INSTALL_CONF": 0o600, "INSTALL_DATA": 0o644}


def userland():
    """The staging root, built when the cache has none; None (and why, in a
    line on stderr) when its sources are absent and may be."""
    r = subprocess.run([USERLAND_SCRIPT], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       text=True)
    if r.returncode == 3:
        sys.stderr.write(r.stderr)
        return None
    if r.returncode != 0:
        raise RuntimeError("scripts/openwrt-userland.sh failed: " + r.stderr.strip())
    return r.stdout.strip()


def package_files(makefile=MAKEFILE):
    """(source, destination, mode) of every file the package's install
    sections copy; sources as the Makefile names them."""
    with open(makefile, encoding="utf-8") as f:
        text = f.read().replace("\\\n\t\t", "")
    files = []
    for block in re.findall(r"^define Package/[\w-]+/install\n(.*?)^endef", text, re.M | re.S):
        for line in block.splitlines():
            m = _INSTALL.match(line)
            if m:
                src, dst = m.group(2), m.group(3).replace("$(1)", "")
                if dst.endswith("/"):
                    dst += os.path.basename(src)
                files.append((src, dst, _MODES[m.group(1)]))
    return files


_run = qz_sandbox.run


class RouterError(AssertionError):
    pass


class Router:
    """The package installed on OpenWrt's userland inside the sandbox sb."""

    def __init__(self, sb, staging):
        self.sb = sb
        self.staging = staging
        self.http_port = None
        self.proc = None
        self.root = tempfile.mkdtemp(prefix="qz_router.", dir=os.path.dirname(sb.private))
        _run("mount", "-t", "tmpfs", "-o", "mode=0755", "qzrouter", self.root)
        sb.at_close(os.rmdir, self.root)
        sb.at_close(_run, "umount", "-l", self.root)
        sb.at_close(self.shutdown)
        self.out = os.path.join(sb.private, "router")
        os.makedirs(self.out)
        self.console = os.path.join(self.out, "console")
        self.stdout = os.path.join(self.out, "daemon.stdout")
        self.starts_file = os.path.join(self.out, "daemon.starts")
        self._lay_out()
        self._install_package()

    # -- the file system ----------------------------------------------------

    def path(self, p):
        """This machine's path of the router's p."""
        return self.root + p

    def _write(self, p, text, mode=0o644):
        full = self.path(p)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w", encoding="utf-8") as f:
            f.write(text)
        os.chmod(full, mode)

    def _bind(self, source, target, readonly=True):
        full = self.path(target)
        if os.path.isdir(source):
            os.makedirs(full, exist_ok=True)
        else:
            os.makedirs(os.path.dirname(full), exist_ok=True)
            open(full, "a").close()
        _run("mount", "--bind", source, full)
        if readonly:
            _run("mount", "-o", "remount,bind,ro", full)

    def _lay_out(self):
        for d in ("bin", "sbin", "lib", "etc", "usr/bin", "usr/sbin", "usr/lib", "usr/share"):
            src = os.path.join(self.staging, d)
            if os.path.isdir(src):
                shutil.copytree(src, self.path("/" + d), symlinks=True, dirs_exist_ok=True)
        for d in ("/proc", "/sys", "/dev", "/root", "/www", "/etc/rc.d", "/etc/init.d"):
            os.makedirs(self.path(d), exist_ok=True)
        os.symlink("tmp", self.path("/var"))
        # This machine's C library and loader, busybox, zip, curl and flock.
        multiarch = qz_sandbox.multiarch()
        self._bind("/usr/lib/" + multiarch, "/usr/lib/" + multiarch)
        loader = qz_sandbox.daemon_elf()[0]
        self._bind(os.path.realpath(loader), loader)
        shutil.copy("/usr/bin/busybox", self.path("/bin/busybox"))
        for tool in ("zip", "curl", "flock"):
            shutil.copy(shutil.which(tool), self.path("/usr/bin/" + tool))
        applets = subprocess.run(["/usr/bin/busybox", "--list"], capture_output=True,
                                 text=True, check=True).stdout.split()
        taken = {os.path.basename(p) for d in ("/bin", "/sbin", "/usr/bin", "/usr/sbin")
                 for p in os.listdir(self.path(d))}
        for applet in set(applets) - taken:
            os.symlink("busybox", self.path("/bin/" + applet))
        for node in ("null", "zero", "random", "urandom"):
            self._bind("/dev/" + node, "/dev/" + node, readonly=False)
        open(self.console, "w").close()
        self._bind(self.console, "/dev/console", readonly=False)
        # The sandbox: /tmp, the router simulator's listing, the daemon and
        # the test's own files at their paths.
        os.makedirs("/etc/qz_sim", exist_ok=True)
        self._bind("/tmp", "/tmp", readonly=False)
        self._bind("/etc/qz_sim", "/etc/qz_sim", readonly=False)
        self._bind(self.sb.private, self.sb.private, readonly=False)
        for p in qz_sandbox._paths_to_keep():
            self._bind(p, p)
        for name, text in ETC.items():
            mode = {"config": 0o600, "init.d": 0o755}.get(os.path.dirname(name), 0o644)
            self._write("/etc/" + name, text, mode)
        os.symlink("../init.d/boot", self.path("/etc/rc.d/S10boot"))
        self.http_port = _free_port()
        for name, start, command in BASE_SERVICES:
            self._write("/etc/init.d/" + name, SERVICE_SCRIPT.format(
                start=start, command=command.format(port=self.http_port)), 0o755)
            os.symlink("../init.d/" + name, self.path("/etc/rc.d/S%02d%s" % (start, name)))

    def _install_package(self):
        """Copies the package's files as its Makefile installs them, then
        does what opkg does after an install: enable the init script and
        run the uci-defaults script."""
        for src, dst, mode in package_files():
            if src.startswith("$(PKG_INSTALL_DIR)"):
                self._write(dst, self._wrapper(), mode)
                continue
            src = src.replace("$(PKG_BUILD_DIR)", ROOT).replace(
                "./files", os.path.join(ROOT, "packaging", "openwrt", "files"))
            os.makedirs(os.path.dirname(self.path(dst)), exist_ok=True)
            shutil.copy(src, self.path(dst))
            os.chmod(self.path(dst), mode)
        self.sh("mkdir -p /tmp/run /tmp/lock /tmp/state && /etc/init.d/qz_fh_audit enable && "
                "for f in /etc/uci-defaults/*; do (. \"$f\") && rm -f \"$f\"; done")

    def _wrapper(self):
        stub = os.path.join(os.path.dirname(qz_sandbox.daemon_binary()), "tools",
                            "libqz_nlstub.so")
        e = self.sb.daemon_env(preload=(stub,))
        env = {k: e[k] for k in ("LD_PRELOAD", "FAKETIME", "FAKETIME_DONT_RESET",
                                 "FAKETIME_DONT_FAKE_MONOTONIC", "TZ", "ASAN_OPTIONS")}
        env["PATH"] = self.sb.bin_dir + ":" + PATH
        return DAEMON_WRAPPER.format(
            starts=shlex.quote(self.starts_file), stdout=shlex.quote(self.stdout),
            binary=shlex.quote(qz_sandbox.daemon_binary()),
            env="\n".join("export %s=%s" % (k, shlex.quote(v)) for k, v in env.items()))

    # -- running it -----------------------------------------------------------

    def boot(self, timeout=60):
        """Starts procd and waits until rcS has run every service."""
        if self.proc:
            raise RuntimeError("the router runs already")
        with open(self.console, "a") as console:
            self.proc = subprocess.Popen(
                [qz_sandbox.UNSHARE, "--pid", "--fork", "--root", self.root, "--wd", "/",
                 "/bin/sh", "-c", INIT], stdin=subprocess.DEVNULL, stdout=console,
                stderr=subprocess.STDOUT)
        self.pid1 = self.wait(lambda: ([c.pid for c in qz_sandbox.children_of(self.proc.pid)] or [None])[0],
                              "procd", timeout)
        self.wait(lambda: "- init complete -" in self.sh("logread", check=False).stdout,
                  "the boot", timeout)

    def shutdown(self):
        """Ends procd and everything it started, as a power cut does."""
        if not self.proc:
            return
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid1, signal.SIGKILL)
        self.proc.wait()
        self.proc = None
        _run("umount", "-l", self.path("/proc"))

    def reboot(self):
        self.shutdown()
        for name in os.listdir("/tmp"):
            p = os.path.join("/tmp", name)
            if os.path.isdir(p) and not os.path.islink(p):
                shutil.rmtree(p)
            else:
                os.unlink(p)
        self.boot()

    def sh(self, command, check=True, input=None, timeout=60):
        """Runs command with the router's /bin/sh as root logged in on it
        would, inside procd's namespace once it runs; returns its output."""
        if self.proc:
            argv = ["nsenter", "-t", str(self.pid1), "--pid", "--root", "--wd"]
        else:
            argv = ["chroot", self.root]
        r = subprocess.run(argv + ["/bin/env", "-i", "PATH=" + PATH, "HOME=/root",
                                   "/bin/sh", "-c", command],
                           input=input, capture_output=True, text=True, timeout=timeout)
        if check and r.returncode != 0:
            raise RouterError("%r exited %d: %s%s" % (command, r.returncode, r.stdout, r.stderr))
        return r.stdout if check else r

    def ubus(self, obj, method, args=None):
        """The answer of "ubus call" as a dict; RouterError on a failure."""
        out = self.sh("ubus call %s %s %s" % (obj, method, shlex.quote(json.dumps(args or {}))))
        return json.loads(out) if out.strip() else {}

    def http_ubus(self, session, obj, method, args=None):
        """A JSON-RPC call through uhttpd's /ubus, as LuCI makes it: the
        result list ([status] or [status, data]), or the error object."""
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "call",
                           "params": [session, obj, method, args or {}]}).encode()
        with socket.create_connection(("127.0.0.1", self.http_port), timeout=30) as s:
            s.sendall(b"POST /ubus HTTP/1.0\r\nContent-Type: application/json\r\n"
                      b"Content-Length: %d\r\n\r\n%s" % (len(body), body))
            data = b""
            while chunk := s.recv(65536):
                data += chunk
        reply = json.loads(data.split(b"\r\n\r\n", 1)[1])
        return reply.get("result", reply.get("error"))

    def login(self, user, password):
        """A session of rpcd through uhttpd, as LuCI's login makes one."""
        result = self.http_ubus("0" * 32, "session", "login",
                                {"username": user, "password": password})
        if result[0] != 0:
            raise RouterError("login of %s refused: %r" % (user, result))
        return result[1]["ubus_rpc_session"]

    def logread(self):
        return self.sh("logread").splitlines()

    def service(self, name="qz_fh_audit"):
        """procd's record of the service, or {}."""
        return self.ubus("service", "list", {"name": name}).get(name, {})

    def daemon_pid(self):
        """The running instance's pid as procd sees it, or None."""
        for inst in self.service().get("instances", {}).values():
            if inst.get("running"):
                return inst["pid"]
        return None

    def starts(self):
        try:
            with open(self.starts_file) as f:
                return len(f.read().split())
        except FileNotFoundError:
            return 0

    def wait(self, predicate, what, timeout=60):
        try:
            return qz_sandbox.wait_until(predicate, timeout, what, interval=0.1)
        except AssertionError as e:
            raise RouterError("%s\n%s" % (e, self.describe())) from None

    def describe(self):
        with open(self.console, errors="replace") as f:
            console = f.read()
        log = self.sh("logread", check=False).stdout if self.proc else ""
        return "--- console:\n%s\n--- logread:\n%s" % (console[-3000:], log[-4000:])


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def main():
    os.environ.setdefault("QZ_BIN", os.path.join(ROOT, "build", "qz_fh_audit"))
    staging = userland()
    if not staging:
        return 1
    qz_sandbox.enter_namespaces()
    with qz_sandbox.Sandbox() as sb:
        router = Router(sb, staging)
        router.boot()
        print("router up: /etc/init.d/qz_fh_audit, uci, ubus, logread; exit to end it")
        return subprocess.run(["nsenter", "-t", str(router.pid1), "--pid", "--root", "--wd",
                               "/bin/env", "-i", "PATH=" + PATH, "HOME=/root", "TERM=vt100",
                               "/bin/sh", "-l"]).returncode


if __name__ == "__main__":
    sys.exit(main())
