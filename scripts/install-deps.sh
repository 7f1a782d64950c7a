#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs to build and test.
# Does nothing when they are all present; needs root (or sudo) otherwise.
# Usage: scripts/install-deps.sh [--bench] [--fuzz] [--mutate]
#   --bench  Google Benchmark, fmt and the baseline libraries, for bench/;
#            time, whose peak RSS logscan_bench.sh reads
#   --fuzz   clang with libFuzzer, for fuzz/ (scripts/fuzz.sh)
#   --mutate ccache, so that scripts/mutate.sh recompiles a restored file
#            from its cache
set -euo pipefail

# tzdata: the timestamp tests format local time in named zones.
# rsyslog: the syslog target's test delivers to a daemon of its own.
# groff-base: the manual page is rendered with warnings on in a test.
packages=(build-essential cmake pkg-config libpcre3-dev zlib1g-dev
          libgtest-dev libgmock-dev python3 binutils tzdata rsyslog groff-base)
for group in "$@"; do
  case "$group" in
    --bench) packages+=(libbenchmark-dev libfmt-dev libconcurrentqueue-dev
                         libxenium-dev libtbb-dev libcuckoo-dev
                         libjemalloc-dev libmimalloc-dev libspdlog-dev time) ;;
    --fuzz) packages+=(clang libclang-rt-14-dev) ;;
    --mutate) packages+=(ccache) ;;
    *) echo "usage: scripts/install-deps.sh [--bench] [--fuzz] [--mutate]" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
