#!/usr/bin/env bash
# scripts/verify-unit.sh [DEB]: runs systemd-analyze verify on the unit as the package
# (build-deb/<arch>/*.deb by default) installs it: in a mount namespace of this script's own,
# the package's files are laid over the host's /usr with a read-only overlay, so the unit's
# programs, its man page and the host's systemd units are all where they will be, and
# nothing is installed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=build-deb/verify-root
unit=/lib/systemd/system/zor-airplay.service

if [ "${ZOR_VERIFY_STAGE:-}" != inner ]; then
    deb=${1:-$(ls build-deb/"$(dpkg --print-architecture)"/zor-airplay_*.deb)}
    rm -rf "$root" && mkdir -p "$root"
    dpkg-deb -x "$deb" "$root"
    [ -f "$root$unit" ] || { echo "verify-unit.sh: $deb has no $unit" >&2; exit 1; }
    ns=(--mount)
    [ "$(id -u)" -eq 0 ] || ns=(--user --map-root-user --mount)
    ZOR_VERIFY_STAGE=inner exec unshare "${ns[@]}" -- bash "$0"
fi

mount --make-rprivate /
root=$(readlink -f "$root")
for top in usr lib; do
    [ -d "$root/$top" ] || continue
    target=$(readlink -f "/$top") # /lib is /usr/lib on a merged /usr
    mount -t overlay overlay -o "lowerdir=$root/$top:$target" "$target"
done
# The unit's commands must exist as installed (the links point into busybox).
for cmd in $(sed -n 's/^Exec[A-Za-z]*=-\{0,1\}\([^ ]*\).*/\1/p' "$unit"); do
    [ -x "$cmd" ] || { echo "verify-unit.sh: $cmd is not installed by the package" >&2; exit 1; }
done
out=$(systemd-analyze verify "$unit" 2>&1) || { echo "$out" >&2; exit 1; }
[ -z "$out" ] || { echo "$out" >&2; echo "verify-unit.sh: systemd-analyze found problems" >&2; exit 1; }
echo "systemd-analyze verify: $unit clean"
