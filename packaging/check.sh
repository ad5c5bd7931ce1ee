#!/bin/sh
# Lints the packaging: every shell script under packaging/ goes through the
# syntax checks of sh and busybox sh, and shellcheck; the example
# configuration must hold every key the daemon needs, as a string, the
# rpcd ACL must be JSON, and the OpenWrt package must carry the tree's
# version and depend on wput-curl, which installs /usr/bin/wput.
# Exit status 0 when everything passes, 1 otherwise.
set -u

here=$(cd "$(dirname "$0")" && pwd)
failed=0

fail() {
	echo "FAIL: $*" >&2
	failed=1
}

# Prints the shell dialect of a script (sh or bash), or nothing.
dialect() {
	case $1 in
	*.init) echo sh; return ;;  # "#!/bin/sh /etc/rc.common"
	esac
	case $(head -n 1 "$1") in
	'#!/bin/sh'* | '#!/usr/bin/env sh'*) echo sh ;;
	'#!/bin/bash'* | '#!/usr/bin/env bash'*) echo bash ;;
	*.sh) echo sh ;;
	esac
}

if ! command -v shellcheck >/dev/null 2>&1; then
	fail "shellcheck is not installed"
fi

list=$(mktemp)
trap 'rm -f "$list"' EXIT
find "$here" -type f | sort >"$list"
checked=0
while IFS= read -r f; do
	shell=$(dialect "$f")
	[ -n "$shell" ] || continue
	checked=$((checked + 1))
	if [ "$shell" = bash ]; then
		bash -n "$f" || fail "bash -n $f"
	else
		sh -n "$f" || fail "sh -n $f"
		# OpenWrt runs its scripts with busybox's ash.
		if command -v busybox >/dev/null 2>&1; then
			busybox sh -n "$f" || fail "busybox sh -n $f"
		else
			fail "busybox is not installed"
		fi
	fi
	if command -v shellcheck >/dev/null 2>&1; then
		shellcheck -s "$shell" "$f" || fail "shellcheck $f"
	fi
done <"$list"
[ "$checked" -gt 0 ] || fail "no shell script found under $here"

python=/usr/bin/python3
[ -x "$python" ] || python=python3
# The keys are the daemon's own list (config/config_keys.def).
"$python" - "$here/qz_fh_audit.json.example" "$here/../tools" <<'EOF' || fail "qz_fh_audit.json.example"
import json, sys
sys.path.insert(0, sys.argv[2])
from qz_config_keys import KEYS
with open(sys.argv[1], encoding="utf-8") as f:
    conf = json.load(f)
bad = [k for k in KEYS if not isinstance(conf.get(k), str)]
if bad:
    sys.exit("%s: missing or not a string: %s" % (sys.argv[1], ", ".join(bad)))
EOF

"$python" -m json.tool "$here/openwrt/files/qz_fh_audit.acl.json" >/dev/null ||
	fail "openwrt/files/qz_fh_audit.acl.json is no JSON"

# The OpenWrt package ships the version the tree builds (scripts/dist.sh
# --openwrt writes it), with a full SHA-256 of its tarball.
makefile=$here/openwrt/Makefile
cmake_version=$(sed -n 's/^project(qz_fh_audit VERSION \([0-9.]*\) .*/\1/p' "$here/../CMakeLists.txt")
pkg_version=$(sed -n 's/^PKG_VERSION:=//p' "$makefile")
if [ -z "$cmake_version" ] || [ "$pkg_version" != "$cmake_version" ]; then
	fail "openwrt/Makefile: PKG_VERSION $pkg_version, but CMakeLists.txt says $cmake_version"
fi
grep -q '^PKG_HASH:=[0-9a-f]\{64\}$' "$makefile" || fail "openwrt/Makefile: PKG_HASH is no SHA-256"
grep -q '+libstdcpp' "$makefile" && fail "openwrt/Makefile: the router build needs no libstdcpp"
grep -q '^  DEPENDS:=.*+wput-curl' "$makefile" || fail "openwrt/Makefile: wput-curl, which sends every upload, is no dependency"
# shellcheck disable=SC2016 # make's variables, not the shell's
grep -qxF '	$(INSTALL_BIN) ./files/wput-curl $(1)/usr/bin/wput' "$makefile" ||
	fail "openwrt/Makefile: wput-curl is not installed as /usr/bin/wput"

if [ "$failed" -eq 0 ]; then
	echo "packaging: $checked shell scripts and the example configuration pass"
fi
exit "$failed"
