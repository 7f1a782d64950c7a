# Sourced by the install tests: a scratch directory $work, removed on exit,
# and the two ways a step reports.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

step() { echo "== $*"; }
fail() {
    echo "FAIL: $*"
    exit 1
}
