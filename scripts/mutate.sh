#!/usr/bin/env bash
# Checks that the tests find faults: applies each mutation of
# scripts/mutations.txt on its own to a scratch copy of the source tree
# (build-mutate-src/, brought up to date with the working files first, so the
# working tree is never touched and may be edited meanwhile), rebuilds the
# named targets, runs the named tests with a time limit, and puts the file
# back. A mutation is KILLED when a test fails (or hangs past the limit:
# "KILLED (timeout)"), SURVIVED when every test passes.
#
# Build trees: build-mutate/ (plain) and build-mutate-tsan/ (ThreadSanitizer,
# for mutations with "flavour: tsan"), both incremental and compiled through
# ccache in build-mutate-ccache/, so that putting a file back costs a cache
# hit. Warnings are not errors there: a mutation may well warn.
#
# Before the first mutation the named tests run once unmutated; they must
# pass, or every mutation would look killed. A mutation whose find text does
# not occur exactly once in its file, or that does not compile, stops the run.
# The copy is restored on every exit, Ctrl-C included.
#
# Usage: scripts/mutate.sh [--no-baseline] [--revision <commit>] [name...]
#   --revision  mutate that commit's files instead of the working files
#   name        run only these mutations (default: all)
# Environment: MUTATE_TIMEOUT, seconds per mutation's test run (default 600).
# Needs scripts/install-deps.sh --mutate. Exit status 1 when one survived.
set -euo pipefail
cd "$(dirname "$0")/.."

list=scripts/mutations.txt
timeout_seconds=${MUTATE_TIMEOUT:-600}
baseline=1
revision=""
while [[ ${1:-} == --* ]]; do
    case $1 in
        --no-baseline) baseline=0; shift ;;
        --revision) revision=$2; shift 2 ;;
        *) echo "unknown option $1" >&2; exit 2 ;;
    esac
done
root=$PWD
source_copy=$root/build-mutate-src
export CCACHE_DIR=$root/build-mutate-ccache

