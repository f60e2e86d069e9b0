#!/usr/bin/env bash
# scripts/package.sh [amd64|armhf]: builds the Debian package the Debian way (debian/,
# debhelper, dpkg-buildpackage) from a copy of the sources in build-deb/ARCH/, where the .deb
# lands, then checks it with lintian (no error, no warning). armhf is cross-built.
# DEB_BUILD_OPTIONS=nocheck skips the package's check step (the whole test suite).
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-$(dpkg --print-architecture)}
native=$(dpkg --print-architecture)

scripts/install-deps.sh debhelper dpkg-dev lintian
[ "$arch" = "$native" ] || scripts/install-cross-deps.sh

version=$(dpkg-parsechangelog -S Version)
out=build-deb/$arch
src=$out/zor-airplay-$version
rm -rf "$out" && mkdir -p "$src"
# Only what the repository holds: no build directories, no local leftovers.
git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - | tar -xf - -C "$src"

args=(-b -us -uc -j"$(nproc)")
[ "$arch" = "$native" ] || args+=(-a"$arch")
case " ${DEB_BUILD_OPTIONS:-} " in *" nocheck "*) args+=(-Pnocheck) ;; esac
(cd "$src" && dpkg-buildpackage "${args[@]}")

deb=$out/zor-airplay_${version}_$arch.deb
echo "built $deb ($(stat -c %s "$deb") bytes)"
lintian --fail-on error,warning "$deb"
echo "lintian: no error and no warning on $deb"
