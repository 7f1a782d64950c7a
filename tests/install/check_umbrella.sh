#!/usr/bin/env bash
# Checks that <vlk/vlk.hpp> includes exactly the public headers: every
# include/vlk/<subsystem>/*.hpp outside internal/ folders, and the headers
# the build generates (vlk/version.hpp, under the first include dir), and
# nothing else.
# On a mismatch prints the difference and the include lines the umbrella
# should hold.
#
# Given a compiler, also checks that each public header and the umbrella
# compile alone (-fsyntax-only), and that the umbrella reaches no internal/
# header and none of the system headers of the libraries underneath
# (<pcre.h>, <zlib.h>, <semaphore.h>, <linux/membarrier.h>).
#
# Usage: check_umbrella.sh <include root> [<c++ compiler> <include dir>...]
set -euo pipefail
root=$1
shift
cd "$root"

generated=$([[ $# -gt 1 ]] && cd "$2" && find vlk -name '*.hpp' ! -path '*/internal/*' || true)
headers=$( (find vlk -name '*.hpp' ! -path vlk/vlk.hpp ! -path '*/internal/*' && echo "$generated") |
    sed '/^$/d' | LC_ALL=C sort)
included=$(sed -n 's|^#include <\(vlk/.*\)>$|\1|p' vlk/vlk.hpp | LC_ALL=C sort)

if [[ "$headers" != "$included" ]]; then
    echo "vlk/vlk.hpp does not include exactly the public headers (- missing, + not a header):"
    diff <(echo "$headers") <(echo "$included") | grep '^[<>]' | sed 's/^</-/; s/^>/+/' || true
    echo "Its include lines should read:"
    sed 's|.*|#include <&>|' <<<"$headers"
    exit 1
fi
echo "vlk/vlk.hpp includes all $(wc -l <<<"$headers") public headers"
[[ $# -gt 0 ]] || exit 0

cxx=$1
shift
flags=(-std=c++20 -fsyntax-only -I "$root")
for dir in "$@"; do
    flags+=(-I "$dir")
done
# Each header alone, two at a time; xargs fails if any compile fails.
export cxx
printf '%s\n' vlk/vlk.hpp $headers |
    xargs -P 2 -I {} sh -c 'echo "#include <{}>" | "$cxx" "$@" -x c++ - || { echo "FAIL: {} does not compile alone"; exit 1; }' sh "${flags[@]}"
echo "each public header compiles alone"

reached=$(echo '#include <vlk/vlk.hpp>' | "$cxx" "${flags[@]/-fsyntax-only/-M}" -x c++ - |
    tr ' \\' '\n\n' | grep -E '/vlk/[^ ]*/internal/|/(pcre|zlib|semaphore|linux/membarrier)\.h$' || true)
if [[ -n $reached ]]; then
    echo "FAIL: <vlk/vlk.hpp> reaches:"
    echo "$reached"
    exit 1
fi
echo "<vlk/vlk.hpp> reaches no internal header and no library header underneath"