# The mutations, as parallel arrays indexed by position in the list. Each is
# a block of "key: value" lines; "find+:" and "replace+:" continue the value
# on a new line, so that a mutation may span lines.
names=() whats=() files=() finds=() replaces=() builds=() tests=() flavours=()
add_field() {
    local i=$((${#names[@]} - 1)) key=$1 value=$2
    case $key in
        what) whats[i]=$value ;;
        file) files[i]=$value ;;
        find) finds[i]=$value ;;
        find+) finds[i]+=$'\n'$value ;;
        replace) replaces[i]=$value ;;
        replace+) replaces[i]+=$'\n'$value ;;
        build) builds[i]=$value ;;
        tests) tests[i]=$value ;;
        flavour) flavours[i]=$value ;;
        *) echo "$list: unknown key '$key' in ${names[i]}" >&2; exit 2 ;;
    esac
}
while IFS= read -r line || [[ -n $line ]]; do
    [[ -z $line || $line == \#* ]] && continue
    key=${line%%:*}
    value=${line#*:}
    value=${value# }
    if [[ $key == name ]]; then
        names+=("$value")
        whats+=("") files+=("") finds+=("") replaces+=("") builds+=("") tests+=("")
        flavours+=(plain)
    elif [[ ${#names[@]} -eq 0 ]]; then
        echo "$list: '$key' before the first name" >&2
        exit 2
    else
        add_field "$key" "$value"
    fi
done <"$list"

selected=()
if [[ $# -eq 0 ]]; then
    selected=("${!names[@]}")
else
    for wanted in "$@"; do
        found=""
        for i in "${!names[@]}"; do
            [[ ${names[i]} == "$wanted" ]] && found=$i
        done
        [[ -n $found ]] || { echo "no mutation named $wanted" >&2; exit 2; }
        selected+=("$found")
    done
fi
for i in "${selected[@]}"; do
    for field in files finds builds tests; do
        declare -n column=$field
        [[ -n ${column[i]} ]] || { echo "${names[i]}: no ${field%s}" >&2; exit 2; }
    done
    [[ ${flavours[i]} == plain || ${flavours[i]} == tsan ]] ||
        { echo "${names[i]}: flavour is plain or tsan" >&2; exit 2; }
done

tree() { [[ $1 == tsan ]] && echo "$root/build-mutate-tsan" || echo "$root/build-mutate"; }

# Brings the copy to the working files (tracked, or new and not ignored), or
# to those of --revision: a changed file is copied with a new time, so that
# make rebuilds from it; a file that is gone is removed.
sync_copy() {
    local from=. names file
    names=$(mktemp)
    if [[ -n $revision ]]; then
        from=$(mktemp -d)
        git archive "$revision" | tar -x -C "$from"
        (cd "$from" && find . -type f -printf '%P\n') | sort >"$names"
    else
        git ls-files -co --exclude-standard | sort >"$names"
    fi
    mkdir -p "$source_copy"
    while IFS= read -r file; do
        [[ -f $from/$file ]] || continue
        if ! cmp -s "$from/$file" "$source_copy/$file"; then
            mkdir -p "$(dirname "$source_copy/$file")"
            cp "$from/$file" "$source_copy/$file"
        fi
    done <"$names"
    (cd "$source_copy" && find . -type f -printf '%P\n' | sort) |
        comm -23 - "$names" | while IFS= read -r file; do
            rm -f "$source_copy/$file"
        done
    rm -f "$names"
    [[ $from == . ]] || rm -rf "$from"
}

# Configures a tree once per run.
configured=" "
configure() {
    local dir sanitize=""
    [[ $configured == *" $1 "* ]] && return
    dir=$(tree "$1")
    [[ $1 == tsan ]] && sanitize=thread
    cmake -S "$source_copy" -B "$dir" -DVLK_BUILD_TESTS=ON -DVLK_BUILD_BENCH=OFF -DVLK_WERROR=OFF \
        -DVLK_SANITIZE=$sanitize -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
    configured+="$1 "
}

# Builds the targets of mutation $1 and runs its tests; the status is
# ctest's, 124 when the time limit ran out. The log goes to $2.
build_and_test() {
    local i=$1 log=$2 dir
    dir=$(tree "${flavours[i]}")
    # shellcheck disable=SC2086  # the target list splits on blanks
    if ! cmake --build "$dir" -j2 --target ${builds[i]} >"$log" 2>&1; then
        return 200
    fi
    TSAN_OPTIONS=halt_on_error=1 timeout "$timeout_seconds" \
        ctest --test-dir "$dir" -j2 --stop-on-failure --no-tests=error -R "${tests[i]}" \
        >>"$log" 2>&1
}

backup=""
target_file=""
restore() {
    if [[ -n $backup ]]; then
        cp "$backup" "$target_file"
        rm -f "$backup"
        backup=""
    fi
}
trap restore EXIT
trap 'restore; exit 130' INT TERM

mkdir -p "$root/build-mutate-logs"
sync_copy

if [[ $baseline -eq 1 ]]; then
    for flavour in plain tsan; do
        targets="" patterns=()
        for i in "${selected[@]}"; do
            [[ ${flavours[i]} == "$flavour" ]] || continue
            targets+=" ${builds[i]}"
            [[ " ${patterns[*]} " == *" ${tests[i]} "* ]] || patterns+=("${tests[i]}")
        done
        [[ -z $targets ]] && continue
        configure "$flavour"
        dir=$(tree "$flavour")
        log=$root/build-mutate-logs/baseline-$flavour.log
        start=$SECONDS
        # shellcheck disable=SC2086  # the target list splits on blanks
        cmake --build "$dir" -j2 --target $targets >"$log" 2>&1 ||
            { echo "the unmutated tree does not build ($flavour); see $log" >&2; exit 2; }
        # One run per pattern: CMake's expressions allow few groups, so the
        # patterns are not joined into one.
        for pattern in "${patterns[@]}"; do
            TSAN_OPTIONS=halt_on_error=1 timeout "$timeout_seconds" \
                ctest --test-dir "$dir" -j2 --no-tests=error -R "$pattern" >>"$log" 2>&1 ||
                { echo "$pattern fails without any mutation ($flavour); see $log" >&2; exit 2; }
        done
        echo "baseline $flavour: the tests pass unmutated ($((SECONDS - start)) s)"
    done
fi

killed=0
survived=()
for i in "${selected[@]}"; do
    configure "${flavours[i]}"
    file=$source_copy/${files[i]}
    log=$root/build-mutate-logs/${names[i]}.log
    target_file=$file
    backup=$(mktemp)
    cp "$file" "$backup"
    if ! FIND=${finds[i]} REPLACE=${replaces[i]} python3 -c '
import os, sys
path, find, replace = sys.argv[1], os.environ["FIND"], os.environ["REPLACE"]
text = open(path).read()
count = text.count(find)
if count != 1:
    sys.exit(f"{path}: the find text occurs {count} times, not once")
open(path, "w").write(text.replace(find, replace))
' "$file"; then
        echo "${names[i]}: stale mutation, stopping" >&2
        exit 2
    fi
    start=$SECONDS
    status=0
    build_and_test "$i" "$log" || status=$?
    restore
    seconds=$((SECONDS - start))
    if [[ $status -eq 200 ]]; then
        echo "${names[i]}: does not compile (see $log), stopping" >&2
        exit 2
    elif [[ $status -eq 0 ]]; then
        result=SURVIVED
        survived+=("${names[i]}")
    elif [[ $status -eq 124 ]] || grep -q '\*\*\*Timeout' "$log"; then
        result="KILLED (timeout)"
        killed=$((killed + 1))
    else
        result=KILLED
        killed=$((killed + 1))
    fi
    printf '%-18s %-36s %4d s  %s\n' "$result" "${names[i]}" "$seconds" "${whats[i]}"
done

echo "killed $killed of ${#selected[@]}"
if [[ ${#survived[@]} -gt 0 ]]; then
    echo "survived: ${survived[*]}"
    exit 1
fi
