#!/usr/bin/env bash
# public_headers_test.sh COMPILER DIRECTORY: the public headers get along with any application.
set -euo pipefail
export LC_ALL=C
compiler=("$1" -Wall -Wextra -Wpedantic -Wconversion -Werror -I "$2" -x c++ -)
cd "$2"
headers=(modulemsg.h qvapi_abi.h qvapi_cpp.h qvapi_errno.h qvapimsg.h qvapi_sampling.h socket_client.h)
failed=0

fail() {
    echo "^ $1"
    failed=1
}

include() {
    printf '#include "%s"\n' "$@"
}

macros() {
    "${compiler[@]}" -dM -E | awk '{ sub(/\(.*/, "", $2); print $2 }' | sort
}

for header in "${headers[@]}"; do
    for standard in 11 14 17 20; do
        include "$header" | "${compiler[@]}" -fsyntax-only "-std=c++$standard" ||
            fail "$header does not compile alone as C++$standard"
    done
done

for header in qvapi_cpp.h qvapi_sampling.h socket_client.h; do
    for other in _GLIBCXX_USE_CXX11_ABI=0 _LIBCPP_VERSION=14000; do
        message=$(include "$header" | "${compiler[@]}" -fsyntax-only "-D$other" 2>&1 || true)
        grep -q 'error: .*libqvapi needs ' <<<"$message" || fail "$header accepts $other"
    done
done

application=$(printf '#define %s = { ours ;\n' LOG ERROR CHECK DEBUG INFO WARN WARNING FATAL TRACE \
    ASSERT OK FAIL TRUE FALSE UNIX TCP UDP)
{ echo "$application"; include "${headers[@]}"; } | "${compiler[@]}" -fsyntax-only ||
    fail "a header does not survive the application's macros"

system=$(sed -n '/^#include </p' "${headers[@]}")
added=$(comm -13 <(echo "$system" | macros) <({ echo "$system"; include "${headers[@]}"; } | macros))
[ "$(wc -l <<<"$added")" -ge ${#headers[@]} ] || fail "the comparison of macros finds too few"
! grep -v '^QV' <<<"$added" || fail "macros without the prefix QV"
exit $failed
