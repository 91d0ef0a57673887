#!/usr/bin/env bash
# packages_test.sh SOURCE: installs the packages in build/package, looks at what they ship, has two
# applications send a record to their qvctl, and removes them without a trace. Runs in a
# root of its own, which scripts/packages makes.
# shellcheck source=tests/readme_lines.sh
source "$1/tests/readme_lines.sh"
fail() { echo "packages_test: $*" >&2 && exit 1; }

# But for the logs and indexes of the package tools.
files() {
    find /etc /usr /var \( -path /var/cache -o -path /var/lib/apt -o -path /var/log \) -prune -o -print | sort
}

files >"$work/before"
mkdir -p build/package
cp "$source"/build/package/*.deb build/package/
follow 'Debian packages'
dpkg --audit
files >"$work/after"
grep -q libqvapi.so.1 "$work/after" || fail "the list of files leaves out what it should compare"

library=$(pkg-config --variable=libdir quorvel)/libqvapi.so.1
for object in /usr/bin/qvctl "$library"; do
    shown=$(readelf -Wld "$object"; nm -D "$object")
    for hardened in GNU_RELRO BIND_NOW ' U __stack_chk_fail' ' U __[a-z]*_chk@'; do
        grep -q "$hardened" <<<"$shown" || fail "$object without $hardened"
    done
done
"$library" | grep -q 'Quorvel API' || fail "the library does not run"
! ldd "$library" | grep -vE '(linux-vdso|libc|libm|libstdc\+\+|libgcc_s|ld-linux-x86-64)\.so\.' ||
    fail "the library needs more than the runtime of C and C++"

listen qvctl
arrives ./main
application cmake
lines cmake 'From CMake' >CMakeLists.txt
CXXFLAGS='-Wall -Wextra -Wconversion -Werror' follow 'From CMake'
arrives build/main

dpkg --purge libqvapi-dev qvctl libqvapi1 >/dev/null
files | diff "$work/before" - || fail "the packages leave something behind"
echo "packages_test: installed, used and removed"
