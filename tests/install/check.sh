#!/bin/sh
# Installs the build into a scratch prefix and builds a program with nothing but the
# installed headers and `pkg-config mixerCommon`; then runs it.
# Usage: check.sh <build dir> <source file> [extra compiler flags...]
set -eu
build=$1
src=$2
shift 2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" > /dev/null
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$(gcc -print-multiarch)/pkgconfig"
pkg-config --exists mixerCommon
# shellcheck disable=SC2046
c++ "$@" "$src" -o "$prefix/consumer" $(pkg-config --cflags --libs mixerCommon) -Wl,-rpath,"$(pkg-config --variable=libdir mixerCommon)"
"$prefix/consumer"
