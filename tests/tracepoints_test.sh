#!/usr/bin/env bash
# tracepoints_test.sh OBJECT COMPILER: the static tracepoints that the object's notes tell of.
set -euo pipefail
export LC_ALL=C

if ! "$2" -x c++ -E -o /dev/null - <<<'#include <sys/sdt.h>' 2>/dev/null; then
    echo "there is no sys/sdt.h here: built without tracepoints"
    exit 77
fi
# Provider, name, and the size of each argument, negative when it has a sign: once for all its sites.
diff - <(readelf -nW "$1" | awk '
    /Provider:/ { provider = $NF }
    $1 == "Name:" { name = $2 }
    $1 == "Arguments:" { gsub(/@[^ ]*/, ""); $1 = ""; print provider ":" name $0 }' | sort -u) <<'NOTES'
qvapi:batch_closed 8 8
qvapi:connect -1 -4
qvapi:failed -4 8 -1 4
qvapi:fallback 4 1
qvapi:sampled_out 8 -4 -4
qvapi:sent 8 -1 4 -1
NOTES
