#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs to build and test.
# Does nothing when they are all present; needs root (or sudo) otherwise.
# Usage: scripts/install-deps.sh [--bench]
set -euo pipefail

packages=(build-essential cmake pkg-config libpcre3-dev zlib1g-dev
          libgtest-dev libgmock-dev python3 binutils)
if [[ "${1:-}" == "--bench" ]]; then
  packages+=(libbenchmark-dev libfmt-dev libtbb-dev libcuckoo-dev)
fi

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
