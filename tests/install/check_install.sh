#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a C99 consumer against it twice: with
# pkg-config exactly as the README shows, and with find_package(kvlcv).
set -euo pipefail
build=$1
here=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" > /dev/null
# The README's recipe: the installed pkgconfig folder on PKG_CONFIG_PATH, plain pkg-config.
pcfile=$(find "$tmp/prefix" -name kvlcv.pc)
export PKG_CONFIG_PATH=$(dirname "$pcfile")
cp "$here/consumer.c" "$tmp/app.c"
(cd "$tmp" && cc -std=c99 app.c $(pkg-config --cflags --libs kvlcv) -o consumer-pc)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir kvlcv)" "$tmp/consumer-pc"
# ...and it names this installation, not another one that the compiler would also find.
[ "$(cd "$(pkg-config --variable=includedir kvlcv)" && pwd -P)" = \
  "$(cd "$tmp/prefix/include" && pwd -P)" ]
# The installed header is clean C99.
cc -std=c99 -Wall -Wextra -pedantic -Werror -fsyntax-only "$tmp/app.c" $(pkg-config --cflags kvlcv)
cmake -S "$here" -B "$tmp/cm" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_BUILD_RPATH="$tmp/prefix/lib" > /dev/null
cmake --build "$tmp/cm" > /dev/null
"$tmp/cm/consumer"
# The installed tool finds the installed library.
"$tmp/prefix/bin/kvlcv" --version | grep -q "8.2.1 (r44077)"
# The library needs nothing of ours beyond libkvlcore.
readelf -d "$tmp/prefix/lib/libkvlcv.so" | grep -q 'SONAME.*libkvlcv.so.8'
# The installed Python package loads the installed library by itself (Debian's python3).
pkg=$(find "$tmp/prefix" -path '*/kvlcv/__init__.py' | head -1)
if [ -n "$pkg" ] && /usr/bin/python3 -c "import numpy" 2> /dev/null; then
  (cd "$tmp" && env -u KVLCV_LIBRARY PYTHONPATH="$(dirname "$(dirname "$pkg")")" /usr/bin/python3 -c "
import os, numpy as np, kvlcv
lib = os.path.realpath(kvlcv.lowlevel.LIBRARY_PATH)
assert lib.startswith(os.path.realpath('$tmp/prefix')), lib
assert kvlcv.pyr_down(np.zeros((4, 4), np.uint8)).shape == (2, 2)")
fi
echo "install: C99 consumer built with pkg-config and find_package; kvlcv runs; Python finds the library"
