#!/usr/bin/python3
"""Runs one unittest module in namespaces of its own; the package's tests
(tests/packaging/run.py) run theirs through it.

    /usr/bin/python3 tests/e2e/run.py MODULE [TEST ...]

MODULE is a file MODULE.py of the caller's directory; TEST names a class or
Class.method in it.  QZ_BIN names the daemon (default: build/qz_fh_audit of
this tree).  Needs root; the exit status is 0 only when every test passed.
"""

import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path[:0] = [os.path.join(ROOT, "tools"), HERE]

import qz_sandbox  # noqa: E402


def main(here=HERE, usage=__doc__):
    if len(sys.argv) < 2 or not os.path.isfile(os.path.join(here, sys.argv[1] + ".py")):
        sys.exit(usage.strip())
    os.environ.setdefault("QZ_BIN", os.path.join(ROOT, "build", "qz_fh_audit"))
    qz_sandbox.enter_namespaces()
    module, names = sys.argv[1], sys.argv[2:]
    loader = unittest.defaultTestLoader
    suite = (loader.loadTestsFromNames([module + "." + n for n in names]) if names
             else loader.loadTestsFromName(module))
    sys.exit(0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1)


if __name__ == "__main__":
    main()
