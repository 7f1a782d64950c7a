#!/usr/bin/env bash
# Builds subproject/, which takes the toolkit in from its source tree with
# add_subdirectory or FetchContent, and checks that the toolkit behaves as a
# dependency: GoogleTest is made unfindable (a test of ours would need it),
# the parent's empty build type stays empty, the only program built is the
# consumer's, no test is registered and nothing is installed.
#
# Usage: subproject_test.sh <add_subdirectory|FetchContent> <source dir> <version>
# CMAKE, CTEST and CXX name the tools.
set -euo pipefail

how=$1
source=$2
version=$3
cmake=${CMAKE:-cmake}
ctest=${CTEST:-ctest}
here=$(cd "$(dirname "$0")" && pwd)

. "$here/harness.sh"
build=$work/build

step "configure with $how, GoogleTest disabled"
"$cmake" -S "$here/subproject" -B "$build" -DVLK_HOW="$how" -DVLK_SOURCE_DIR="$source" \
    -DVLK_EXPECTED_VERSION="$version" -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    -DCMAKE_CXX_COMPILER="${CXX:-c++}"
build_type=$("$cmake" -L -N "$build" | sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p')
[[ -z $build_type ]] || fail "the toolkit set the parent's build type to '$build_type'"

step "build and run the consumer"
"$cmake" --build "$build" -j2
"$build/vlk_consumer" || fail "the consumer exited with $?"

step "the consumer is the only program"
programs=$(find "$build" -type f -perm -u+x ! -path '*/CMakeFiles/*' -printf '%P\n')
[[ $programs == vlk_consumer ]] || fail "programs built beside the consumer: $programs"

step "no test registered, nothing installed"
"$ctest" --test-dir "$build" -N | grep -qx 'Total Tests: 0' || fail "tests: $("$ctest" --test-dir "$build" -N)"
"$cmake" --install "$build" --prefix "$work/prefix"
[[ ! -e $work/prefix ]] || fail "installed: $(find "$work/prefix" -type f)"
echo "the toolkit built only its library with $how"
