#!/usr/bin/env bash
# Builds the toolkit as a shared library (BUILD_SHARED_LIBS=ON) in a scratch
# tree, installs it, and checks the library's SONAME and links, then that
# velkmsg and the consumer/ program, through find_package(vlk) and through
# pkg-config, load libvlk.so.<soversion> and run.
#
# Usage: shared_test.sh <source dir> <version> <soversion> <golden report of 01-0001>
# CMAKE, CXX and OBJDUMP name the tools.
set -euo pipefail

source=$1
version=$2
soversion=$3
golden=$4
cmake=${CMAKE:-cmake}
cxx=${CXX:-c++}
objdump=${OBJDUMP:-objdump}
here=$(cd "$(dirname "$0")" && pwd)

. "$here/harness.sh"
prefix=$work/prefix

# Succeeds if objdump -p's output on standard input has the dynamic entry
# <tag> libvlk.so.<soversion>.
dynamic_entry() {
    awk -v tag="$1" -v want="libvlk.so.$soversion" '$1 == tag && $2 == want { found = 1 }
        END { exit !found }'
}
# Fails unless <program> names libvlk.so.<soversion> among its needed libraries.
needs_libvlk() {
    "$objdump" -p "$1" | dynamic_entry NEEDED ||
        fail "$1 does not need libvlk.so.$soversion: $("$objdump" -p "$1" | grep NEEDED)"
}

step "build and install a shared library and the programs"
"$cmake" -S "$source" -B "$work/build" -DBUILD_SHARED_LIBS=ON -DVLK_BUILD_TESTS=OFF \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug
"$cmake" --build "$work/build" -j2 --target vlk velkmsg vlk-logscan
"$cmake" --install "$work/build" --prefix "$prefix"

step "libvlk.so.$version, SONAME libvlk.so.$soversion"
libdir=$(dirname "$(find "$prefix" -name "libvlk.so.$version")")
[[ -d $libdir ]] || fail "no libvlk.so.$version installed"
"$objdump" -p "$libdir/libvlk.so.$version" | dynamic_entry SONAME ||
    fail "SONAME is not libvlk.so.$soversion"
[[ $(readlink "$libdir/libvlk.so.$soversion") == "libvlk.so.$version" &&
    $(readlink "$libdir/libvlk.so") == "libvlk.so.$soversion" ]] || fail "links: $(ls -l "$libdir")"
[[ ! -e $libdir/libvlk.a ]] || fail "a static library was installed too"

step "installed velkmsg 01-0001"
needs_libvlk "$prefix/bin/velkmsg"
"$prefix/bin/velkmsg" 01-0001 >"$work/velkmsg.out" || fail "velkmsg exited with $?"
cmp "$golden" "$work/velkmsg.out" || fail "the report differs from $golden"

step "consumer through find_package(vlk)"
"$cmake" -S "$here/consumer" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx"
"$cmake" --build "$work/cmake-consumer"
needs_libvlk "$work/cmake-consumer/vlk_consumer"
"$work/cmake-consumer/vlk_consumer" || fail "CMake consumer exited with $?"

step "consumer through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# Word splitting of pkg-config's output is intended.
# shellcheck disable=SC2046
"$cxx" -std=c++20 -DVLK_EXPECTED_VERSION="\"$version\"" -o "$work/pc-consumer" \
    "$here/consumer/main.cpp" $(pkg-config --cflags --libs vlk)
needs_libvlk "$work/pc-consumer"
LD_LIBRARY_PATH=$libdir "$work/pc-consumer" || fail "pkg-config consumer exited with $?"
