#!/usr/bin/env bash
# Uses an installed build as an outside project would: installs <build dir>
# into a scratch prefix, runs the installed velkmsg, builds consumer/ with
# find_package(vlk) and again with pkg-config, and runs both programs. Each
# consumer must link through the toolkit's libc wrappers, as velkmsg does.
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

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

step() { echo "== $*"; }
fail() {
    echo "FAIL: $*"
    exit 1
}

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

step "consumer through find_package(vlk)"
"$cmake" -S "$here/consumer" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_BUILD_TYPE=RelWithDebInfo
"$cmake" --build "$work/cmake-consumer"
"$work/cmake-consumer/vlk_consumer" || fail "CMake consumer exited with $?"

step "consumer through pkg-config"
pc_dir=$(dirname "$(find "$prefix" -name vlk.pc)")
# Word splitting of the flags and of pkg-config's output is intended.
# shellcheck disable=SC2046,SC2086
"$cxx" -std=c++20 -O2 -g $flags -o "$work/pc-consumer" "$here/consumer/main.cpp" \
    $(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs vlk)
"$work/pc-consumer" || fail "pkg-config consumer exited with $?"

step "no wrapped libc name is imported"
for program in "$work/cmake-consumer/vlk_consumer" "$work/pc-consumer"; do
    # shellcheck disable=SC2086
    OBJDUMP=${OBJDUMP:-objdump} sh "$here/../system/check_imports.sh" "$program" $WRAPPED_SYMBOLS
done
