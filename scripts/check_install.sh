#!/usr/bin/env bash
# Installs a configured build into a prefix and builds a one-file C consumer
# against it twice: with pkg-config and with find_package(imagelib).
# usage: check_install.sh BUILD_DIR PREFIX
set -euo pipefail
build=$1
prefix=$(realpath -m "$2")
root=$(cd "$(dirname "$0")/.." && pwd)
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libimagelib.so' | head -n 1)")

# Only the library's own C names are exported.
if nm -D --defined-only "$libdir/libimagelib.so" | awk '{print $3}' | grep -E '^_Z' | head -n 3 | grep -q .; then
  echo "libimagelib.so exports C++ symbols" >&2
  exit 1
fi
soname=$(objdump -p "$libdir/libimagelib.so" | awk '/SONAME/ {print $2}')
case "$soname" in libimagelib.so.[0-9]*) ;; *) echo "bad SONAME '$soname'" >&2; exit 1 ;; esac

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# pkg-config, strict C99.
cflags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags imagelib)
libs=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --libs imagelib)
cc -std=c99 -Wall -Wextra -pedantic -Werror $cflags "$root/tests/consumer/consumer.c" -o "$work/consumer-pc" \
  $libs -Wl,-rpath,"$libdir"
KV_KOR="" "$work/consumer-pc" "$prefix/share/imagelib/imagemsg.rsc"

# CMake package.
cmake -S "$root/tests/consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" "$prefix/share/imagelib/imagemsg.rsc"

# The Python package, when it was built: imported from the prefix alone.
pkg=$(find "$prefix" -path '*/imagelib/_imagelib*.so' | head -n 1)
if [ -n "$pkg" ]; then
  PYTHONPATH=$(dirname "$(dirname "$pkg")") /usr/bin/python3 -c \
    'import imagelib, sys; assert len(imagelib.formats()) == 42; print("python package:", imagelib.__file__)'
fi
echo "install check passed: $prefix ($soname)"
