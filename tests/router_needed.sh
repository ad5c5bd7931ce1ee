#!/bin/sh
# Fails unless the binary needs no shared library but the C library (and
# its loader), GLib and jansson: what a router build may count on finding.
#   tests/router_needed.sh READELF BINARY
set -eu
readelf=$1
binary=$2
needed=$("$readelf" -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
if [ -z "$needed" ]; then
	echo "$binary: no NEEDED entries (not a dynamic executable?)" >&2
	exit 1
fi
status=0
for lib in $needed; do
	case $lib in
	libc.so* | ld-linux*.so.* | ld64.so.* | ld.so.* | libglib-2.0.so.* | libjansson.so.*)
		echo "needs $lib"
		;;
	*)
		echo "$binary needs $lib, which a router may not have" >&2
		status=1
		;;
	esac
done
exit "$status"
