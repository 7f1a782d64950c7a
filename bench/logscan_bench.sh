#!/usr/bin/env bash
# vlk-logscan, whole process, against baselines run side by side in the same
# run: `awk '{n[$3]++}'` over the same plain file, and `zcat FILE >/dev/null`
# over the same gzip file. Runs alternate, program by program, and the median
# wall time of each is compared; ratios are ours divided by the baseline's
# (below 1 is faster). Then peak RSS for a 1 MB and a 1 GB input.
#
# Usage: bench/logscan_bench.sh <build dir> [runs (default 7)] [MB (default 400)]
# Writes its files under ${TMPDIR:-/tmp}/vlk-logscan-bench and removes them.
set -euo pipefail

build=$(cd "$1" && pwd)
runs=${2:-7}
megabytes=${3:-400}
scan=$build/bin/vlk-logscan
demo=$build/bin/vlk-logdemo
work=${TMPDIR:-/tmp}/vlk-logscan-bench
rm -rf "$work" && mkdir -p "$work" && cd "$work"
trap 'rm -rf "$work"' EXIT

# Real record lines: one second of the demo, repeated to the size asked.
cat >demo.conf <<EOF
[plain]
Protocol = file
Level = developer
FileName = $work/seed.log
EOF
"$demo" demo.conf --threads 2 --rate 50000 --seconds 2 >/dev/null
seed_size=$(stat -c %s seed.log)
copies=$(( megabytes * 1000000 / seed_size + 1 ))
for _ in $(seq "$copies"); do cat seed.log; done >big.log
gzip -c big.log >big.log.gz
head -c 1000000 big.log >small.log
# (cat ends on a broken pipe once head has its gigabyte)
for _ in $(seq $(( 1000 / megabytes + 1 ))); do cat big.log; done | head -c 1000000000 >huge.log || true

seconds() {
    local start end
    start=$(date +%s%N)
    "$@" >/dev/null
    end=$(date +%s%N)
    echo $(( end - start ))
}

median() {
    sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}

# compare <label> <file> <baseline command...>; the file is appended to both.
compare() {
    local label=$1 file=$2
    shift 2
    local ours="" theirs="" i
    for i in $(seq "$runs"); do
        ours="$ours $(seconds "$scan" "$file")"
        theirs="$theirs $(seconds "$@" "$file")"
    done
    local mine base
    mine=$(echo "$ours" | tr ' ' '\n' | grep . | median)
    base=$(echo "$theirs" | tr ' ' '\n' | grep . | median)
    # Throughput counts the text read, uncompressed.
    awk -v l="$label" -v m="$mine" -v b="$base" -v s="$(stat -c %s big.log)" 'BEGIN {
        printf "%-28s vlk-logscan %7.1f ms (%6.0f MB/s)  baseline %7.1f ms  ratio %.2f\n",
               l, m / 1e6, s / m * 1e3, b / 1e6, m / b }'
}

echo "vlk-logscan benchmark, $(date -u +%Y-%m-%dT%H:%MZ), $runs runs each, load: $(uptime | sed 's/.*load/load/')"
echo "plain $(stat -c %s big.log) bytes, gzip $(stat -c %s big.log.gz) bytes"
compare "plain vs awk '{n[\$3]++}'" big.log awk '{n[$3]++}'
compare "gzip vs zcat >/dev/null" big.log.gz zcat

peak() {
    /usr/bin/time -f %M "$scan" "$1" 2>&1 >/dev/null | tail -1
}
echo "peak RSS: 1 MB input $(peak small.log) KiB, 1 GB input $(peak huge.log) KiB"
