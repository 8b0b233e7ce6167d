#!/bin/sh
# The shipped kiv must need nothing but libc at run time and must not carry the C++
# exception and demangling machinery (a stray throwing library call pulls it back in).
# Usage: lean_binary.sh KIV_BINARY
set -eu
bin=$1
needed=$(readelf -d "$bin" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for lib in $needed; do
    case "$lib" in
        libc.so.*|ld-linux*) ;;
        *) echo "unexpected run-time dependency: $lib"; exit 1 ;;
    esac
done
heavy=$(nm "$bin" | grep -E '__gxx_personality|__cxa_demangle|_Unwind_RaiseException|__cxa_throw|__cpu_model' || true)
if [ -n "$heavy" ]; then
    echo "C++ runtime machinery linked into $bin:"
    echo "$heavy"
    exit 1
fi
echo "needs: $needed"
