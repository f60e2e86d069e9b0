#!/usr/bin/env bash
# Discovery end to end (tests/mdns/mdns_test.sh) inside a sandbox, for the native build/:
# an avahi-daemon of the test's own publishes the setup helper's files in the box's network
# namespace, a python3-zeroconf browser in the sender's namespace must find both services.
# Needs root: avahi-daemon hands its runtime directory to its own user, which a user
# namespace of an ordinary user cannot map.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "test-mdns.sh: run as root (sudo)" >&2; exit 1; }
scripts/install-deps.sh avahi-daemon python3-zeroconf
[ -x build/packaging/zor_airplay_setup ] || scripts/build.sh
key=$(sed -n 's/^ZOR_KEY_FILE:[A-Z]*=//p' build/CMakeCache.txt)
tests/sandbox.sh --key-file "$key" tests/mdns/mdns_test.sh build
