#!/usr/bin/env bash
# Uses an installed build as an outside project would: installs <build dir>
# into a scratch prefix, runs the installed velkmsg, builds consumer/ with
# find_package(vlk) and again with pkg-config, and runs both programs. The
# CMake consumer opts in to the toolkit's libc wrappers (vlk::link_wrappers)
# and must link through them, as velkmsg does; the pkg-config one does not,
# and its own calls must stay bound to libc.
#
# Usage: consumer_test.sh <build dir> <config> [flag...]
# The flags go to every compile and link of the consumers (sanitizers).
# CMAKE, CXX and OBJDUMP name the tools; WRAPPED_SYMBOLS lists the libc names
# that the library wraps. PORTABLE=ON says velkmsg was linked to start on
# glibc 2.7, which the installed copy must then do too.
set -euo pipefail

build=$1
config=$2
shift 2
flags="$*"
cmake=${CMAKE:-cmake}
cxx=${CXX:-c++}
here=$(cd "$(dirname "$0")" && pwd)

. "$here/harness.sh"
prefix=$work/prefix

step "install into $prefix"
"$cmake" --install "$build" --prefix "$prefix" ${config:+--config "$config"}

step "installed velkmsg 01-0001"
"$prefix/bin/velkmsg" 01-0001 >"$work/velkmsg.out" || fail "velkmsg 01-0001 exited with $?"
grep -qxF "Found 1 error matching '01-0001'." "$work/velkmsg.out" ||
    fail "velkmsg 01-0001 printed no summary of one row: $(cat "$work/velkmsg.out")"
if [[ ${PORTABLE:-OFF} == ON ]]; then
    step "installed velkmsg starts on glibc 2.7"
    # shellcheck disable=SC2086
    OBJDUMP=${OBJDUMP:-objdump} sh "$here/../system/check_imports.sh" --portable \
        "$prefix/bin/velkmsg" $WRAPPED_SYMBOLS
fi

step "installed vlk-logscan and its man page"
printf '2026-01-02T03:04:05.1234560 [1] info: 01-0001 text\n' | "$prefix/bin/vlk-logscan" |
    grep -q '^VELK Message 01-0001 ' || fail "installed vlk-logscan reports no row"
[[ -f $prefix/share/man/man1/vlk-logscan.1 ]] || fail "no man page for vlk-logscan"

step "installed manual page and version header"
[[ -f $prefix/share/man/man1/velkmsg.1 ]] || fail "no share/man/man1/velkmsg.1"
[[ -f $prefix/include/vlk/version.hpp ]] || fail "no include/vlk/version.hpp"

# The language level reaches CMake consumers as a compile feature (the
# consumer sets no standard of its own), and pkg-config consumers choose it.
step "C++20 is a compile feature, not a flag"
grep -q 'INTERFACE_COMPILE_FEATURES "cxx_std_20"' "$prefix"/lib*/cmake/vlk/vlkTargets.cmake ||
    fail "the exported vlk::vlk does not require cxx_std_20"
pc_dir=$(dirname "$(find "$prefix" -name vlk.pc)")
pc_flags=$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs vlk)
[[ $pc_flags != *-std=* ]] || fail "vlk.pc sets the language level: $pc_flags"

step "consumer through find_package(vlk)"
"$cmake" -S "$here/consumer" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DVLK_CONSUMER_LINK_WRAPPERS=ON -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo
"$cmake" --build "$work/cmake-consumer"
"$work/cmake-consumer/vlk_consumer" || fail "CMake consumer exited with $?"

step "consumer through pkg-config"
pc_version=$(PKG_CONFIG_PATH=$pc_dir pkg-config --modversion vlk)
# Word splitting of the flags and of pkg-config's output is intended.
# shellcheck disable=SC2086
"$cxx" -std=c++20 -O2 -g $flags -DVLK_EXPECTED_VERSION="\"$pc_version\"" \
    -o "$work/pc-consumer" "$here/consumer/main.cpp" $pc_flags
"$work/pc-consumer" || fail "pkg-config consumer exited with $?"

step "the opted-in consumer imports no wrapped libc name"
# shellcheck disable=SC2086
OBJDUMP=${OBJDUMP:-objdump} sh "$here/../system/check_imports.sh" \
    "$work/cmake-consumer/vlk_consumer" $WRAPPED_SYMBOLS

step "the plain consumer has no wrapper"
if nm "$work/pc-consumer" | grep -q ' __wrap_'; then
    fail "the pkg-config consumer was linked with the libc wrappers"
fi
