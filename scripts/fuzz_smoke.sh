#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (AddressSanitizer and UBSan) and
# runs each for SECONDS with a fixed seed, seeded from fuzz/corpus/<name>/.
# usage: fuzz_smoke.sh BUILD_DIR SECONDS [REPORT [HARNESS...]]
# With REPORT, each harness's final figures (executions, coverage, corpus
# size, findings) are appended to REPORT as a Markdown table row, the
# corpus it grew is kept in BUILD_DIR/corpus/<name>/ and any crashing input
# in BUILD_DIR/findings/; a finding does not end the run then.
set -euo pipefail
build=$1
secs=${2:-5}
report=${3:-}
shift $(( $# < 3 ? $# : 3 ))
only=("$@")
root=$(cd "$(dirname "$0")/.." && pwd)
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGELIB_FUZZ=ON >/dev/null
targets=$(cd "$root/fuzz" && ls fuzz_*.cpp | sed "s/\.cpp$//")
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target $targets
# The harnesses read their input from a file: keep it in memory when we can.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
if [ -n "$report" ] && [ ! -s "$report" ]; then
  printf '| harness | seconds | executions | exec/s | coverage (edges) | features | corpus | findings |\n|---|---|---|---|---|---|---|---|\n' >"$report"
fi
for h in "$build"/fuzz/fuzz_*; do
  [ -x "$h" ] || continue
  name=$(basename "$h")
  if [ ${#only[@]} -gt 0 ] && [[ ! " ${only[*]} " =~ " ${name} " ]]; then continue; fi
  seeds=()
  if [ -d "$root/fuzz/corpus/${name#fuzz_}" ]; then seeds+=("$root/fuzz/corpus/${name#fuzz_}")
  else for d in "$root"/fuzz/corpus/*/; do seeds+=("${d%/}"); done  # type detection: every seed
  fi
  work=$(mktemp -d)
  echo "-- $name (${secs}s)"
  if [ -z "$report" ]; then
    ASAN_OPTIONS=detect_leaks=1 "$h" -seed=1 -max_total_time="$secs" -max_len=65536 -rss_limit_mb=2048 \
      "$work" ${seeds[@]+"${seeds[@]}"} >"$work.log" 2>&1 || { tail -n 40 "$work.log"; rm -rf "$work"; exit 1; }
    grep -E '^Done|#[0-9]+.*DONE' "$work.log" | tail -n 1 || true
  else
    keep="$build/corpus/${name#fuzz_}"
    findings="$build/findings"
    mkdir -p "$keep" "$findings"
    # -fork keeps going after a finding; every crashing input lands in findings/.
    ASAN_OPTIONS=detect_leaks=1 "$h" -seed=1 -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
      -max_total_time="$secs" -max_len=65536 -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$findings/$name-" "$keep" ${seeds[@]+"${seeds[@]}"} >"$work.log" 2>&1 || true
    last=$(grep -E '^#[0-9]+' "$work.log" | tail -n 1)
    execs=$(sed -E 's/^#([0-9]+).*/\1/' <<<"$last")
    cov=$(grep -oE 'cov: [0-9]+' <<<"$last" | tail -n 1 | cut -d' ' -f2)
    ft=$(grep -oE 'ft: [0-9]+' <<<"$last" | tail -n 1 | cut -d' ' -f2)
    corp=$(ls "$keep" | wc -l)
    crashes=$(ls "$findings" 2>/dev/null | grep -c "^$name-" || true)
    echo "$last"
    printf '| %s | %s | %s | %s | %s | %s | %s | %s |\n' "${name#fuzz_}" "$secs" "${execs:-?}" \
      "$(( ${execs:-0} / secs ))" "${cov:-?}" "${ft:-?}" "$corp" "$crashes" >>"$report"
  fi
  rm -rf "$work" "$work.log"
done
