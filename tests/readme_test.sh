#!/usr/bin/env bash
# readme_test.sh SOURCE: follows the README's lines on installing and linking, and has each program
# that they make send its record to the installed `qvctl listen`. Runs inside scripts/world --scratch.
# shellcheck source=tests/readme_lines.sh
source "$1/tests/readme_lines.sh"

! lines '' 'A pipeline' | grep -vxF -f examples/syslog-ng/quorvel.conf ||
    { echo "the README shows another syslog-ng configuration" && exit 1; }

follow Installing
! grep -rqe -Werror build/install || { echo "-Werror in a plain build" && exit 1; }
follow 'Into any other prefix'
listen "$HOME/quorvel/bin/qvctl"
arrives ./main

application package
lines cmake 'From CMake' >CMakeLists.txt
CXXFLAGS='-Wall -Wextra -Wconversion -Werror' follow 'From CMake'
arrives build/main
cmake -S "$(find "$HOME" -name examples)" -B "$work/examples" -DCMAKE_PREFIX_PATH="$HOME/quorvel" >/dev/null
cmake --build "$work/examples" >/dev/null

application part
lines cmake 'As a part of your build' >CMakeLists.txt
ln -s "$work/quorvel" quorvel
cmake -B build -DCMAKE_CXX_VISIBILITY_PRESET=hidden >/dev/null
cmake --build build --verbose >log
! grep -e -Werror log || { echo "-Werror in an application's build" && exit 1; }
! grep '_DIR:PATH=/' build/CMakeCache.txt || { echo "the library needs more than a compiler" && exit 1; }
[ ! -e build/quorvel/tools ] || { echo "qvctl is built as well" && exit 1; }
arrives build/main

[ -w /usr/local/lib ] || { echo "/usr/local left out: not writable for this user" && exit 0; }
cd "$work/quorvel"
follow 'Into /usr/local'
arrives ./main
