#!/usr/bin/env bash
# Drives vlk-logdemo as an operator would and checks what it prints.
#
# Usage: logdemo_test.sh <case> <path of vlk-logdemo> <scratch directory>
#   records   a timed run: record lines on standard output, then a report
#             whose counts and byte total agree with those lines
#   signals   SIGHUP rotates, SIGTERM stops with status 0 and the report
#   refusals  bad arguments and malformed configurations are refused, with
#             the line number of the fault
#   strict    configuration problems are warnings, and refusals with --strict
#   stalled   SIGTERM ends the program within 5 s though its standard output
#             is a pipe that nobody reads, saying how much was still queued
set -u

test_case=$1
demo=$2
scratch=$3/logdemo-$1
rm -rf "$scratch" && mkdir -p "$scratch" && cd "$scratch" || exit 1

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# A record line: timestamp, "[log id]", level, identifier, body.
prefix='^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.+-]+ \[[0-9]+\] '
record="${prefix}[a-z]+: [0-9A-F]{2}-[0-9]{4} "

cat >stdout.conf <<'EOF'
# Warnings and worse on standard output.
[console]
Protocol = stdout
Level = warning
EOF

# The report's count of records logged at one level, 0 if it lists none.
reported() {
    awk -v level="$2" '$1 == level && NF == 2 { print $2; found = 1 } END { if (!found) print 0 }' \
        "$1"
}

# Every record line on standard output is one the target accepted, and the
# report accounts for exactly those lines: per level and in bytes.
check_report() {
    local out=$1
    grep -q '^vlk-logdemo report$' "$out" || fail "no report in $out"
    grep -q '^target \[console\] stdout$' "$out" || fail "stdout target not reported"
    grep -Eq '^  levels +warning,error,critical,emergency$' "$out" || fail "levels not reported"
    local lines
    lines=$(grep -cE "$record" "$out")
    [ "$lines" -gt 0 ] || fail "no record lines"
    local level
    for level in developer stats info; do
        ! grep -Eq "${prefix}$level: " "$out" || fail "a $level record passed a warning target"
    done
    local expected=0 count
    for level in warning error critical; do
        count=$(grep -cE "${prefix}$level: " "$out")
        [ "$count" -eq "$(reported "$out" "$level")" ] ||
            fail "$count $level lines, report says $(reported "$out" "$level")"
        expected=$((expected + count))
    done
    [ "$expected" -eq "$lines" ] || fail "$lines record lines, $expected at the reported levels"
    local bytes
    bytes=$(grep -E "$record" "$out" | wc -c)
    grep -Eq "^  bytes written +$bytes\$" "$out" || fail "bytes written is not $bytes"
}

# Waits up to $2 seconds for the extended expression $3 in file $1.
await() {
    local deadline=$((SECONDS + $2))
    until grep -Eq "$3" "$1" 2>/dev/null; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.1
    done
}

case $test_case in
records)
    # Beside the stdout target: one on standard error that takes a single
    # row by name, and a section whose protocol does not exist.
    cat stdout.conf - >two.conf <<'EOF'

[errors]
Protocol = stderr
IncludeErrors = 00-0025

[nowhere]
Protocol = ftp
Level = info
EOF
    "$demo" two.conf --threads 2 --rate 500 --seconds 1 >out 2>err
    status=$?
    [ "$status" -eq 0 ] || fail "status $status: $(cat err)"
    grep -Eq '^  stopped by +the time limit' out || fail "not stopped by the time limit"
    check_report out

    grep -q '\[nowhere\] (line 10): protocol "ftp" is not available' err ||
        fail "the section without a target was not named: $(cat err)"
    grep -q '^target \[errors\] stderr$' out || fail "stderr target not reported"
    grep -Eq '^  include errors +00-0025$' out || fail "include errors not reported"
    stderr_lines=$(grep -cE "$record" err)
    [ "$stderr_lines" -gt 0 ] || fail "no record on standard error"
    [ "$(grep -cE "${prefix}error: 00-0025 " err)" -eq "$stderr_lines" ] ||
        fail "standard error took rows it did not name"
    bytes=$(grep -E "$record" err | wc -c)
    [ "$(grep -Ec "^  bytes written +$bytes\$" out)" -eq 1 ] ||
        fail "stderr target's bytes written is not $bytes"
    ;;
