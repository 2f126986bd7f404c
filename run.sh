#!/usr/bin/env bash
# Builds imagelib (Release) and runs it: with no arguments the demo, which
# writes a test image in every writable type and reads it back; otherwise
# the command-line tool with the given arguments, e.g. ./run.sh info x.bmp
set -euo pipefail
root=$(cd "$(dirname "$0")" && pwd)
source "$root/scripts/deps.sh"
imagelib_install_deps run >&2
cmake -S "$root" -B "$root/build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release -DIMAGELIB_TESTS=OFF \
  -DPython3_EXECUTABLE=/usr/bin/python3 >/dev/null
# The CLI, the shared library and (when pybind11 is there) the Python package.
cmake --build "$root/build/release" -j"$(nproc 2>/dev/null || echo 2)" >&2
cli="$root/build/release/imagelib"
if [ $# -eq 0 ]; then
  if "$cli" --help | grep -q '^  demo'; then
    exec "$cli" demo
  fi
  exec "$cli" formats
fi
exec "$cli" "$@"
