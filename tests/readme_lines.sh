# shellcheck shell=bash
# For tests that do what the README says, with a copy of the sources in $work/quorvel. Sourced inside
# scripts/world by `TEST SOURCE`.
set -euo pipefail
source=$1
# shellcheck source=tests/await.sh
source "$source/tests/await.sh"
work=$(mktemp -d)
agent=
trap '[ -z "$agent" ] || kill "$agent"; rm -rf "$work"' EXIT
export HOME=$work/home

# lines LANGUAGE HEADING: the code in that language under that heading of the README.
lines() {
    awk -v language="\`\`\`$1" -v heading="$2" '
        /^```/ { code = code ? "" : $0; next }
        !code && /^#/ { here = $0 ~ "^#+ " heading "$" }
        here && code == language { print; found = 1 }
        END { exit !found }' "$work/quorvel/README.md"
}

# follow HEADING: runs the lines of shell under it.
follow() {
    echo "== $1"
    lines sh "$1" >"$work/lines"
    # shellcheck disable=SC1091
    source "$work/lines"
}

sudo() { "$@"; }
g++() { command g++ -Wall -Wextra -Wconversion -Werror "$@"; }

# listen QVCTL: plays the agent from here on.
listen() {
    "$1" listen >>"$work/seen" 2>"$work/agent" &
    agent=$!
    await grep 'listening on udp' "$work/agent"
}

# arrives PROGRAM: its record reaches the agent.
arrives() {
    "$1"
    await grep 'order=.*17,user=.*kim' "$work/seen"
    : >"$work/seen"
}

# application DIRECTORY: makes a directory of that name with the program, and goes there.
application() {
    mkdir "$work/$1"
    cd "$work/$1"
    lines cpp 'Ten lines' >main.cpp
}

mkdir "$work/quorvel"
tar -C "$source" --exclude=./build --exclude=./.git -cf - . | tar -C "$work/quorvel" --no-same-owner -xf -
cd "$work/quorvel"
lines cpp 'Ten lines' >main.cpp
