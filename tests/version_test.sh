#!/usr/bin/env bash
# version_test.sh BUILD LIBRARY: what the library prints when it is run, built and installed, and that
# an application is told nothing when it loads it.
set -euo pipefail
build=$1 library=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() { echo "version_test: $*" >&2 && exit 1; }

expected=$'Quorvel_API_V1.1_20141105    Quorvel API\nProduced by the Quorvel project\nstatus 0'
cmake --install "$build" --component runtime --prefix "$prefix" >/dev/null
installed=$(find "$prefix" -name 'libqvapi.so.1')
for file in "$library" "$installed"; do
    for arguments in '' '--help' 'a b c'; do
        # shellcheck disable=SC2086 # no argument, one, and several
        printed=$("$file" $arguments 2>&1; echo "status $?")
        [ "$printed" = "$expected" ] || fail "$file $arguments printed: $printed"
    done
done

[ -z "$(LD_PRELOAD=$installed true 2>&1 || echo failed)" ] || fail "loading it is not silent"
