#!/usr/bin/env bash
# A build's Debian packages installed with dpkg --root, run, and checked by lintian.
# Usage: packages.sh BUILD_DIR SCRATCH_DIR
set -euo pipefail
build=$1 scratch=$2 root=$2/root
rm -rf "$scratch" && mkdir -p "$scratch/debs" "$root"/var/lib/dpkg/{info,updates}
touch "$root/var/lib/dpkg/status"
(cd "$scratch/debs" && cpack --config "$build/CPackConfig.cmake" -G DEB >/dev/null)
shopt -s nullglob
debs=("$scratch"/debs/*.deb)
[ ${#debs[@]} -eq 2 ] || { echo "expected 2 packages, got: ${debs[*]}"; exit 1; }

device=$(dpkg-deb -c "$scratch"/debs/kiv_*.deb | awk '$6 !~ /\/$/ {print $6}' | sort | tr '\n' ' ')
expected="./usr/bin/kiv ./usr/include/kiv_plugin.h ./usr/share/bash-completion/completions/kiv \
./usr/share/doc/kiv/changelog.gz ./usr/share/doc/kiv/copyright ./usr/share/man/man1/kiv.1.gz "
[ "$device" = "$expected" ] || { echo "device package holds: $device, not: $expected"; exit 1; }

dpkg --root="$root" --force-depends -i "${debs[@]}" >"$scratch/dpkg.log" 2>&1 ||
    { cat "$scratch/dpkg.log"; exit 1; }
"$root/usr/bin/kiv" help | grep -q '^Usage' || { echo "installed kiv help printed no usage"; exit 1; }
"$root/usr/bin/mkzunf" --help >/dev/null
for tool in kiv-sandbox kiv-flashsim; do [ -x "$root/usr/bin/$tool" ]; done
dpkg --root="$root" -L kiv-tools | grep -q /usr/bin/kiv-sandbox

lintian --fail-on error "${debs[@]}"
echo "packages install and pass lintian: ${debs[*]##*/}"
