#!/usr/bin/env bash
# Builds the libFuzzer targets, every fuzz/<target>.cpp, into build-fuzz/ with
# clang, AddressSanitizer and UBSan, and runs each one for a fixed time from a
# scratch copy of its seeds in fuzz/corpus/<target>/, so that the repository
# is not written to. A target that crashes, leaks or fails one of its checks
# leaves the input in build-fuzz/artifacts/<target>/ and makes the status
# non-zero, after the other targets have run. Needs scripts/install-deps.sh
# --fuzz (clang, libclang-rt-14-dev).
# Usage: scripts/fuzz.sh [seconds per target, default 20]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
if [[ ! $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: scripts/fuzz.sh [seconds per target]" >&2
    exit 2
fi

CXX=clang++ cmake -S . -B build-fuzz -DVLK_BUILD_FUZZ=ON -DVLK_BUILD_TESTS=OFF \
    -DVLK_BUILD_BENCH=OFF -DVLK_WERROR=ON -DVLK_SANITIZE=
cmake --build build-fuzz -j2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

failed=()
for source in fuzz/*_fuzz.cpp; do
    target=$(basename "$source" .cpp)
    corpus=$scratch/corpus/$target
    artifacts=build-fuzz/artifacts/$target/
    mkdir -p "$corpus" "$artifacts"
    if [[ -d fuzz/corpus/$target ]]; then
        cp -R "fuzz/corpus/$target/." "$corpus"
    fi
    echo "--- $target: $seconds s"
    log=$scratch/$target.log
    if build-fuzz/bin/"$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$artifacts" "$corpus" >"$log" 2>&1; then
        grep -E '^(Done|stat::(number_of_executed_units|peak_rss_mb))' "$log" || true
    else
        tail -n 60 "$log"
        echo "--- $target FAILED; the input is in $artifacts"
        failed+=("$target")
    fi
done

if [[ ${#failed[@]} -ne 0 ]]; then
    echo "fuzz targets that failed: ${failed[*]}"
    exit 1
fi
