"""Runs the package's shell scripts as OpenWrt would, with the stand-ins in
stubs/ for what OpenWrt provides (rc.common, functions.sh, procd.sh,
jshn.sh, uci, logger, jsonfilter, ubus)."""

import os
import shutil
import subprocess

# The daemon's keys in the order it reads them, from its one list.
from qz_config_keys import KEYS, OPTIONAL_KEYS  # noqa: F401 (for the test modules)

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
STUBS = os.path.join(HERE, "stubs")
FILES = os.path.join(ROOT, "packaging", "openwrt", "files")
INIT = os.path.join(FILES, "qz_fh_audit.init")
SHIPPED_UCI = os.path.join(FILES, "qz_fh_audit.config")
RPCD = os.path.join(FILES, "qz_fh_audit.rpcd")
UCI_DEFAULTS = os.path.join(FILES, "qz_fh_audit.uci-defaults")
CONF = "/etc/qz_fh_audit.json"

# OpenWrt runs its scripts with busybox's ash; dash is a second POSIX shell.
SHELLS = {"busybox": [shutil.which("busybox") or "busybox", "sh"],
          "dash": [shutil.which("dash") or "dash"]}


def uci_quote(value):
    return "'" + value.replace("'", "'\\''") + "'"


def uci_text(options, section="main"):
    """A UCI file with one section qz_fh_audit of the given options (a list
    of pairs or a dict, values as text)."""
    items = options.items() if isinstance(options, dict) else options
    lines = ["config qz_fh_audit %s" % uci_quote(section)]
    lines += ["\toption %s %s" % (k, uci_quote(v)) for k, v in items]
    return "\n".join(lines) + "\n"


def env(workdir, path=None, **extra):
    """Environment of a script run: stand-ins first on PATH, the UCI files
    and the records of procd and logger calls in workdir."""
    e = {
        "PATH": path or "%s:/usr/sbin:/usr/bin:/sbin:/bin" % os.path.join(STUBS, "bin"),
        "QZ_STUBS": STUBS,
        "UCI_CONFIG_DIR": os.path.join(workdir, "config"),
        "QZ_PROCD_LOG": os.path.join(workdir, "procd.log"),
        "QZ_LOGGER_LOG": os.path.join(workdir, "logger.log"),
        "IPKG_INSTROOT": STUBS,
        "LC_ALL": "C",
    }
    e.update(extra)
    return e


def read_lines(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read().splitlines()
    except FileNotFoundError:
        return []


class InitRun:
    """One run of "/etc/init.d/qz_fh_audit ACTION" under a shell."""

    def __init__(self, shell, workdir, action="start", path=None):
        for name in ("procd.log", "logger.log"):
            try:
                os.unlink(os.path.join(workdir, name))
            except FileNotFoundError:
                pass
        # IPKG_INSTROOT is empty on a router; the init script does not use it.
        e = env(workdir, path)
        del e["IPKG_INSTROOT"]
        r = subprocess.run(SHELLS[shell] + [os.path.join(STUBS, "rc.common"), INIT, action],
                           env=e, capture_output=True, timeout=60)
        self.status = r.returncode
        self.stderr = r.stderr.decode(errors="replace")
        self.procd = read_lines(e["QZ_PROCD_LOG"])
        self.logger = read_lines(e["QZ_LOGGER_LOG"])

    def instances(self):
        return [line for line in self.procd if line.startswith("procd_open_instance")]
