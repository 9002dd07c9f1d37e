#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a C99 consumer against it twice: with
# pkg-config and with find_package(kvlcv).
set -euo pipefail
build=$1
here=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" > /dev/null
export PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig"
cc -std=c99 -Wall -Wextra -pedantic -Werror "$here/consumer.c" -o "$tmp/consumer-pc" \
  $(pkg-config --define-variable=prefix="$tmp/prefix" --cflags --libs kvlcv) -Wl,-rpath,"$tmp/prefix/lib"
"$tmp/consumer-pc"
cmake -S "$here" -B "$tmp/cm" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_BUILD_RPATH="$tmp/prefix/lib" > /dev/null
cmake --build "$tmp/cm" > /dev/null
"$tmp/cm/consumer"
# The installed tool finds the installed library.
"$tmp/prefix/bin/kvlcv" --version | grep -q "8.2.1 (r44077)"
# The library needs nothing of ours beyond libkvlcore.
readelf -d "$tmp/prefix/lib/libkvlcv.so" | grep -q 'SONAME.*libkvlcv.so.8'
echo "install: C99 consumer built with pkg-config and find_package; kvlcv runs"
