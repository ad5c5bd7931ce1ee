#!/bin/sh
# Makes the release tarball qz_fh_audit-VERSION.tar.gz of the tracked files
# of a commit (default HEAD), and its SHA-256 checksum beside it:
#
#   scripts/dist.sh [COMMIT]          -> build-dist/qz_fh_audit-VERSION.tar.gz{,.sha256}
#   scripts/dist.sh --openwrt [COMMIT]   also writes PKG_VERSION and PKG_HASH
#                                        into packaging/openwrt/Makefile
#
# VERSION is the project version in that commit's CMakeLists.txt. git
# archive writes the same bytes for the same commit, so anyone can check a
# published tarball against its commit. Changes not committed are not in
# it: commit first.
set -eu
cd "$(dirname "$0")/.."
openwrt=0
if [ "${1:-}" = "--openwrt" ]; then
	openwrt=1
	shift
fi
commit=${1:-HEAD}
name=qz_fh_audit

if ! git rev-parse --verify --quiet "$commit^{commit}" >/dev/null; then
	echo "dist.sh: $commit is not a commit of this repository" >&2
	exit 1
fi
version=$(git show "$commit:CMakeLists.txt" |
	sed -n 's/^project(qz_fh_audit VERSION \([0-9.]*\) .*/\1/p')
if [ -z "$version" ]; then
	echo "dist.sh: no project version in $commit:CMakeLists.txt" >&2
	exit 1
fi
if [ "$commit" = HEAD ] && ! git diff --quiet HEAD --; then
	echo "dist.sh: note: uncommitted changes are not in the tarball" >&2
fi

mkdir -p build-dist
tarball=build-dist/$name-$version.tar.gz
git archive --format=tar.gz --prefix="$name-$version/" -o "$tarball" "$commit"
hash=$(sha256sum "$tarball" | cut -d' ' -f1)
echo "$hash  $name-$version.tar.gz" >"$tarball.sha256"
echo "$tarball"
echo "PKG_VERSION:=$version"
echo "PKG_HASH:=$hash"

if [ "$openwrt" -eq 1 ]; then
	makefile=packaging/openwrt/Makefile
	sed -i -e "s/^PKG_VERSION:=.*/PKG_VERSION:=$version/" \
		-e "s/^PKG_HASH:=.*/PKG_HASH:=$hash/" \
		-e "s/(from commit [0-9a-f]*)/(from commit $(git rev-parse --short=12 "$commit"))/" "$makefile"
	echo "updated $makefile"
fi
