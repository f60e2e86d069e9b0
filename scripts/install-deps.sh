#!/usr/bin/env bash
# Installs what building and testing need on Debian 12, skipping what is already there.
# Extra package names given as arguments are installed too (the cross-build, packaging and
# discovery scripts pass theirs).
set -euo pipefail

packages=(g++ cmake make pkg-config libssl-dev openssl libgtest-dev libgmock-dev googletest
          libbenchmark-dev busybox iproute2 util-linux curl python3 "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    echo "installing: ${missing[*]}"
    # One index that fails to download (a mirror mid-sync) must not stop the install: apt
    # still has the others, and a missing package fails the install below anyway.
    $sudo apt-get update -qq || echo "apt-get update reported errors; going on with the indexes it has"
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
