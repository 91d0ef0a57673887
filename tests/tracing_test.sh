#!/usr/bin/env bash
# tracing_test.sh OBJECT QVCTL_DIRECTORY PROGRAMS: what our programs for bpftrace count that attach to a
# running program is what the program and the agent report. Runs inside scripts/world, with a copy of
# the library that no other process has loaded.
set -euo pipefail
# shellcheck source=tests/await.sh
source "${0%/*}/await.sh"
export PATH=$2:$PATH LC_ALL=C
programs=$3
work=$(mktemp -d)
library=$work/libqvapi.so.1
cp "$1" "$library"
failed=0
trap 'jobs -p | xargs -r kill || true; rm -rf "$work"' EXIT

# expect WHAT EXPECTED ACTUAL, a line each
expect() {
    diff <(echo "$2") <(sort <<<"$3") || { echo "^ $1 (<: expected, >: found)"; failed=1; }
}

readelf -nW "$library" | grep stapsdt >/dev/null || { echo "built without tracepoints" && exit 77; }
bpftrace -e "uprobe:$library:_so_version {} interval:ms:1 { exit(); }" || { echo "no bpftrace" && exit 77; }
qvctl setup
qvctl rates create
qvctl rates set orders 5 10
qvctl listen --unix --json >"$work/records" &
agent=$!
await test -S /data/container2host/cqv
mkfifo "$work/lines"
LD_LIBRARY_PATH=$work qvctl send orders --type 5 <"$work/lines" >"$work/report" &
program=$!
exec 3>"$work/lines"
await grep "$library" /proc/$program/maps

tracers=()
for name in rates losses latency; do
    bpftrace "$programs/$name.bt" "$library" >"$work/$name" 2>&1 3>&- &
    tracers+=($!)
    await grep '^232 ' "/proc/$!/syscall"  # it has come to its loop around epoll_wait
done
seq 100 >&3
await awk 'END { exit NR != 10 }' "$work/records"
kill $agent
wait $agent || true
seq 100 >&3
exec 3>&-
wait $program || true
kill -INT "${tracers[@]}"
wait "${tracers[@]}"

expect "the program" $'accepted: 190\nlost: 0\nturned over to the fallback file: 10' \
    "$(grep -v /data "$work/report")"
expect "rates.bt" $'@records[orders, 0] 10\n@records[orders, 7] 9\n@records[orders, 8] 1' \
    "$(awk -F: '/^@/ { sum[$1] += $2 } END { for (key in sum) print key, sum[key] }' "$work/rates")"
expect "losses.bt" "$(printf '%s\n' '@sampled_out[orders, 5, 10]: 180' \
    '@turned_over[orders, 7]: 9' '@turned_over[orders, 8]: 1')" "$(grep '^@' "$work/losses")"
expect "latency.bt" '@string 200' "$(awk -F'[])|:]' '/^@/ { form = $1 }
    /^\[/ { sum[form] += $2 } END { print "@string", sum["@string"] }' "$work/latency")"
[ $failed = 0 ]
