#!/bin/sh
# Builds the libFuzzer targets with clang-14 and runs each for a bounded
# time (seconds, default 15) from the seed corpus in fuzz/corpus. New inputs
# go to a scratch directory; the committed seeds are left as they are.
# Needs root: the targets use a private /tmp.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-15}
build=build-fuzz
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
  -DCMAKE_CXX_COMPILER=clang++-14 -DQZ_BUILD_FUZZ=ON -DQZ_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
# Outside /tmp: the targets mount their own over it.
scratch=$(mktemp -d -p "$PWD/$build")
trap 'rm -rf "$scratch"' EXIT
for seeds in fuzz/corpus/*/; do
  target=$(basename "$seeds")
  mkdir -p "$scratch/$target"
  printf '%-16s ' "$target"
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$scratch/$target-" "$scratch/$target" "$seeds" \
      >"$scratch/$target.log" 2>&1; then
    echo "FAILED"
    tail -n 40 "$scratch/$target.log"
    exit 1
  fi
  grep -E '^stat::number_of_executed_units' "$scratch/$target.log" | awk '{print $2 " runs"}'
done
