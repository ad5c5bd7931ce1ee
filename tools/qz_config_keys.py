"""The daemon's configuration keys, from config/config_keys.def, the one list
it builds its table from: KEYS, needed, in its reading order; OPTIONAL_KEYS."""

import os
import re

DEF_PATH = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                        "config", "config_keys.def")
_ENTRY = re.compile(r"QZ_CONFIG_KEY\((\w+), (?:true|false)\)|QZ_CONFIG_OPTIONAL_KEY\((\w+)\)")


def read_keys(path=DEF_PATH):
    """(needed, optional).  ValueError for a line that starts like an entry
    and is not one, or a file without entries: every reader would be wrong."""
    needed, optional = [], []
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            if line.startswith("QZ_CONFIG_"):
                m = _ENTRY.fullmatch(line.strip())
                if not m:
                    raise ValueError("%s:%d: not an entry: %s" % (path, number, line.strip()))
                (needed if m.group(1) else optional).append(m.group(1) or m.group(2))
    if not needed:
        raise ValueError("%s: no QZ_CONFIG_KEY entry" % path)
    return needed, optional


KEYS, OPTIONAL_KEYS = read_keys()


def config_doc(values):
    """The dict of values in the daemon's key order.  ValueError names the
    keys without a value and the values of no key."""
    missing = [k for k in KEYS if k not in values]
    unknown = [k for k in values if k not in KEYS + OPTIONAL_KEYS]
    if missing or unknown:
        raise ValueError("config/config_keys.def: no value for %s; no key for %s"
                         % (missing, unknown))
    return {k: values[k] for k in KEYS + OPTIONAL_KEYS if k in values}
