#!/usr/bin/env bash
# syslog_ng_test.sh QVCTL_DIRECTORY CONFIGURATION: the records of two applications are in the files
# of a real syslog-ng, those of the time of its absence too: none is missing and none is there twice.
set -euo pipefail
# shellcheck source=tests/await.sh
source "${0%/*}/await.sh"
export PATH=$1:$PATH:/usr/sbin
command -v syslog-ng >/dev/null || { echo "there is no syslog-ng here" && exit 77; }
work=$(mktemp -d)
pipeline=
trap '[ -z "$pipeline" ] || kill "$pipeline"; rm -rf "$work"' EXIT
sed "s|/var/log/quorvel|$work|" "$2" >"$work/quorvel.conf"
touch "$work/orders.log" "$work/billing.log"

start_pipeline() {
    syslog-ng -F --no-caps -f "$work/quorvel.conf" --persist-file "$work/persist" \
        --pidfile "$work/pid" --control "$work/control" &
    pipeline=$!
    await qvctl check
}

stop_pipeline() {
    kill "$pipeline"
    wait "$pipeline" || true
    pipeline=
    await [ ! -e /data/container2host/cqv ]
}

# send FIRST LAST: as the records of both applications, at the same time.
send() {
    seq "$1" "$2" | qvctl send orders --rate 10000 >"$work/orders.sent" &
    seq "$1" "$2" | qvctl send billing --rate 10000 >"$work/billing.sent" || true
    wait $! || true
    cat "$work"/*.sent
}

# holds APPLICATION LAST: its file holds its records 1 to LAST and no other.
holds() {
    sed -n "s/.*\"application\":\"$1\".*\"body\":\"\(.*\)\"}/\1/p" "$work/$1.log" |
        sort -n | diff -q - <(seq "$2")
}

qvctl setup
start_pipeline
send 1 10000
qvctl spool replay  # what came too fast for a busy machine, if anything
await holds orders 10000
await holds billing 10000

stop_pipeline
send 10001 20000 | tee "$work/sent"
[ "$(grep -c 'turned over to the fallback file: 10000' "$work/sent")" = 2 ]
start_pipeline
qvctl spool replay
await holds orders 20000
await holds billing 20000
