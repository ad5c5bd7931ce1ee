#!/bin/sh
# Builds OpenWrt's userland from the source tarballs of ../shared/openwrt
# into a staging root, once per set of tarballs, and prints the root's path.
# The package tests run the package's files against it.
#
#   scripts/openwrt-userland.sh
#
# QZ_OPENWRT_SRC    the folder of tarballs (default: ../shared/openwrt from
#                   the checkout's root)
# QZ_OPENWRT_CACHE  where staging roots are kept (default:
#                   /var/cache/qz_fh_audit); each is openwrt-<key>, the key
#                   being a hash of the tarballs and of this script
#
# QZ_REQUIRE_OPENWRT  set (CI sets it): an absent folder is an error
#
# Exit status 0 with the path on standard output; 3 when the folder of
# tarballs is absent (one line on standard error), 1 instead with
# QZ_REQUIRE_OPENWRT; 1 when a build fails (its log is kept beside the
# roots).
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
src=${QZ_OPENWRT_SRC:-$top/../shared/openwrt}
cache=${QZ_OPENWRT_CACHE:-/var/cache/qz_fh_audit}
if [ ! -d "$src/src" ] || [ ! -f "$src/base-files.tar.gz" ]; then
	if [ -n "${QZ_REQUIRE_OPENWRT:-}" ]; then
		echo "no OpenWrt sources in $src (QZ_OPENWRT_SRC), and QZ_REQUIRE_OPENWRT is set" >&2
		exit 1
	fi
	echo "no OpenWrt sources in $src (QZ_OPENWRT_SRC): the package tests are skipped" >&2
	exit 3
fi
src=$(cd "$src" && pwd)

# In build order; each name is the start of one tarball's name. ucode is
# there for udebug (a ucode module) and for rpcd's and uhttpd's plugins.
components="libubox ubus uci ucode udebug ubox jsonpath rpcd procd uhttpd"

key=$(cd "$src" && sha256sum src/*.tar.gz base-files.tar.gz | cat - "$top/scripts/openwrt-userland.sh" |
	sha256sum | cut -c1-16)
root=$cache/openwrt-$key
if [ -f "$root/.complete" ]; then
	echo "$root"
	exit 0
fi

mkdir -p "$cache"
# One build at a time per cache; a second caller waits and takes its result.
exec 9>"$cache/.lock"
flock 9
if [ -f "$root/.complete" ]; then
	echo "$root"
	exit 0
fi

work=$(mktemp -d "$cache/build-$key.XXXXXX")
log=$cache/build-$key.log
stage=$work/root
finish() {
	status=$?
	rm -rf "$work"
	[ "$status" = 0 ] || echo "building OpenWrt's userland failed; see $log" >&2
}
trap finish EXIT
echo "building OpenWrt's userland into $root (log: $log)" >&2
: >"$log"

# glibc 2.36 has no strlcpy, which rpcd and procd call, and declares
# vasprintf only with _GNU_SOURCE, which some sources define themselves.
cat >"$work/gnu.h" <<'EOF'
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
EOF
# No header here: some sources set feature macros of their own first.
cat >"$work/strlcpy.h" <<'EOF'
static inline __SIZE_TYPE__ qz_strlcpy(char *d, const char *s, __SIZE_TYPE__ n)
{
	__SIZE_TYPE__ len = __builtin_strlen(s);
	if (n) {
		__SIZE_TYPE__ k = len < n - 1 ? len : n - 1;
		__builtin_memcpy(d, s, k);
		d[k] = 0;
	}
	return len;
}
#define strlcpy qz_strlcpy
EOF

build() {
	name=$1
	shift
	tarball=$(ls "$src/src/$name"-*.tar.gz)
	mkdir -p "$work/src"
	tar -xzf "$tarball" -C "$work/src"
	dir=$work/src/$(basename "$tarball" .tar.gz)
	bdir=$work/build/$name
	# jsonpath generates its parser generator and parser in its source tree.
	[ "$name" != jsonpath ] || bdir=$dir
	ldflags="-L$stage/usr/lib -Wl,-rpath-link,$stage/usr/lib"
	{
		cmake -S "$dir" -B "$bdir" -DCMAKE_BUILD_TYPE=Release \
			-DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib \
			-DCMAKE_PREFIX_PATH="$stage/usr" -DCMAKE_C_FLAGS="-I$stage/usr/include $cflags" \
			-DCMAKE_EXE_LINKER_FLAGS="$ldflags" -DCMAKE_SHARED_LINKER_FLAGS="$ldflags" \
			-DCMAKE_MODULE_LINKER_FLAGS="$ldflags" "$@"
		make -C "$bdir" -j2
		make -C "$bdir" install DESTDIR="$stage"
	} >>"$log" 2>&1
}

# ubox and procd link a bare -lubox.
export LIBRARY_PATH="$stage/usr/lib"
for name in $components; do
	echo "== $name" >>"$log"
	cflags=
	case $name in
	libubox | ubus | uci) build "$name" -DBUILD_LUA=OFF -DBUILD_EXAMPLES=OFF ;;
	ucode)
		cflags="-include $work/gnu.h"
		build "$name" -DRTNL_SUPPORT=OFF -DNL80211_SUPPORT=OFF -DDIGEST_SUPPORT=OFF \
			-DDIGEST_SUPPORT_EXTENDED=OFF
		;;
	udebug | ubox | jsonpath) build "$name" ;;
	rpcd)
		cflags="-include $work/gnu.h -include $work/strlcpy.h"
		build "$name" -DIWINFO_SUPPORT=OFF
		;;
	procd)
		cflags="-include $work/gnu.h -include $work/strlcpy.h -Wno-error=format-overflow"
		build "$name"
		;;
	uhttpd)
		cflags="-include $work/gnu.h -Wno-error=stringop-overread"
		build "$name" -DTLS_SUPPORT=OFF -DLUA_SUPPORT=OFF
		;;
	esac
done

# Where OpenWrt installs what scripts and the boot call by path.
mkdir -p "$stage/bin" "$stage/sbin" "$stage/usr/share/rpcd/acl.d"
for f in procd ubusd logd logread validate_data udevtrigger rpcd; do
	mv "$stage/usr/sbin/$f" "$stage/sbin/$f"
done
mv "$stage/usr/bin/uci" "$stage/sbin/uci"
mv "$stage/usr/bin/ubus" "$stage/bin/ubus"
mv "$stage/usr/bin/uhttpd" "$stage/usr/sbin/uhttpd"
mv "$stage/usr/bin/jsonpath" "$stage/usr/bin/jsonfilter"
cp "$work/src/rpcd-"*/unauthenticated.json "$stage/usr/share/rpcd/acl.d/"
tar -xzf "$src/base-files.tar.gz" -C "$stage"
touch "$stage/.complete"
rm -rf "$root"
mv "$stage" "$root"
echo "$root"
