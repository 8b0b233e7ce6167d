#!/bin/sh
# The "next boot" after a power cut: exit 0 when kiv kept its promises, 100 when the only
# loss is one PC_ACCEPT names, 1 otherwise. PC_BEFORE/PC_AFTER: snapshots of uncut runs;
# PC_PREV: the set active before, which must still verify and activate; PC_TARGET: the set
# installed into, which verifies once committed; PC_RERUN always|before: when the command
# (PC_SCENARIO) runs again, to the state of an uncut run. PC_ACCEPT: prev-loss (writes in
# place into the previous set's partitions: a singleton under -f, -rewrite of shared
# content), state-window (a state set after the save, which erases the state bytes).
# Usage: check.sh snap | check.sh
set -u

snap() {
    kiv info 2>/dev/null | grep -v '^KIV Data Upgrade'
    echo "info exit $?"
    od -An -tx1 -j131070 -N2 /dev/mtd5
}
[ "${1:-}" = snap ] && { snap; exit 0; }

fail() { echo "$*"; exit 1; }
accepted=""
accept() { # REASON KIND: a loss the design accepts for this command, else a failure
    case " ${PC_ACCEPT:-} " in *" $2 "*) accepted="$1" ;; *) fail "$1" ;; esac
}

now=$(snap)
hc_of() { sed '$d'; }
state_of() { tail -n 1; }
before=$(cat "$PC_BEFORE") after=$(cat "$PC_AFTER")
if [ "$now" = "$before" ]; then
    state=before
elif [ "$now" = "$after" ]; then
    state=after
elif [ "$(echo "$now" | hc_of)" = "$(echo "$after" | hc_of)" ] &&
     { [ "$(echo "$now" | state_of)" = "$(echo "$before" | state_of)" ] ||
       [ "$(echo "$now" | state_of)" = " ff ff" ]; }; then
    state=after
    accept "committed, but the state bytes are not yet written" state-window
else
    fail "the hostconfig or the state bytes are neither before nor after the command"
fi

if [ -n "$PC_PREV" ]; then
    kiv verify "$PC_PREV" >/dev/null 2>&1 ||
        accept "set $PC_PREV, active before, no longer verifies ($state)" prev-loss
    kiv activate "$PC_PREV" -dryrun >/dev/null 2>&1 || [ -n "$accepted" ] ||
        fail "set $PC_PREV cannot be activated ($state)"
fi
if [ "$state" = after ] && [ -n "$PC_TARGET" ]; then
    kiv verify "$PC_TARGET" >/dev/null 2>&1 || fail "set $PC_TARGET is committed but does not verify"
fi

if [ "$PC_RERUN" = always ] || [ "$state" = before ]; then
    sh -c "$PC_SCENARIO" >/dev/null 2>&1 || fail "running the command again fails: exit $? ($state)"
    # After an accepted loss the rerun may place contents elsewhere; it must still complete.
    if [ -n "$accepted" ] && [ -n "$PC_TARGET" ]; then
        kiv verify "$PC_TARGET" >/dev/null 2>&1 || fail "set $PC_TARGET does not verify after the rerun"
    else
        [ "$(snap)" = "$after" ] || fail "running the command again leaves another state ($state)"
    fi
fi
[ -z "$accepted" ] && exit 0
echo "$accepted"
exit 100
