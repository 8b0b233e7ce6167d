#!/usr/bin/env bash
# What a user reads and types besides the program: the man pages render cleanly, kiv(1)
# lists exactly the code's exit codes, bash completion offers actions, options and set names.
# Usage: user_docs.sh man|exit-codes SRCDIR; user_docs.sh completion SRCDIR KIV KIV_SANDBOX
set -euo pipefail
mode=$1 src=$2

case $mode in
man)
    for page in kiv mkzunf kiv-sandbox kiv-flashsim kiv-powercut; do
        f=$src/docs/man/$page.1
        out=$(groff -ww -z -man "$f" 2>&1) || out+=" (groff failed)"
        if command -v man >/dev/null; then
            out+=$(MANWIDTH=80 man --warnings -l "$f" 2>&1 >/dev/null) || out+=" (man failed)"
        fi
        [[ -z $out ]] || { echo "$page.1: $out"; exit 1; }
    done
    ;;
exit-codes)
    # 0 (success) and 255 (an action's -1) come from no constant but must be listed too.
    code=$({ grep -rhoE 'KIV_EXIT_[A-Z_]+ *= *[0-9]+' "$src/src" | sed 's/.*= *//'; echo 0; echo 255; } | sort -u)
    doc=$(sed -n '/^\.SH "\{0,1\}EXIT STATUS/,/^\.SH/s/^\.B \([0-9][0-9]*\)$/\1/p' \
        "$src/docs/man/kiv.1" | sort -u)
    diff -u --label code --label 'kiv(1) EXIT STATUS' <(echo "$code") <(echo "$doc")
    ;;
completion)
    tmp=$(mktemp -d)
    trap 'rm -rf "$tmp"' EXIT
    PATH="$(dirname "$3"):$PATH" timeout 120 "$4" --dir "$tmp/device" --timeout 100 \
        --keep "$src" --keep "$(dirname "$3")" --keep "$(dirname "$0")" \
        -- bash "$0" completion-on-device "$src"
    ;;
completion-on-device)
    set +eu # bash_completion is written for interactive shells
    [[ ! -f /usr/share/bash-completion/bash_completion ]] || . /usr/share/bash-completion/bash_completion
    set -eu
    . "$src/completion/kiv"
    [[ $(complete -p kiv) == *"-F _kiv "* ]] || { echo "not registered: $(complete -p kiv)"; exit 1; }
    fail=0
    # expect 'COMMAND LINE' 'CANDIDATES': completes the last word of the line.
    expect() {
        COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
        read -ra COMP_WORDS <<<"$1"
        [[ $1 != *' ' ]] || COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _kiv kiv "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        [[ "${COMPREPLY[*]}" == "$2" ]] || { echo "'$1': got '${COMPREPLY[*]}', want '$2'"; fail=1; }
    }
    # A blank device: no hostconfig to read the set names from.
    expect 'kiv get' 'getpartset getrh'
    expect 'kiv -dr' '-dryrun'
    expect 'kiv getpartset ' '0 1 2 active'
    expect 'kiv getrh 1 -pif=ver,build_n' 'ver,build_num'
    expect 'kiv activate S' 'SAFESET SET1 SET2'
    # A described device: its own set names, also while another run holds the lock.
    kiv initialize >/dev/null 2>&1
    kiv partset 1 MyBoot >/dev/null
    expect 'kiv activate ' '0 1 2 MyBoot'
    expect 'kiv verify S' ''
    expect 'kiv -cfg=/nonexistent mount S' 'SAFESET SET1 SET2'
    exec 9>/tmp/kiv.lock
    flock -n 9
    expect 'kiv getrh M' 'MyBoot'
    ! ls /tmp/kiv-complete* 2>/dev/null || { echo "completion left files in /tmp"; fail=1; }
    exit $fail
    ;;
*) echo "unknown mode $mode" >&2 && exit 2 ;;
esac
