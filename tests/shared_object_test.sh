#!/usr/bin/env bash
# shared_object_test.sh OBJECT: what the library's file shows to linkers and loaders.
set -euo pipefail
export LC_ALL=C
object=$1
failed=0

# expect WHAT EXPECTED ACTUAL, a line each
expect() {
    diff <(echo "$2") <(echo "$3") || { echo "^ $1 (<: expected, >: found)"; failed=1; }
}

imports=$(nm -D --undefined-only "$object")
if grep -qE '__(asan|tsan)_init' <<<"$imports"; then
    echo "skipped: a sanitizer adds to the object what is not shipped"
    exit 77
fi
dynamic=$(readelf -dW "$object")

expect "needed libraries" $'libc.so.6\nlibgcc_s.so.1\nlibstdc++.so.6' \
    "$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort)"
expect "never unloaded" NODELETE "$(grep -o NODELETE <<<"$dynamic")"
expect "bytes of functions to run at exit (the compiler's own one)" 8 \
    "$(sed -n 's/.*(FINI_ARRAYSZ) *\([0-9]*\).*/\1/p' <<<"$dynamic")"
expect "imports that register for exit, or that are fortified" "" \
    "$(grep -oE '\w*(atexit|on_exit)\b|__\w+_chk\b' <<<"$imports")"
tls=$(readelf -lW "$object" | awk '$1 == "TLS" { print $6 }')
expect "thread-local storage of at most 1 KiB" 1 $((${tls:-0} <= 1024))
exit $failed
