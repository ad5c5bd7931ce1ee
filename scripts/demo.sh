#!/bin/sh
# Builds a release daemon and runs it for a short while in a sandbox of its
# own (namespaces, faked clock, local FTP server), showing its console and
# every upload.  Needs root.  Extra arguments go to tools/qz_demo.py, e.g.
#   scripts/demo.sh --seconds 30 --accel 120
set -eu
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
    echo "demo.sh: needs root (it runs the daemon in private namespaces)" >&2
    exit 1
fi
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DQZ_BUILD_TESTS=OFF
cmake --build build-demo -j2
exec /usr/bin/python3 tools/qz_demo.py --bin build-demo/qz_fh_audit "$@"
