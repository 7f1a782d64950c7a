#!/usr/bin/env bash
# Prints test lines against code lines and their percentage: non-blank lines
# that are not comments, in the .cpp and .hpp files under tests/ against those
# under src/, include/ and examples/, the catalogue rows table left out (it is
# data, not code).
# Usage: scripts/test_ratio.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# Counts the lines of the named files that hold something besides blanks,
# // comments and /* */ comments.
count_lines() {
    if [[ $# -eq 0 ]]; then
        echo 0
        return
    fi
    # One pass, character by character, so that "//" or "/*" inside a string
    # or raw string literal is not taken for a comment. Block comments and raw
    # strings may span lines; the state carries over.
    awk '
        BEGIN { state = "code" }
        FNR == 1 { state = "code" }
        {
            line = $0
            n = length(line)
            has_code = 0
            i = 1
            if (state == "string" || state == "char") state = "code"
            while (i <= n) {
                c = substr(line, i, 1)
                two = substr(line, i, 2)
                if (state == "block") {
                    if (two == "*/") { state = "code"; i += 2 } else i++
                    continue
                }
                if (state == "raw") {
                    has_code = 1
                    if (substr(line, i, length(raw_end)) == raw_end) {
                        state = "code"
                        i += length(raw_end)
                    } else i++
                    continue
                }
                if (state == "string" || state == "char") {
                    has_code = 1
                    if (c == "\\") i += 2
                    else {
                        if ((state == "string" && c == "\"") || (state == "char" && c == "\047"))
                            state = "code"
                        i++
                    }
                    continue
                }
                if (two == "//") break
                if (two == "/*") { state = "block"; i += 2; continue }
                if (c !~ /[ \t\r]/) has_code = 1
                if (two == "R\"" && match(substr(line, i + 2), /^[^ ()\\\t]*\(/)) {
                    raw_end = ")" substr(line, i + 2, RLENGTH - 1) "\""
                    state = "raw"
                    i += 2 + RLENGTH
                    continue
                }
                if (c == "\"") state = "string"
                else if (c == "\047" && substr(line, i - 1, 1) !~ /[0-9A-Fa-f]/) state = "char"
                i++
            }
            if (has_code) count++
        }
        END { print count + 0 }
    ' "$@"
}

sources() {
    find "$@" -type f \( -name '*.cpp' -o -name '*.hpp' \) \
        ! -path src/catalogue/catalogue_rows.inc | sort
}

mapfile -t test_files < <(sources tests)
mapfile -t code_files < <(sources src include examples)
test_lines=$(count_lines "${test_files[@]}")
code_lines=$(count_lines "${code_files[@]}")
awk -v t="$test_lines" -v c="$code_lines" \
    'BEGIN { printf "test lines %d, code lines %d: %.1f%%\n", t, c, c ? 100 * t / c : 0 }'
