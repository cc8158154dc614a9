#!/bin/bash
# Installs the build into a fresh prefix and builds a program against it twice: through
# pkg-config and through find_package. Both must print the library's version and "ok".
# usage: install-test.sh <build dir> <c++ compiler> <extra compile and link flags> [<emulator>]
# The emulator, when given, runs the built programs (a 32-bit build on a 64-bit-only kernel).
set -euo pipefail
build=$1 cxx=$2 flags=${3:-} runner=${4:-}
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" > "$prefix/install.log"
pc=$(find "$prefix" -name ridge.pc)
[ -n "$pc" ] || { echo "no ridge.pc installed"; exit 1; }
libdir=$(dirname "$(dirname "$pc")")

# shellcheck disable=SC2086
"$cxx" $flags "$here/consumer/main.cpp" -o "$prefix/by-pkg-config" \
    $(PKG_CONFIG_PATH="$(dirname "$pc")" pkg-config --cflags --libs ridge) \
    -Wl,-rpath,"$libdir"
out=$($runner "$prefix/by-pkg-config")
echo "pkg-config: $out"
[[ $out == "ridge "*" ok" ]]

cmake -S "$here/consumer" -B "$prefix/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_BUILD_RPATH="$libdir" > "$prefix/configure.log"
cmake --build "$prefix/consumer-build" > "$prefix/build.log"
out=$($runner "$prefix/consumer-build/consumer")
echo "find_package: $out"
[[ $out == "ridge "*" ok" ]]
