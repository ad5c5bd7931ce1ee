#!/bin/sh
# Builds a release daemon and the netlink stand-in, then runs the daemon
# through four archive cycles in a sandbox of its own (namespaces, faked
# clock, simulated router, local FTP server) and summarises every upload.
# Needs root.  Extra arguments go to tools/qz_demo.py, e.g.
#   scripts/demo.sh --cycles 6 --accel 120
#   scripts/demo.sh --verbose        (the daemon's whole console)
set -eu
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
    echo "demo.sh: needs root (it runs the daemon in private namespaces)" >&2
    exit 1
fi
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DQZ_BUILD_TESTS=OFF
cmake --build build-demo -j2 --target qz_fh_audit qz_nlstub
exec /usr/bin/python3 tools/qz_demo.py --bin build-demo/qz_fh_audit "$@"
