#!/usr/bin/python3
"""Runs one test module of the OpenWrt package in namespaces of its own.

    /usr/bin/python3 tests/packaging/run.py MODULE [TEST ...]

MODULE is a file tests/packaging/MODULE.py. The modules that run the
package on OpenWrt's userland build it first when the cache has none
(scripts/openwrt-userland.sh); without its sources they print why and exit
77, which CTest counts as skipped, unless QZ_REQUIRE_OPENWRT is set. The
daemon comes from QZ_BIN, as in the end-to-end tests. Needs root; the exit
status is 0 only when every test passed.
"""

import importlib.util
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
ROUTER_MODULES = ("test_openwrt", "test_openwrt_smoke")

# The end-to-end runner, given this directory's modules.
_loader = importlib.util.spec_from_file_location("e2e_run", os.path.join(ROOT, "tests", "e2e", "run.py"))
e2e_run = importlib.util.module_from_spec(_loader)
_loader.loader.exec_module(e2e_run)
sys.path.insert(0, HERE)  # this directory's modules before the end-to-end ones

import qz_openwrt  # noqa: E402

if __name__ == "__main__":
    if (sys.argv[1:2] and sys.argv[1] in ROUTER_MODULES and "QZ_IN_SANDBOX" not in os.environ
            and not qz_openwrt.userland()):
        sys.exit(77)
    e2e_run.main(HERE, __doc__)
