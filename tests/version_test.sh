#!/usr/bin/env bash
# version_test.sh BUILD LIBRARY: what the library prints when it is run, built and installed, and that
# an application outside of the tree finds it and is told nothing when it loads it.
set -euo pipefail
build=$1 library=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() { echo "version_test: $*" >&2 && exit 1; }

expected=$'Quorvel_API_V1.1_20141105    Quorvel API\nProduced by the Quorvel project\nstatus 0'
cmake --install "$build" --component quorvel --prefix "$prefix" >/dev/null
installed=$(find "$prefix" -name 'libqvapi.so.1')
for file in "$library" "$installed"; do
    for arguments in '' '--help' 'a b c'; do
        # shellcheck disable=SC2086 # no argument, one, and several
        printed=$("$file" $arguments 2>&1; echo "status $?")
        [ "$printed" = "$expected" ] || fail "$file $arguments printed: $printed"
    done
done

mkdir "$prefix/application"
cat >"$prefix/application/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(Application CXX)
find_package(Quorvel REQUIRED)
add_executable(application main.cpp)
target_link_libraries(application Quorvel::qvapi pthread)
CMAKE
cat >"$prefix/application/main.cpp" <<'CPP'
#include <qvapi_cpp.h>
int main() { return Quorvel::CLogger().write_baselog("x", 1, 0, 0, 0) == 1 ? 0 : 1; }
CPP
cmake -S "$prefix/application" -B "$prefix/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/build" >/dev/null
[ -z "$("$prefix/build/application" 2>&1 || echo failed)" ] || fail "loading it is not silent"
