#!/usr/bin/env bash
# Installs the packages that are missing, then configures and builds build/
# (RelWithDebInfo). The program ends up as build/bin/velkmsg.
# Usage: scripts/build.sh [cmake option...]    e.g. -DVLK_BUILD_TESTS=OFF
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build "$@"
cmake --build build -j2
