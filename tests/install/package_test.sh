#!/usr/bin/env bash
# Builds the Debian package of <build dir> with cpack, checks its control
# fields and its file list, unpacks it into a scratch root and runs the
# packaged velkmsg against a golden report.
#
# Usage: package_test.sh <build dir> <version> <golden report of 01-0001>
# CPACK and OBJDUMP name the tools; WRAPPED_SYMBOLS lists the libc names the
# library wraps; PORTABLE=ON says velkmsg must start on glibc 2.7.
set -euo pipefail

build=$1
version=$2
golden=$3
here=$(cd "$(dirname "$0")" && pwd)

. "$here/harness.sh"

step "cpack -G DEB"
"${CPACK:-cpack}" -G DEB --config "$build/CPackConfig.cmake" -B "$work"
deb=$work/vlk_${version}_$(dpkg --print-architecture).deb
[[ -f $deb ]] || fail "no $deb among: $(ls "$work")"

step "control fields"
field() { dpkg-deb --field "$deb" "$1"; }
[[ $(field Package) == vlk && $(field Version) == "$version" ]] ||
    fail "package $(field Package) version $(field Version)"
[[ -n $(field Maintainer) && -n $(field Description) ]] || fail "no maintainer or description"
# Computed from the packaged programs: at least the C library.
[[ $(field Depends) == *libc6* ]] || fail "Depends does not name libc6: '$(field Depends)'"

step "file list"
dpkg --contents "$deb" | awk '{ print $NF }' >"$work/contents"
for path in usr/bin/velkmsg usr/share/man/man1/velkmsg.1 usr/bin/vlk-logscan \
    usr/share/man/man1/vlk-logscan.1 usr/include/vlk/vlk.hpp \
    usr/include/vlk/version.hpp usr/lib/cmake/vlk/vlkConfig.cmake usr/lib/pkgconfig/vlk.pc \
    usr/share/doc/vlk/LICENSE; do
    grep -qxF "./$path" "$work/contents" || fail "the package lacks $path"
done
grep -qE '^\./usr/lib/libvlk\.(a|so\.[0-9]+)$' "$work/contents" || fail "the package lacks the library"

step "packaged velkmsg 01-0001 against the golden report"
dpkg --extract "$deb" "$work/root"
"$work/root/usr/bin/velkmsg" 01-0001 >"$work/velkmsg.out" || fail "velkmsg exited with $?"
cmp "$golden" "$work/velkmsg.out" || fail "the report differs: $(diff "$golden" "$work/velkmsg.out")"
if [[ ${PORTABLE:-OFF} == ON ]]; then
    step "packaged velkmsg starts on glibc 2.7"
    # The package strips its programs.
    # shellcheck disable=SC2086
    OBJDUMP=${OBJDUMP:-objdump} sh "$here/../system/check_imports.sh" --portable --stripped \
        "$work/root/usr/bin/velkmsg" $WRAPPED_SYMBOLS
fi
echo "vlk_${version} installs and runs"
