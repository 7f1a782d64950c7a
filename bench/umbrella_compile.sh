#!/usr/bin/env bash
# What `#include <vlk/vlk.hpp>` costs a consumer: compiles a one-line
# program (-fsyntax-only, whole-process time) against each include tree,
# the runs interleaved so that load on the machine falls on all alike, and
# prints each tree's preprocessed line count, median and ratio to the first.
#
# Usage: umbrella_compile.sh <runs> <include dirs of the baseline> [-- <include dirs>]...
#   e.g. umbrella_compile.sh 40 /tmp/main/include /tmp/main/build/include \
#          -- include build/include
# Each tree is one or more include directories (the catalogue table is
# staged apart from the headers); `--` separates the trees.
set -euo pipefail
runs=$1
shift
cxx=${CXX:-c++}

trees=()
current=""
for arg in "$@"; do
    if [[ $arg == -- ]]; then
        trees+=("$current")
        current=""
    else
        current+=" -I $(cd "$arg" && pwd)"
    fi
done
trees+=("$current")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '#include <vlk/vlk.hpp>' >"$work/consumer.cpp"

for ((run = 0; run < runs; ++run)); do
    for i in "${!trees[@]}"; do
        start=$(date +%s%N)
        # shellcheck disable=SC2086
        "$cxx" -std=c++20 -fsyntax-only ${trees[$i]} "$work/consumer.cpp"
        echo $(($(date +%s%N) - start)) >>"$work/times.$i"
    done
done

baseline=""
for i in "${!trees[@]}"; do
    # shellcheck disable=SC2086
    lines=$("$cxx" -std=c++20 -E ${trees[$i]} "$work/consumer.cpp" | wc -l)
    median=$(sort -n "$work/times.$i" | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }')
    baseline=${baseline:-$median}
    awk -v i="$i" -v l="$lines" -v m="$median" -v b="$baseline" 'BEGIN {
        printf "tree %d: %d preprocessed lines, median %.0f ms, ratio %.3f\n", i, l, m / 1e6, m / b }'
done
