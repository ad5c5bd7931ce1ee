#!/usr/bin/python3
"""Runs one end-to-end test module in a sandbox of its own.

    /usr/bin/python3 tests/e2e/run.py MODULE [TEST ...]

MODULE is a file tests/e2e/MODULE.py; TEST names a class or Class.method in
it to run only those.  QZ_BIN names the daemon (default: build/qz_fh_audit
of this tree); a cross build runs under qemu-user with QZ_EMULATOR and
QZ_SYSROOT set (see tools/qz_sandbox.py; scripts/cross-test.sh does this
for test_smoke).  Needs root; the exit status is 0 only when every test
passed.
"""

import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "tools"))
sys.path.insert(0, HERE)

import qz_sandbox  # noqa: E402


def main(here=HERE, usage=__doc__):
    """Runs the module named on the command line, a file of here."""
    if len(sys.argv) < 2 or sys.argv[1].startswith("-"):
        sys.exit(usage.strip())
    module, names = sys.argv[1], sys.argv[2:]
    if not os.path.isfile(os.path.join(here, module + ".py")):
        sys.exit("run.py: no test module %s in %s" % (module, here))
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
