#!/usr/bin/python3
"""Runs one test module of the OpenWrt package in namespaces of its own.

    /usr/bin/python3 tests/packaging/run.py MODULE [TEST ...]

MODULE is a file tests/packaging/MODULE.py. The init script writes
/etc/qz_fh_audit.json, so every test that runs it does so in a sandbox
(tools/qz_sandbox.py: private /etc, /tmp and /dev/log); the tests that run
the daemon take it from QZ_BIN, as the end-to-end tests do. Needs root;
the exit status is 0 only when every test passed.
"""

import importlib.util
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

# The end-to-end runner, given this directory's modules.
_loader = importlib.util.spec_from_file_location("e2e_run", os.path.join(ROOT, "tests", "e2e", "run.py"))
e2e_run = importlib.util.module_from_spec(_loader)
_loader.loader.exec_module(e2e_run)
sys.path.insert(0, HERE)  # this directory's modules before the end-to-end ones

if __name__ == "__main__":
    e2e_run.main(HERE, __doc__)
