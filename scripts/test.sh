#!/usr/bin/env bash
# Installs the packages that are missing, builds build/ with warnings as
# errors and the benchmarks (compiled, not run), and runs every test; then
# builds build-asan/ under AddressSanitizer and UndefinedBehaviorSanitizer and
# runs every test again; builds build-tsan/ under ThreadSanitizer and runs the
# tests labelled concurrency there; then builds the fuzz targets with clang in
# build-fuzz/ and runs each for 20 seconds (scripts/fuzz.sh). Stops at the
# first failure with a non-zero status. Prints how long each stage took.
# Usage: scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# A sanitizer report ends the process that made it, with a stack trace.
export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

stage_name=""
stage_start=$SECONDS
stage() {
    if [[ -n "$stage_name" ]]; then
        echo "=== $stage_name: $((SECONDS - stage_start)) s"
    fi
    stage_name=$1
    stage_start=$SECONDS
    echo "=== $stage_name"
}

stage "install dependencies"
scripts/install-deps.sh --bench --fuzz

stage "build build/"
cmake -S . -B build -DVLK_BUILD_TESTS=ON -DVLK_BUILD_BENCH=ON -DVLK_WERROR=ON -DVLK_SANITIZE=
cmake --build build -j2

stage "test build/"
ctest --test-dir build -j2 --output-on-failure

stage "build build-asan/ (address, undefined)"
cmake -S . -B build-asan -DVLK_BUILD_TESTS=ON -DVLK_BUILD_BENCH=OFF -DVLK_WERROR=ON \
    -DVLK_SANITIZE=address
cmake --build build-asan -j2

stage "test build-asan/"
ctest --test-dir build-asan -j2 --output-on-failure

# The tests labelled concurrency (code shared between threads) run once more
# under ThreadSanitizer; the rest of the suite starts no threads of its own.
stage "build build-tsan/ (thread): tests labelled concurrency"
cmake -S . -B build-tsan -DVLK_BUILD_TESTS=ON -DVLK_BUILD_BENCH=OFF -DVLK_WERROR=ON \
    -DVLK_SANITIZE=thread
cmake --build build-tsan -j2 --target vlk_concurrency_tests

stage "test build-tsan/"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan -j2 --output-on-failure -L concurrency --no-tests=error

stage "fuzz (build-fuzz/, 20 s per target)"
scripts/fuzz.sh 20
echo "=== $stage_name: $((SECONDS - stage_start)) s"

echo "=== test lines against code lines"
scripts/test_ratio.sh
