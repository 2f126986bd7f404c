#!/usr/bin/env bash
# Runs every unit test executable of a build directory under valgrind
# memcheck: any leak (definite, indirect or possible) or invalid access fails
# the run. Third-party noise, should any appear, goes into
# scripts/valgrind.supp (used when present; none is needed today).
# usage: valgrind.sh BUILD_DIR [GTEST_FILTER]
# A RelWithDebInfo build without sanitizers (e.g. build/dev) is what to give it.
set -uo pipefail
build=${1:?usage: valgrind.sh BUILD_DIR [GTEST_FILTER]}
filter=${2:-*}
root=$(cd "$(dirname "$0")/.." && pwd)
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 2; }
supp=()
[ -f "$root/scripts/valgrind.supp" ] && supp=(--suppressions="$root/scripts/valgrind.supp")
export KV_KOR="$root/data"
failed=0
found=0
for t in "$build"/tests/test_*; do
  [ -x "$t" ] && [ -f "$t" ] || continue
  found=1
  name=$(basename "$t")
  log="$build/valgrind-$name.log"
  echo "-- $name"
  if valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
       --show-leak-kinds=definite,indirect,possible --track-fds=no --error-exitcode=99 "${supp[@]}" \
       "$t" --gtest_filter="$filter" >"$log" 2>&1; then
    grep -E "ERROR SUMMARY|tests? from .* ran" "$log" | tail -n 2
  else
    echo "   FAILED (log: $log)"
    grep -E "ERROR SUMMARY|definitely lost|indirectly lost|possibly lost|Invalid|FAILED" "$log" | head -n 20
    failed=1
  fi
done
[ "$found" = 1 ] || { echo "no test executables under $build/tests" >&2; exit 2; }
exit "$failed"
