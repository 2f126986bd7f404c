#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for a few seconds
# with a fixed seed. usage: fuzz_smoke.sh BUILD_DIR SECONDS
set -euo pipefail
build=$1
secs=${2:-5}
root=$(cd "$(dirname "$0")/.." && pwd)
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGELIB_FUZZ=ON >/dev/null
targets=$(cd "$root/fuzz" && ls fuzz_*.cpp | sed "s/\.cpp$//")
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target $targets
# The harnesses read their input from a file: keep it in memory when we can.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
for h in "$build"/fuzz/fuzz_*; do
  [ -x "$h" ] || continue
  name=$(basename "$h")
  seeds=()
  [ -d "$root/fuzz/corpus/${name#fuzz_}" ] && seeds+=("$root/fuzz/corpus/${name#fuzz_}")
  work=$(mktemp -d)
  echo "-- $name (${secs}s)"
  ASAN_OPTIONS=detect_leaks=1 "$h" -seed=1 -max_total_time="$secs" -max_len=65536 -rss_limit_mb=2048 \
    "$work" ${seeds[@]+"${seeds[@]}"} >"$work.log" 2>&1 || { tail -n 40 "$work.log"; rm -rf "$work"; exit 1; }
  grep -E '^Done|#[0-9]+.*DONE' "$work.log" | tail -n 1 || true
  rm -rf "$work" "$work.log"
done
