#!/bin/sh
# The shipped kiv needs only libc at run time and carries no C++ exception or demangling
# machinery (a stray throwing library call pulls it back in). Usage: lean_binary.sh KIV
set -eu
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
extra=$(echo "$needed" | grep -Ev '^(libc\.so\..*|ld-linux.*)$' || true)
heavy=$(nm "$1" | grep -E '__gxx_personality|__cxa_demangle|_Unwind_RaiseException|__cxa_throw|__cpu_model' || true)
[ -z "$extra" ] || { echo "unexpected run-time dependency: $extra"; exit 1; }
[ -z "$heavy" ] || { echo "C++ runtime machinery linked in: $heavy"; exit 1; }
echo "needs: $needed"
