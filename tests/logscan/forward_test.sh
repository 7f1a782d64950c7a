#!/usr/bin/env bash
# The forwarding route: vlk-logdemo's syslog target hands records to a site
# rsyslogd, which forwards them over TCP (omfwd) to a central rsyslogd on the
# loopback interface, which writes them to a file in its default format.
# Every record must arrive with its facility, severity and text, and
# vlk-logscan must report the same rows and counts for the central file as
# for the logger's own file target, fed by the same run.
#
# glibc's syslog() always sends to /dev/log: the demo runs in a private mount
# namespace (unshare) whose /dev is a tmpfs of links to the real entries, but
# for "log", which points at the site daemon's socket; the host's /dev is
# never written. Without the rights for that, or without rsyslogd, the test
# is skipped (status 77).
#
# Usage: forward_test.sh <vlk-logscan> <vlk-logdemo>
set -u

scan=$1
demo=$2
skip() {
    echo "SKIP: $*"
    exit 77
}
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
[ -x /usr/sbin/rsyslogd ] || skip "no rsyslogd: run scripts/install-deps.sh"
unshare --mount true 2>/dev/null || skip "no private mount namespace (needs CAP_SYS_ADMIN)"

# Under /tmp: a socket path has at most 107 bytes.
dir=$(mktemp -d /tmp/vlk-forward-XXXXXX) || fail "mktemp"
daemons=()
cleanup() {
    for pid in "${daemons[@]}"; do
        kill "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    rm -rf "$dir"
}
trap cleanup EXIT
mkdir -p "$dir/central" "$dir/site"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

cat >"$dir/central.conf" <<EOF
global(workDirectory="$dir/central")
module(load="imtcp")
template(name="fields" type="string" string="%syslogfacility-text%|%syslogseverity-text%|%msg%\n")
input(type="imtcp" address="127.0.0.1" port="$port" ruleset="velk")
ruleset(name="velk") {
    action(type="omfile" file="$dir/central.log")
    action(type="omfile" file="$dir/fields.log" template="fields")
}
EOF
cat >"$dir/site.conf" <<EOF
global(workDirectory="$dir/site")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="$dir/log.sock" RateLimit.Interval="0")
local0.* action(type="omfwd" target="127.0.0.1" port="$port" protocol="tcp")
EOF

start_daemon() {
    /usr/sbin/rsyslogd -n -f "$dir/$1.conf" -i "$dir/$1.pid" >"$dir/$1.out" 2>&1 &
    daemons+=($!)
}
start_daemon central
for _ in $(seq 100); do
    python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 1)" 2>/dev/null && break
    sleep 0.1
done
start_daemon site
for _ in $(seq 100); do
    [ -S "$dir/log.sock" ] && break
    sleep 0.1
done
[ -S "$dir/log.sock" ] || fail "the site rsyslogd has no socket: $(cat "$dir/site.out")"

cat >"$dir/demo.conf" <<EOF
[site]
Protocol = syslog
Ident = velk
Facility = LOG_LOCAL0
Level = developer
[own]
Protocol = file
Level = developer
FileName = $dir/own.log
EOF
unshare --mount --propagation private bash -c '
    set -e
    mkdir "$1/dev"
    mount --rbind /dev "$1/dev"
    mount -t tmpfs -o mode=0755,nosuid tmpfs /dev
    for entry in "$1"/dev/*; do
        [ "${entry##*/}" = log ] || ln -s "$entry" /dev/
    done
    ln -s "$1/log.sock" /dev/log
    "$2" "$1/demo.conf" --threads 2 --rate 200 --seconds 2 >"$1/demo.out"
' forward "$dir" "$demo" || fail "the demo failed: $(cat "$dir/demo.out")"

records=$(wc -l <"$dir/own.log")
[ "$records" -gt 100 ] || fail "the demo logged only $records records"
for _ in $(seq 200); do
    [ "$(cat "$dir/fields.log" 2>/dev/null | wc -l)" -ge "$records" ] && break
    sleep 0.1
done

# Facility and severity as the target maps each level; the text unchanged.
awk -F'|' '
    BEGIN { split("developer debug trace debug stats info info info warning warning " \
                  "error err critical crit emergency emerg", m, " ")
            for (i = 1; i < 16; i += 2) severity[m[i]] = m[i + 1] }
    { match($3, /\] [a-z]+: /); level = substr($3, RSTART + 2, RLENGTH - 4)
      if ($1 != "local0" || $2 != severity[level]) { print "wrong: " $0; bad = 1 } }
    END { exit bad }' "$dir/fields.log" || fail "facility or severity"
diff <(sort "$dir/own.log") <(cut -d'|' -f3- "$dir/fields.log" | sed 's/^ //' | sort) >"$dir/diff" ||
    fail "texts differ from the logger's own file: $(head -5 "$dir/diff")"

# vlk-logscan sees the same rows and counts in both files.
summary() {
    "$scan" --format json "$1" | python3 -c '
import json, sys
objects = [json.loads(line) for line in sys.stdin]
print(sorted((o["id"], o["count"]) for o in objects if not o.get("summary")))
print([o["records"] for o in objects if o.get("summary")])'
}
[ "$(summary "$dir/own.log")" = "$(summary "$dir/central.log")" ] ||
    fail "counts differ: $(summary "$dir/own.log") against $(summary "$dir/central.log")"
grep -q "velk\[[0-9]*\]: " "$dir/central.log" || fail "the central file has no tag"
echo "PASS: $records records forwarded; $(head -c 100 "$dir/central.log")"
