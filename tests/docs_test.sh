#!/usr/bin/env bash
# docs_test.sh COMPILER BUILD SOURCE PAGE [HEADING...]: the code of a page of the documentation, or
# under these headings, works. Runs inside scripts/world --scratch.
# - cpp with a main is the program ./main of the blocks behind it; without one it is the body of a
#   function with a `logger` that is initialised and a time stamp `now`.
# - sh runs; a text right behind it is what it prints to the standard output.
# - console is a session in the source's directory: its command begins to print what is shown, but for
#   numbers.
set -euo pipefail
# shellcheck source=tests/await.sh
source "${0%/*}/await.sh"
source=$3
page=$4
IFS='|' headings="${*:5}"
IFS=$' \t\n'
compiler=("$1" -std=c++11 -Wall -Wextra -Wconversion -Werror -I "$source/api/src")
library=$2/api/libqvapi.so
export PATH=$2/tools:$PATH TZ=UTC
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

if [ "$page" = docs/tracing.md ]; then
    tracefs=/sys/kernel/tracing
    mountpoint -q $tracefs || mount -t tracefs tracefs $tracefs || true
    if [ ! -w $tracefs/uprobe_events ] || ! bpftrace -l "usdt:$library:*"; then
        echo "no tracing here" && exit 77
    fi
    cp "$library" /usr/local/lib/libqvapi.so.1
fi

sudo() { "$@"; }

# listen in a README's or operator's terminal of its own: plays the agent while the others run.
qvctl() {
    [ "$*" = listen ] || { command qvctl "$@"; return; }
    command qvctl listen >/dev/null 2>"$work/agent" &
    await grep 'listening on udp' "$work/agent"
}

session() {
    read -ra command < <(sed -n '1s/^# //p' "$1")
    (cd "$source" && timeout --signal=INT 5 "${command[@]}") >"$work/session" || true
    diff <(sed -n '2s/[0-9]*//gp' "$1") <(sed '1!d; s/[0-9]*//g' "$work/session")
}

build_main() { "${compiler[@]}" "$1" -o main "$library" -Wl,-rpath,"${library%/*}"; }

build_body() {
    {
        printf '#include <%s>\n' qvapi_cpp.h unistd.h cstdio ctime map string
        echo "void body(Quorvel::CLogger& logger, unsigned now) {"
        cat "$1"
        echo "static_cast<void>(logger), static_cast<void>(now); }"
    } >"$work/body.cpp"
    "${compiler[@]}" -c "$work/body.cpp" -o "$work/body.o"
}

mkdir "$work/blocks" "$work/terminal"
awk -v blocks="$work/blocks" -v headings="^#+ ($headings)$" '
    /^```/ { open = !open; file = sprintf("%s/%03d.%s", blocks, NR, substr($0, 4)); next }
    open { if (here) print >file; next }
    /^#/ { here = headings ~ /\(\)/ || $0 ~ headings }' "$source/$page"

cd "$work/terminal"
for block in "$work"/blocks/*; do
    echo "== $page, line $((10#$(basename "${block%.*}")))"
    # shellcheck disable=SC1090
    case $block in
        *.cpp) if grep -q 'int main' "$block"; then build_main "$block"; else build_body "$block"; fi ;;
        *.sh) source "$block" >"$work/printed" ;;
        *.console) session "$block" ;;
        *.text) diff "$block" "$work/printed" ;;
    esac
done
