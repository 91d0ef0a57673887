# shellcheck shell=bash
# await COMMAND...: until it succeeds, for a minute.
await() {
    local printed
    for _ in $(seq 600); do
        ! printed=$("$@" 2>&1) || return 0
        sleep 0.1
    done
    echo "still failing: $*: $printed" && return 1
}
