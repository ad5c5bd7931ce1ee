"""Files of the OpenWrt package that need no daemon: the configuration keys
listed alike everywhere, and the keep list as sysupgrade expands it."""

import json
import os
import re
import shlex
import subprocess
import tempfile
import unittest

from openwrt_case import FILES, KEYS, OPTIONAL_KEYS
from qz_openwrt import ROOT

PACKAGING = os.path.join(ROOT, "packaging")
INIT = os.path.join(FILES, "qz_fh_audit.init")
RPCD = os.path.join(FILES, "qz_fh_audit.rpcd")


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def shell_list(script, name):
    """Words of a variable NAME="..." in a shell script."""
    m = re.search(r'^%s="([^"]*)"' % name, read(script), re.M)
    return m.group(1).split() if m else None


class KeysAgreeTest(unittest.TestCase):
    """The daemon's keys (config/config_keys.def), in its order, are the keys
    of every list the package ships."""

    def test_keys_agree(self):
        # The daemon builds its table from that list and spells no key itself.
        source = read(os.path.join(ROOT, "config", "config.cc"))
        self.assertIn('#include "config/config_keys.def"', source)
        self.assertEqual(re.findall(r'"fh_\w*"', source), [], "config/config.cc")

        with open(os.path.join(PACKAGING, "qz_fh_audit.json.example"), encoding="utf-8") as f:
            example = list(json.load(f))

        uci = []
        for line in read(os.path.join(FILES, "qz_fh_audit.config")).splitlines():
            words = shlex.split(line, comments=True)
            if words and words[0] == "option":
                uci.append(words[1])
        validation = re.findall(r"^\t\t['\"](\w+):", read(INIT), re.M)

        lists = {
            "qz_fh_audit.json.example": (example, KEYS),
            "openwrt/files/qz_fh_audit.config": (uci, ["enabled", "use_uci"] + KEYS),
            "init script, KEYS": (shell_list(INIT, "KEYS"), KEYS),
            "init script, OPTIONAL_KEYS": (shell_list(INIT, "OPTIONAL_KEYS"), OPTIONAL_KEYS),
            "init script, validation": (validation, ["enabled", "use_uci"] + KEYS + OPTIONAL_KEYS),
            "rpcd plugin": (shell_list(RPCD, "KEYS"), KEYS + OPTIONAL_KEYS),
        }
        for name, (found, wanted) in lists.items():
            with self.subTest(list=name):
                self.assertEqual(found, wanted)


class KeepListTest(unittest.TestCase):

    def test_store_is_kept(self):
        """sysupgrade keeps every file or link under the paths that
        /etc/sysupgrade.conf and /lib/upgrade/keep.d/* list, found with
        find; here under a temporary root."""
        with tempfile.TemporaryDirectory() as root:
            files = ["etc/qz_fh_audit.json",
                     "etc/qz_fh_audit/unsent/145/145-507183926-350100-350000-1700000600-00000.zip",
                     "etc/qz_fh_audit/unsent/146/146-507183926-350100-350000-1700000600-00000.zip",
                     "etc/qz_fh_audit/unsent/144/144-350100-1700000600-507183926.json",
                     "etc/sysupgrade.conf"]
            left = ["tmp/145/WA_BASIC_FJ_0001.bcp", "tmp/qz_fh_stats.json",
                    "etc/qz_fh_audit.json.old"]
            for path in files + left:
                os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
                open(os.path.join(root, path), "w").close()
            keep_d = os.path.join(root, "lib", "upgrade", "keep.d")
            os.makedirs(keep_d)
            with open(os.path.join(keep_d, "qz_fh_audit"), "w") as f:
                f.write(read(os.path.join(FILES, "qz_fh_audit.keep")))
            script = r"""cd "$1" || exit 1
find $(sed -ne '/^[[:space:]]*$/d; /^#/d; s|^/|./|; p' etc/sysupgrade.conf lib/upgrade/keep.d/* 2>/dev/null) \
	\( -type f -o -type l \) 2>/dev/null | sort"""
            r = subprocess.run(["/usr/bin/busybox", "sh", "-c", script, "sh", root],
                               capture_output=True, text=True, timeout=60,
                               env={"PATH": "/usr/bin:/bin"})
            kept = sorted(p[2:] for p in r.stdout.split())
            self.assertEqual(kept, sorted(f for f in files if f != "etc/sysupgrade.conf"))
