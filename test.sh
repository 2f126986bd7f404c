#!/usr/bin/env bash
# Installs what the build and the tests need (when missing), builds, and runs
# every test: unit and interop tests, the install check with a small C
# consumer, the unit tests again under AddressSanitizer and UBSan, parallel
# batches under ThreadSanitizer, and a short smoke run of each fuzz harness
# when clang is present.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/deps.sh
imagelib_install_deps test

jobs=$(nproc 2>/dev/null || echo 2)

echo "== build and test"
cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPython3_EXECUTABLE=/usr/bin/python3 >/dev/null
cmake --build build/test -j"$jobs"
ctest --test-dir build/test --output-on-failure -j"$jobs" -LE python

if [ -d build/test/python/imagelib ]; then
  echo "== python module"
  PYTHONPATH=build/test/python IMAGELIB_CLI=build/test/imagelib KV_KOR=data \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
fi

echo "== install and consume"
scripts/check_install.sh build/test build/prefix

echo "== unit tests under address,undefined sanitizers"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DIMAGELIB_SANITIZE=address,undefined >/dev/null
cmake --build build/asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j"$jobs" -L unit

echo "== pixel tests on the portable (SSE2-only) kernels"
cmake -S . -B build/portable -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS=-DIMAGELIB_RLE_DISPATCH=0 >/dev/null
cmake --build build/portable -j"$jobs" --target test_pixels
build/portable/tests/test_pixels --gtest_brief=1

echo "== threads: convert -j 4 over every codec family under ThreadSanitizer"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIMAGELIB_SANITIZE=thread -DIMAGELIB_TESTS=OFF >/dev/null
cmake --build build/tsan -j"$jobs" --target imagelib_cli
scripts/tsan_batch.sh build/tsan

if command -v clang++ >/dev/null 2>&1; then
  echo "== fuzz smoke runs"
  scripts/fuzz_smoke.sh build/fuzz 5
fi
echo "== all tests passed"
