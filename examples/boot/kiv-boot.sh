#!/bin/sh
# kiv-boot.sh: run once at every boot, after the file systems are mounted and before the
# application starts. It confirms a set that is being tested, runs the integrator's health
# check, and validates the set or falls back to the previous one.
#
# Usage: kiv-boot.sh [HEALTH-CHECK [ARGS...]]
#   HEALTH-CHECK  a command whose success says the new release works (default: the
#                 shell command in $KIV_HEALTH_CHECK; without either, reaching this
#                 script is the check)
# Environment:
#   KIV                   the kiv binary (default: kiv from PATH)
#   KIV_HEALTH_CHECK      shell command used when no HEALTH-CHECK argument is given
#   KIV_HEALTH_TIMEOUT    seconds the health check may take (default 120)
#   KIV_BOOT_REBOOT       command that reboots after a fall back (default: reboot)
#
# The boot loader passes the booted set on the kernel command line: KIVSET=SET1,
# KIVSET=SET2 or KIVSET=SAFESET. See README.md for what it is expected to do.
#
# Exit status: 0 the running set is valid; 1 the health check failed (the previous set
# was made active and a reboot requested); 2 a kiv command failed.
set -eu
# pipefail where the shell has it (busybox ash, bash); POSIX sh has none.
# shellcheck disable=SC3040
if (set -o pipefail) 2>/dev/null; then set -o pipefail; fi

KIV=${KIV:-kiv}
TIMEOUT=${KIV_HEALTH_TIMEOUT:-120}
REBOOT=${KIV_BOOT_REBOOT:-reboot}

# say PRIORITY MESSAGE: on standard error and, where there is a logger, in the system log.
say() {
    echo "kiv-boot: $2" >&2
    if command -v logger >/dev/null 2>&1; then logger -t kiv-boot -p "user.$1" -- "$2" || true; fi
}

# The set the boot loader started, by the same rule kiv applies: SAFESET, or 0 when the
# command line names none.
booted_set() {
    set -f # the words of the command line are not file names
    for word in $(cat /proc/cmdline 2>/dev/null || true); do
        case $word in
            KIVSET=SAFESET) echo 0; return ;;
            KIVSET=SET[0-9]*) echo "${word#KIVSET=SET}"; return ;;
        esac
    done
    echo 0
}

active_set() {
    "$KIV" getrh active | sed -n 's/^# Selected Partition Set: \([0-9]*\).*/\1/p'
}

# VALID, TEST or BOOT; the fallback set is always VALID.
state_of() {
    [ "$1" -eq 0 ] && { echo VALID; return; }
    "$KIV" info | sed -n "s/^KIV Data Upgrade set $1: \([A-Z]*\).*/\1/p"
}

kiv_or_fail() {
    if ! "$KIV" "$@"; then
        say err "kiv $* failed"
        exit 2
    fi
}

health_check() {
    if [ $# -eq 0 ] && [ -z "${KIV_HEALTH_CHECK:-}" ]; then return 0; fi
    if [ $# -eq 0 ]; then set -- sh -c "$KIV_HEALTH_CHECK"; fi
    # A check that hangs must not keep a broken release running.
    if command -v timeout >/dev/null 2>&1; then
        timeout "$TIMEOUT" "$@"
    else
        "$@"
    fi
}

boot=$(booted_set)
active=$(active_set) || { say err "cannot read the active set"; exit 2; }
if [ -z "$active" ]; then
    say err "cannot read the active set"
    exit 2
fi

if [ "$boot" != "$active" ]; then
    # The boot loader fell back: the active set did not confirm its last boot. Make the
    # running set the active one, so that the next install (set -1) goes into the broken
    # set and not into the one that runs.
    say warning "booted set $boot, but set $active is active: it failed to boot; activating set $boot"
    kiv_or_fail activate "$boot"
fi

state=$(state_of "$boot")
# BOOT to TEST: the new set got as far as user space.
kiv_or_fail upgrade test

if health_check "$@"; then
    kiv_or_fail upgrade validate
    say notice "set $boot is valid"
    exit 0
fi

if [ "$state" = VALID ]; then
    say err "health check failed on set $boot, which was validated before: nothing to fall back to"
    exit 1
fi

# The new release is not confirmed: go back to the set that ran before it. kiv activate
# checks that set's partitions first; if they do not verify, the fallback set it is.
previous=$((3 - boot))
say err "health check failed on set $boot (state $state): falling back to set $previous"
if ! "$KIV" activate "$previous"; then
    say err "set $previous does not verify: falling back to SAFESET"
    kiv_or_fail activate 0
fi
$REBOOT || say err "reboot failed"
exit 1
