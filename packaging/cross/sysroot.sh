#!/bin/sh
# Unpacks the Debian packages of another architecture into a sysroot for
# cross-building and for running the result under qemu-user:
#
#   packaging/cross/sysroot.sh ARCH DIR PACKAGE...
#
# Multiarch installs (dpkg --add-architecture) need the foreign packages
# in exactly the host's versions, which the security archive does not
# always have for every architecture; a private apt configuration (own
# state, empty status, only ARCH) resolves the dependencies within the
# release and its updates instead, and dpkg -x unpacks each package
# without installing anything. The loader and libc under qemu then come
# from the same packages as the libraries. The mirror is the host's own.
# DIR.apt keeps apt's lists and downloads; a DIR that is complete (its
# .done names the same packages) is left as it is.
set -eu
if [ "$#" -lt 3 ]; then
	echo "usage: $0 ARCH DIR PACKAGE..." >&2
	exit 2
fi
arch=$1
dir=$2
shift 2
want="$arch $*"
if [ -f "$dir/.done" ] && [ "$(cat "$dir/.done")" = "$want" ]; then
	exit 0
fi

# shellcheck source=/dev/null
. /etc/os-release
codename=${VERSION_CODENAME:?no VERSION_CODENAME in /etc/os-release}
# shellcheck disable=SC2016  # apt's own placeholders
mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
	'Created-By: Packages' | awk -v r="$codename" '$2 == r && $3 == "main" { print $1; exit }')
if [ -z "$mirror" ]; then
	echo "$0: no apt source for $codename main on this host (apt-get update first)" >&2
	exit 1
fi
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

apt=$dir.apt
rm -rf "$dir"
mkdir -p "$dir" "$apt/lists/partial" "$apt/archives/partial" "$apt/parts" \
	"$apt/prefs" "$apt/sources.d"
: >"$apt/status"
{
	echo "deb [arch=$arch signed-by=$keyring] $mirror $codename main"
	echo "deb [arch=$arch signed-by=$keyring] $mirror $codename-updates main"
} >"$apt/sources.list"
cat >"$apt/apt.conf" <<CONF
APT::Architecture "$arch";
APT::Architectures { "$arch"; };
APT::Install-Recommends "false";
APT::Install-Suggests "false";
Dir::State::Lists "$apt/lists";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
Dir::Cache::archives "$apt/archives";
Dir::Cache::pkgcache "";
Dir::Cache::srcpkgcache "";
Dir::Etc::SourceList "$apt/sources.list";
Dir::Etc::SourceParts "$apt/sources.d";
Dir::Etc::Parts "$apt/parts";
Dir::Etc::Preferences "$apt/prefs/none";
Dir::Etc::PreferencesParts "$apt/prefs";
Debug::NoLocking "true";
CONF
export APT_CONFIG="$apt/apt.conf"
apt-get -q update
# Everything the packages need within the release, as if on an empty system.
apt-get -q -y install --download-only "$@"
for deb in "$apt"/archives/*.deb; do
	dpkg-deb -x "$deb" "$dir"
done
echo "$want" >"$dir/.done"
