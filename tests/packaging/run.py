#!/usr/bin/python3
"""Runs one test module of the OpenWrt package in namespaces of its own.

    /usr/bin/python3 tests/packaging/run.py MODULE [TEST ...]

MODULE is a file tests/packaging/MODULE.py. The init script writes
/etc/qz_fh_audit.json, so every test that runs it does so in a sandbox
(tools/qz_sandbox.py: private /etc, /tmp and /dev/log); the tests that run
the daemon take it from QZ_BIN, as the end-to-end tests do. Needs root;
the exit status is 0 only when every test passed.
"""

import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools"))
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
sys.path.insert(0, HERE)

import qz_sandbox  # noqa: E402


def main():
    if len(sys.argv) < 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__.strip())
    module, names = sys.argv[1], sys.argv[2:]
    if not os.path.isfile(os.path.join(HERE, module + ".py")):
        sys.exit("run.py: no test module %s in %s" % (module, HERE))
    default_bin = os.path.join(ROOT, "build", "qz_fh_audit")
    if "QZ_BIN" not in os.environ and os.path.exists(default_bin):
        os.environ["QZ_BIN"] = default_bin

    qz_sandbox.enter_namespaces()

    loader = unittest.defaultTestLoader
    if names:
        suite = loader.loadTestsFromNames([module + "." + n for n in names])
    else:
        suite = loader.loadTestsFromName(module)
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    sys.exit(0 if result.wasSuccessful() else 1)


if __name__ == "__main__":
    main()
