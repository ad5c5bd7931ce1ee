#!/bin/sh
# Builds and runs every test: plainly (the package tests on OpenWrt's own
# userland, built first when not cached), then under AddressSanitizer and
# UndefinedBehaviorSanitizer, then each fuzz target for a short while, then
# the router build and the cross builds for arm64, armhf, s390x and mipsel
# under qemu-user (scripts/cross-test.sh).
# Needs root (tests run the daemon in private namespaces).
set -eu
cd "$(dirname "$0")/.."
jobs=$(nproc)

run_suite() {
  dir=$1
  shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 600)
}

echo "== OpenWrt's userland for the package tests"
# Built once and cached; 3: no sources here, and the package tests skip.
status=0
./scripts/openwrt-userland.sh >/dev/null || status=$?
[ "$status" = 0 ] || [ "$status" = 3 ]
echo "== plain build"
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== sanitizer build"
run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DQZ_SANITIZE=ON
echo "== fuzz targets"
./scripts/fuzz.sh "${QZ_FUZZ_SECONDS:-15}"
echo "== cross builds"
./scripts/cross-test.sh
echo "== all tests passed"
