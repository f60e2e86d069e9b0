#!/usr/bin/env bash
# Installs the armhf cross toolchain, the armhf copies of the libraries and qemu-user.
#
# The amd64 and armhf copies of a Multi-Arch: same library must have the same version, and the
# two architectures' indexes are not always in step (a security index may fail to download
# for one of them). So each such library is installed for both at the newest version that
# both offer, even if that means taking the amd64 copy back to it.
set -euo pipefail
cd "$(dirname "$0")/.."

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
# Runtime libraries first: the -dev packages pin them to their own version.
paired=(libc6 libgcc-s1 libstdc++6 libssl3 libssl-dev libgtest-dev libgmock-dev
        libbenchmark1debian libbenchmark-dev)
tools=(crossbuild-essential-armhf qemu-user)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

need=0
for p in "${paired[@]}"; do installed "$p:armhf" || need=1; done
for p in "${tools[@]}"; do installed "$p" || need=1; done
[ "$need" -eq 1 ] || exit 0

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    $sudo dpkg --add-architecture armhf
fi
$sudo apt-get update -qq || echo "install-cross-deps.sh: apt-get update reported errors; going on" >&2

# Versions of a package for one architecture, newest first.
versions() { apt-cache madison "$1:$2" | awk -F'|' -v a=" $2 " '$3 ~ a {gsub(/ /,"",$2); print $2}'; }

args=()
for p in "${paired[@]}"; do
    common=""
    armhf=$(versions "$p" armhf)
    for v in $(versions "$p" amd64); do
        if grep -qxF "$v" <<<"$armhf"; then common=$v; break; fi
    done
    [ -n "$common" ] || { echo "install-cross-deps.sh: no version of $p for both amd64 and armhf" >&2; exit 1; }
    args+=("$p:amd64=$common" "$p:armhf=$common")
done
echo "installing for amd64 and armhf: ${args[*]}"
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --allow-downgrades --no-remove "${args[@]}" "${tools[@]}"