signals)
    "$demo" stdout.conf --threads 2 --rate 200 --seconds 0 >out 2>err &
    pid=$!
    trap 'kill -KILL $pid 2>/dev/null' EXIT
    # The host probe may take seconds before the first record.
    await out 60 "$record" || fail "no record line within 60 s"
    kill -HUP $pid
    await err 30 'SIGHUP: the targets have rotated' || fail "SIGHUP not served"
    kill -TERM $pid
    wait $pid
    status=$?
    trap - EXIT
    [ "$status" -eq 0 ] || fail "status $status after SIGTERM: $(cat err)"
    grep -Eq '^  stopped by +SIGTERM' out || fail "not stopped by SIGTERM"
    grep -Eq '^  rotations asked +1$' out || fail "rotation not counted"
    check_report out
    ;;
refusals)
    # Configuration text, then the line the complaint must name.
    configs=(
        '[console]\nProtocol = stdout\nno equals sign here\n' 3
        '# comment\nProtocol = stdout\n[console]\n' 2
        '[a]\nProtocol = stdout\n\n[a]\n' 4
        '[a]\nLevel = info\nLevel = error\n' 3
        '[a\nProtocol = stdout\n' 1
        '[ ]\n' 1
        '[a]\nmy key = value\n' 2
    )
    for ((i = 0; i < ${#configs[@]}; i += 2)); do
        printf '%b' "${configs[i]}" >bad.conf
        "$demo" bad.conf >out 2>err
        status=$?
        [ "$status" -eq 1 ] || fail "status $status for '${configs[i]}'"
        grep -q "bad.conf:${configs[i + 1]}: " err || fail "no line ${configs[i + 1]}: $(cat err)"
    done
    printf '# nothing but a comment\n' >empty.conf
    "$demo" empty.conf >out 2>err && fail "a file without sections was accepted"
    grep -q 'no "\[name\]" section' err || fail "empty file: $(cat err)"
    "$demo" missing.conf >out 2>err && fail "a missing file was accepted"
    grep -q 'cannot read missing.conf' err || fail "missing file: $(cat err)"

    for arguments in "" "--threads 0 stdout.conf" "stdout.conf --rate fast" \
        "stdout.conf --seconds" "stdout.conf other.conf" "--verbose stdout.conf"; do
        # shellcheck disable=SC2086 # the words are the arguments
        "$demo" $arguments >out 2>err
        status=$?
        [ "$status" -eq 2 ] || fail "status $status for arguments '$arguments'"
        grep -q '^usage: vlk-logdemo <config file>' err || fail "no usage for '$arguments'"
    done
    ;;
strict)
    printf '%s\n' '[a]' 'Protocol = file' 'FileName = a.log' 'RotationThreshold = 5XB' \
        'Level = loud' 'Levle = info' 'FatalErrors = 0[' >warned.conf
    "$demo" warned.conf --strict --seconds 1 >out 2>err
    status=$?
    [ "$status" -eq 1 ] || fail "status $status with --strict"
    grep -q 'not starting with 4 problems' err || fail "--strict did not refuse: $(cat err)"
    [ ! -e a.log ] || fail "--strict made a target"
    "$demo" warned.conf --seconds 1 >out 2>err || fail "status $? without --strict"
    for key in RotationThreshold Level Levle FatalErrors; do
        grep -q "^vlk-logdemo: warning: \[a\] (line 1): \"$key\"" err || fail "no $key: $(cat err)"
    done
    ;;
stalled)
    printf '%s\n' '[console]' 'Protocol = stdout' 'Level = info' '[file]' 'Protocol = file' \
        'Level = info' 'FileName = file.log' >stalled.conf
    mkfifo stalled && exec 3<>stalled # held open, never read: writes stop when it is full
    "$demo" stalled.conf --threads 2 --rate 5000 --seconds 0 >stalled 2>err &
    pid=$!
    trap 'kill -KILL $pid 2>/dev/null' EXIT
    await file.log 60 "$record" || fail "no record line within 60 s"
    sleep 0.5
    kill -TERM $pid
    start=$(date +%s%N)
    wait $pid
    status=$?
    elapsed=$((($(date +%s%N) - start) / 1000000))
    trap - EXIT
    [ "$elapsed" -lt 5000 ] || fail "ended ${elapsed} ms after SIGTERM"
    [ "$status" -eq 3 ] || fail "status $status: $(cat err)"
    grep -Eq '^vlk-logdemo: SIGTERM: .* [0-9]+ records were still queued' err ||
        fail "queued records not told: $(cat err)"
    ;;
*)
    fail "unknown case $test_case"
    ;;
esac
echo "PASS: $test_case"
