#!/usr/bin/env bash
# qvctl_manual_test.sh QVCTL_DIRECTORY SOURCE: the manual page and the completion have each verb's
# options, and no others.
set -euo pipefail
PATH=$1:$PATH
cd "$2"
# shellcheck disable=SC1091
source tools/qvctl.bash-completion

# complete_line WORD...: what the completion offers for the last word.
complete_line() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _qvctl qvctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort
}

# documented VERB...: the options under the verb's heading in the manual page.
documented() {
    awk -v heading=".Ss $*" '/^\.S[sh] / { here = $0 == heading } here && /^\.It/' docs/man/qvctl.1 |
        { grep -o 'Fl -[a-z-]*' || true; } | sed 's/^Fl /-/' | sort
}

# options VERB...: those in the verb's help.
options() { qvctl "${@:2}" --help | sed -n 's/^  \(-h,\)\?\(--[a-z-]*\).*/\2/p' | sort; }

# check VERB...: this verb and those under it.
check() {
    local subverb help
    help=$(qvctl "${@:2}" --help)
    diff <(options "$@") <(complete_line "$@" --) || { echo "completion of: $*"; exit 1; }
    if ! grep -q '^Usage:.* SUBCOMMAND$' <<<"$help"; then
        diff <(options "$@" | grep -vx -e --help) <(documented "$@") || { echo "manual of: $*"; exit 1; }
    fi
    for subverb in $(_qvctl_words Subcommands "$help"); do
        check "$@" "$subverb"
    done
}

check qvctl
diff <(complete_line qvctl send --transport '') <(printf '%s\n' tcp udp unix)
diff <(complete_line qvctl spool c) <(echo cat)
diff <(complete_line qvctl spool cat docs/man/qv) <(echo docs/man/qvctl.1)
