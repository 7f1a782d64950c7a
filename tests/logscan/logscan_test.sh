#!/usr/bin/env bash
# Drives vlk-logscan over files that vlk-logdemo writes with the logger's own
# file and gzip targets, and checks what it reports against what was logged.
#
# Usage: logscan_test.sh <case> <vlk-logscan> <vlk-logdemo> <scratch directory>
#   counts   rotated plain and gzip sets: counts per level equal the demo's
#            report; filters, standard input, syslog prefixes, JSON validity,
#            row texts exactly as velkmsg prints them
#   damaged  a writer killed with SIGKILL, cut lines, garbage, 3 MB lines,
#            unknown identifiers, missing files, no records
#   usage    exit status 2 for bad options, 0 for --help and --version
#   follow   --follow over a rotating set while it is written
set -u

test_case=$1
scan=$2
demo=$3
scratch=$4/logscan-$1
velkmsg=$(dirname "$scan")/velkmsg
rm -rf "$scratch" && mkdir -p "$scratch" && cd "$scratch" || exit 1

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# demo.conf <file level> <file threshold> <gzip threshold>
write_config() {
    cat >demo.conf <<EOF
[plain]
Protocol = file
Level = developer
FileName = $scratch/plain/demo-%n.log
RotationThreshold = $1
[compressed]
Protocol = gzip
Level = developer
FileName = $scratch/gz/demo-%n.log.gz
RotationThreshold = $2
EOF
}

# json <JSON Lines file> <python expression over `objects`, `rows` and `summary`>
json() {
    python3 -c '
import json, sys
objects = [json.loads(line) for line in open(sys.argv[1])]
summary = [o for o in objects if o.get("summary")][0]
rows = [o for o in objects if not o.get("summary")]
print(eval(sys.argv[2]))' "$1" "$2"
}

# The demo's own count of records at one level, 0 if it lists none.
logged() {
    awk -v level="$1" '$1 == level && NF == 2 { n = $2 } END { print n + 0 }' report.txt
}

# Records per level, without the logger's own thread enlistment (00-0027),
# which the demo does not count as its records.
per_level() {
    json "$1" '" ".join(str(sum(r["count"] for r in rows if r["level"] == l and r["id"] != "00-0027"))
        for l in ["developer", "stats", "info", "warning", "error", "critical"])'
}

# Waits up to 10 s for the demo (whose start probes the host) to write its
# first plain file, then `$1` seconds more.
await_writer() {
    for _ in $(seq 100); do
        [ -n "$(ls plain 2>/dev/null)" ] && break
        sleep 0.1
    done
    sleep "$1"
}

