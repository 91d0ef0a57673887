#!/usr/bin/env bash
# tracing_test.sh OBJECT QVCTL_DIRECTORY PROGRAMS: what tracers count that attach to a running program
# is what the program and the agent report: bpftrace with our programs, and the kernel's own uprobe
# events. Runs inside scripts/world, with a copy of the library that no other process has loaded.
set -euo pipefail
# shellcheck source=tests/await.sh
source "${0%/*}/await.sh"
export PATH=$2:$PATH LC_ALL=C
programs=$3
work=$(mktemp -d)
library=$work/libqvapi.so.1
cp "$1" "$library"
tracefs=/sys/kernel/tracing
group=qvapi_test_$$
instance=$tracefs/instances/$group
failed=0

clean_up() {
    jobs -p | xargs -r kill || true
    if [ -d "$instance" ]; then
        echo 0 >"$instance/events/$group/enable" || true
        rmdir "$instance"
        for event in "$tracefs/events/$group"/*/; do
            echo "-:$group/$(basename "$event")" >>"$tracefs/uprobe_events"
        done
    fi
    rm -rf "$work"
}
trap clean_up EXIT

attach_bpftrace() {
    bpftrace -e "uprobe:$library:_so_version {} interval:ms:1 { exit(); }" >"$work/output" 2>&1 || return 1
    for name in rates losses latency; do
        bpftrace "$programs/$name.bt" "$library" >"$work/$name" 2>&1 3>&- &
        tracers+=($!)
        await grep '^232 ' "/proc/$!/syscall"  # it has come to its loop around epoll_wait
    done
}

attach_uprobe_events() {
    mountpoint -q "$tracefs" || mount -t tracefs tracefs "$tracefs" || return 1
    [ -w "$tracefs/uprobe_events" ] && mkdir "$instance" || return 1
    local offset address name site
    read -r offset address < <(readelf -lW "$library" | awk '$1 == "LOAD" && / R E / { print $2, $3 }')
    readelf -nW "$library" | awk '/Name:/ { name = $2 } /Location:/ { print name, $2 }' | tr -d , |
        while read -r name site; do
            printf 'p:%s/%s_%x %s:%#x\n' "$group" "$name" "$site" "$library" $((site - address + offset)) \
                >>"$tracefs/uprobe_events"
        done
    echo 1 >"$instance/events/$group/enable"
}

# expect WHAT EXPECTED ACTUAL, a line each
expect() {
    diff <(echo "$2") <(sort <<<"$3") || { echo "^ $1 (<: expected, >: found)"; failed=1; }
}

readelf -nW "$library" | grep stapsdt >/dev/null || { echo "built without tracepoints" && exit 77; }
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
bpftrace=yes uprobe_events=yes
attach_bpftrace || { bpftrace= && echo "no bpftrace here:" && cat "$work/output"; }
attach_uprobe_events || { uprobe_events= && echo "no uprobe events here"; }
[ "$bpftrace$uprobe_events" ] || exit 77

seq 100 >&3
await awk 'END { exit NR != 10 }' "$work/records"
kill $agent
wait $agent || true
seq 100 >&3
exec 3>&-
wait $program || true
[ ${#tracers[@]} = 0 ] || { kill -INT "${tracers[@]}" && wait "${tracers[@]}"; }

expect "the program" $'accepted: 190\nlost: 0\nturned over to the fallback file: 10' \
    "$(grep -v /data "$work/report")"
if [ "$bpftrace" ]; then
    expect "rates.bt" $'@records[orders, 0] 10\n@records[orders, 7] 9\n@records[orders, 8] 1' \
        "$(awk -F: '/^@/ { sum[$1] += $2 } END { for (key in sum) print key, sum[key] }' "$work/rates")"
    expect "losses.bt" "$(printf '%s\n' '@sampled_out[orders, 5, 10]: 180' \
        '@turned_over[orders, 7]: 9' '@turned_over[orders, 8]: 1')" "$(grep '^@' "$work/losses")"
    expect "latency.bt" '@string 200' "$(awk -F'[])|:]' '/^@/ { form = $1 }
        /^\[/ { sum[form] += $2 } END { print "@string", sum["@string"] }' "$work/latency")"
fi
if [ "$uprobe_events" ]; then
    expect "uprobe events" $'failed 10\nfallback 10\nsampled_out 180\nsent 10' \
        "$(awk -v library="$library" '$1 == library { sub(/_[0-9a-f]+$/, "", $2); sum[$2] += $3 }
            END { for (name in sum) print name, sum[name] }' "$tracefs/uprobe_profile" |
            grep -v -e connect -e batch_closed)"
fi
[ $failed = 0 ]
