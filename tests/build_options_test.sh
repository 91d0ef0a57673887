#!/usr/bin/env bash
# build_options_test.sh SOURCE: each option leaves out its part, and one that does not exist is refused.
set -euo pipefail
export LC_ALL=C
source=$1
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
fail() { echo "build_options_test: $*" >&2 && exit 1; }

while read -r option parts; do
    rm -rf "${build:?}"/*
    cmake -S "$source" -B "$build" "-D$option=OFF" >/dev/null || fail "cannot configure without $option"
    built=$(find "$build" -maxdepth 1 -type d -printf '%f\n' | grep -xE 'bench|examples|tests|tools' | sort)
    [ "$(xargs <<<"$built")" = "$parts" ] || fail "$option=OFF builds $(xargs <<<"$built")"
done <<'TABLE'
QUORVEL_BUILD_BENCHMARKS examples tests tools
QUORVEL_BUILD_EXAMPLES bench tests tools
QUORVEL_BUILD_TESTS bench examples tools
QUORVEL_BUILD_TOOLS bench examples
BUILD_TESTING bench examples tools
TABLE

message=$(cmake -S "$source" -B "$build" -DQUORVEL_BUILD_TEST=OFF 2>&1) && fail "an unknown option is accepted"
grep -q 'Quorvel has no option QUORVEL_BUILD_TEST\.' <<<"$message" || fail "$message"
cmake -S "$source" -B "$build" >/dev/null 2>&1 || fail "a refused option stays behind"