case $test_case in
counts)
    write_config 20K 8K
    "$demo" demo.conf --threads 2 --rate 300 --seconds 2 >report.txt || fail "vlk-logdemo failed"
    expected=""
    for level in developer stats info warning error critical; do
        expected="$expected $(logged $level)"
    done
    [ "$(ls plain | wc -l)" -gt 1 ] && [ "$(ls gz | wc -l)" -gt 1 ] || fail "no rotated set"
    total=$(cat plain/* | wc -l)
    for set in plain gz; do
        "$scan" --format json $set >$set.json || fail "status $? for $set"
        python3 -m json.tool --json-lines $set.json >/dev/null || fail "$set: invalid JSON"
        [ " $(per_level $set.json)" = "$expected" ] ||
            fail "$set: per level $(per_level $set.json), logged$expected"
        [ "$(json $set.json 'sum(r["count"] for r in rows if r["id"] == "00-0027")')" = 2 ] ||
            fail "$set: not one enlistment per thread"
        [ "$(json $set.json 'summary["records"], summary["other_lines"], summary["files"]')" = \
          "($total, 0, $(ls $set | wc -l))" ] || fail "$set: summary $(tail -1 $set.json)"
    done
    # The same records from standard input (the gzip files joined: one
    # stream of many members) and behind syslog prefixes.
    cat plain/* | "$scan" --format json >stdin.json
    cat gz/* | "$scan" --format json >members.json
    sed 's/^/Nov 22 12:00:01 host demo[42]: /' plain/* | "$scan" --format json - >syslog.json
    for form in stdin members syslog; do
        [ "$(json $form.json 'summary["records"]')" = "$total" ] || fail "$form: wrong count"
    done
    # Filters: level, a folded pattern, a time bound, against counts by grep.
    "$scan" --level warning --format json plain >warning.json
    [ "$(json warning.json 'summary["records"]')" = \
      "$(cat plain/* | grep -cE '\] (warning|error|critical|emergency): ')" ] ||
        fail "--level warning"
    "$scan" --match '1a-0003' --format json gz >match.json
    [ "$(json match.json '[r["id"] for r in rows]')" = "['1A-0003']" ] &&
        [ "$(json match.json 'summary["records"]')" = "$(cat plain/* | grep -c ' 1A-0003 ')" ] ||
        fail "--match 1a-0003"
    middle=$(cat plain/* | sort | sed -n "$((total / 2))p" | cut -c1-23)
    "$scan" --since "$middle" --format json plain >since.json
    [ "$(json since.json 'summary["records"]')" = \
      "$(cat plain/* | awk -v t="$middle" 'substr($1, 1, 23) >= t' | wc -l)" ] ||
        fail "--since $middle"
    # Text: each block carries velkmsg's report of the row word for word.
    "$scan" plain >text.txt || fail "text status"
    grep -q "^    RECORDS     : $total selected of $total record lines$" text.txt ||
        fail "text summary"
    "$velkmsg" 00-0025 | head -5 >velkmsg.txt
    grep -A4 '^VELK Message 00-0025 ' text.txt | diff velkmsg.txt - || fail "row text differs"
    ;;
damaged)
    write_config 1G 1G
    "$demo" demo.conf --threads 2 --rate 5000 --seconds 0 >/dev/null &
    writer=$!
    await_writer 1
    kill -KILL $writer
    wait $writer 2>/dev/null
    log=$(ls plain/*) && gz=$(ls gz/*) || fail "no files"
    # The killed gzip writer left a stream without its end: named, not fatal.
    "$scan" --format json "$gz" >gz.json 2>gz.err || fail "status $? for $gz"
    grep -q "$gz: truncated gzip data" gz.err || fail "no word of the truncated file"
    complete=$(zcat "$gz" 2>/dev/null | wc -l)
    [ "$complete" -gt 0 ] || fail "nothing in $gz"
    [ "$(json gz.json 'summary["records"]')" = "$complete" ] || fail "gzip: records"
    # A cut last line, binary garbage and a 3 MB line (longer than the read
    # buffer: its head is one other line, the rest is dropped, and the next
    # line comes whole) are other lines; an unknown identifier is a row of
    # its own. Once ended by a line feed, the cut line is a record with a
    # shorter body.
    head -c -5 "$log" >cut.log
    {
        cat cut.log && echo
        head -c 100000 /dev/urandom | tr -d '\n'
        echo && head -c 3000000 /dev/zero | tr '\0' x && echo
        echo "2026-01-02T03:04:05.1234560 [1] critical: 7F-0001 not catalogued"
    } >mixed.log
    "$scan" --format json cut.log >cut.json
    [ "$(json cut.json 'summary["records"], summary["other_lines"]')" = \
      "($(wc -l <cut.log), 1)" ] || fail "cut line: $(tail -1 cut.json)"
    "$scan" --format json mixed.log missing.log >mixed.json 2>mixed.err || fail "mixed status"
    grep -q "missing.log: No such file" mixed.err || fail "missing file not named"
    [ "$(json mixed.json 'summary["records"], summary["other_lines"]')" = \
      "($(($(wc -l <cut.log) + 2)), 2)" ] || fail "mixed: $(tail -1 mixed.json)"
    [ "$(json mixed.json '[(r["known"], r["count"]) for r in rows if r["id"] == "7F-0001"]')" = \
      "[(False, 1)]" ] || fail "unknown identifier"
    "$scan" plain >/dev/null || fail "status $? for the killed writer's plain file"
    : >empty.log
    "$scan" empty.log >/dev/null
    [ $? = 1 ] || fail "no records: status 1"
    ;;
usage)
    for bad in "--level debug" "--level" "--match (" "--since yesterday" "--format xml" \
               "--bogus" "--follow -"; do
        "$scan" $bad </dev/null >/dev/null 2>err.txt
        [ $? = 2 ] || fail "$bad: status not 2"
        grep -q "Try 'vlk-logscan --help'" err.txt || fail "$bad: no hint"
    done
    "$scan" --help | grep -q '^usage: vlk-logscan' || fail "--help"
    "$scan" --version | grep -q '^vlk-logscan [0-9]' || fail "--version"
    ;;
follow)
    write_config 4K 1G
    "$demo" demo.conf --threads 1 --rate 200 --seconds 0 >/dev/null &
    writer=$!
    await_writer 0.5
    "$scan" --follow plain >follow.txt &
    follower=$!
    "$scan" --follow --format json plain >follow.json &
    json_follower=$!
    sleep 2
    kill -TERM $writer && wait $writer
    sleep 1
    kill -INT $follower $json_follower
    wait $follower || fail "status $? after SIGINT"
    wait $json_follower || fail "JSON: status $? after SIGINT"
    [ "$(ls plain | wc -l)" -gt 2 ] || fail "no rotation while following"
    total=$(cat plain/* | wc -l)
    grep -q "^    RECORDS     : $total selected of $total record lines$" follow.txt ||
        fail "follow summary: $(grep RECORDS follow.txt), $total lines written"
    [ "$(grep -c '^    DESCRIPTION' follow.txt)" -gt 100 ] || fail "records not printed as they came"
    # In JSON: the rows read at the start, then one object per new record.
    python3 -m json.tool --json-lines follow.json >/dev/null || fail "follow: invalid JSON"
    [ "$(json follow.json 'sum(o.get("count", 1) for o in objects if not o.get("summary"))')" = \
      "$total" ] || fail "follow: JSON rows and records do not add up to $total"
    ;;
*)
    fail "unknown case $test_case"
    ;;
esac
echo "PASS: $test_case"
