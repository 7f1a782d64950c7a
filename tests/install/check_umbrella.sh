#!/usr/bin/env bash
# Checks that <vlk/vlk.hpp> includes exactly the public headers: every
# vlk/**/*.hpp under the source include root and under the build's, which
# holds the generated ones (vlk/version.hpp), and nothing else. On a mismatch
# prints the difference and the include lines the umbrella should hold.
#
# Usage: check_umbrella.sh <include root> <generated include root>
set -euo pipefail
generated=$(cd "$2" && find vlk -name '*.hpp')
cd "$1"

headers=$( (find vlk -name '*.hpp' ! -path vlk/vlk.hpp && echo "$generated") | LC_ALL=C sort)
included=$(sed -n 's|^#include <\(vlk/.*\)>$|\1|p' vlk/vlk.hpp | LC_ALL=C sort)

if [[ "$headers" != "$included" ]]; then
    echo "vlk/vlk.hpp does not include exactly the public headers (- missing, + not a header):"
    diff <(echo "$headers") <(echo "$included") | grep '^[<>]' | sed 's/^</-/; s/^>/+/' || true
    echo "Its include lines should read:"
    sed 's|.*|#include <&>|' <<<"$headers"
    exit 1
fi
echo "vlk/vlk.hpp includes all $(wc -l <<<"$headers") public headers"
