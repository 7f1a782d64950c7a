#!/usr/bin/env bash
# Checks that the toolkit's includes point down its layers: a header or
# source of layer L (include/vlk/L/, src/L/) includes <vlk/M/...> only for a
# layer M listed no later than L; and nothing outside area M, tests and the
# tools included, names a header under vlk/M/internal/. The umbrella
# <vlk/vlk.hpp> and the tools (src/velkmsg, examples) may include any
# public header. Prints every offending line.
#
# Usage: check_includes.sh <source root> <layer>...   (bottom layer first)
set -euo pipefail
cd "$1"
shift

declare -A rank=()
top=0
for layer in "$@"; do
    rank[$layer]=$((top++))
done

status=0
while IFS=: read -r file line text; do
    included=${text#*<vlk/}
    target=${included%%/*}
    area=$(awk -F/ '$1 == "include" { print $3; next } { print $2 }' <<<"$file")
    [[ $file == include/vlk/vlk.hpp ]] && area=umbrella
    problem=
    if [[ $included == */internal/* && $target != "$area" ]]; then
        problem="includes another area's internal header"
    elif [[ $file != tests/* && -z ${rank[$target]+set} ]]; then
        problem="includes an unknown area"
    elif [[ $file != tests/* && ${rank[$target]} -gt ${rank[$area]:-$top} ]]; then
        problem="includes the higher layer $target"
    fi
    if [[ -n $problem ]]; then
        echo "$file:$line: $problem: $text"
        status=1
    fi
done < <(grep -rnE '^#[[:space:]]*include[[:space:]]*<vlk/[^/>]+/' include src examples tests)

if [[ $status -eq 0 ]]; then
    echo "every include points down the layers: $*"
fi
exit $status
