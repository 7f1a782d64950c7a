#!/bin/sh
# Checks the dynamic symbol table of a program linked with the toolkit's
# link-time wrappers: none of the wrapped names may be imported, and every
# wrapper that the program calls must be exported as defined. Prints, for
# information, the newest GLIBC symbol version the program still needs.
#
# With --portable, the program must also start on glibc 2.7: every version
# it imports is a GLIBC_<number> no newer than GLIBC_2.7 (no GLIBCXX_ or
# CXXABI_ of a shared libstdc++, no GLIBC_ABI_DT_RELR), and it needs no
# shared library beyond those that glibc 2.7 had.
#
# With --stripped, the program has no symbol table (as packaged), so calls
# to the wrappers cannot be found; the checks of the dynamic table remain.
#
# Usage: check_imports.sh [--portable] [--stripped] <program> <wrapped name>...
# OBJDUMP may name the objdump to use.
set -eu

objdump=${OBJDUMP:-objdump}
portable=no
stripped=no
if [ "$1" = --portable ]; then
    portable=yes
    shift
fi
if [ "$1" = --stripped ]; then
    stripped=yes
    shift
fi
program=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$objdump" -T "$program" >"$work/dynamic"
"$objdump" -d --no-show-raw-insn "$program" >"$work/code"

# Succeeds if the dynamic table has `name` undefined (want=undefined) or
# defined (want=defined).
has_symbol() {
    awk -v name="$1" -v want="$2" '
        $NF == name && (($0 ~ /\*UND\*/) == (want == "undefined")) { found = 1 }
        END { exit !found }' "$work/dynamic"
}

status=0
called=0
for name in "$@"; do
    if has_symbol "$name" undefined; then
        echo "FAIL: $name is imported"
        status=1
    fi
    # GNU objdump writes "call 1234 <f>", llvm-objdump "callq 0x1234 <f>".
    if grep -Eq "(call|jmp)q?[[:space:]]+(0x)?[0-9a-f]+ <__wrap_$name>" "$work/code"; then
        called=$((called + 1))
        if has_symbol "__wrap_$name" defined; then
            echo "ok: __wrap_$name has callers and is exported"
        else
            echo "FAIL: __wrap_$name has callers but is not exported as defined"
            status=1
        fi
    fi
done

# Every program copies memory, so finding no call to any wrapper means the
# disassembly lacks symbols and the check above proved nothing.
if [ "$called" -eq 0 ] && [ "$stripped" = no ]; then
    echo "FAIL: no call to any wrapper found in $program (stripped?)"
    status=1
fi

versions=$(grep -F '*UND*' "$work/dynamic" | grep -oE 'GLIBC_[0-9]+(\.[0-9]+)+' | sort -uV)
newest=$(printf '%s\n' "$versions" | tail -n 1)
echo "GLIBC versions needed: $(printf '%s ' $versions)"
needers=$(awk -v v="($newest)" '/\*UND\*/ && index($0, v) { printf "%s ", $NF }' "$work/dynamic")
echo "newest: $newest, needed by: $needers"

if [ "$portable" = yes ]; then
    # Every version node the program asks for, whatever its library.
    all=$(grep -F '*UND*' "$work/dynamic" | grep -oE '\([A-Za-z0-9_.]+\)' | tr -d '()' | sort -u)
    for version in $all; do
        case $version in
        GLIBC_[0-9]*)
            oldest=$(printf '%s\n%s\n' "$version" GLIBC_2.7 | sort -V | tail -n 1)
            if [ "$oldest" != GLIBC_2.7 ]; then
                echo "FAIL: $version is newer than GLIBC_2.7 (needed by:$(awk -v v="($version)" \
                    '/\*UND\*/ && index($0, v) { printf " %s", $NF }' "$work/dynamic"))"
                status=1
            fi
            ;;
        *)
            echo "FAIL: imports version $version, which is not glibc's"
            status=1
            ;;
        esac
    done
    "$objdump" -p "$program" | awk '$1 == "NEEDED" { print $2 }' >"$work/needed"
    while read -r library; do
        case $library in
        libc.so.6 | libm.so.6 | libpthread.so.0 | libdl.so.2 | librt.so.1 | ld-linux-x86-64.so.2)
            echo "ok: needs $library" ;;
        *)
            echo "FAIL: needs $library, which glibc 2.7 hosts need not have"
            status=1
            ;;
        esac
    done <"$work/needed"
fi
exit $status
