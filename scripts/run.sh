#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon in the foreground with player_sim
# standing in for the box's player; both log to this terminal. Ctrl-C stops both.
# Needs root: the daemon uses the box's fixed ports and paths (/tmp and its key file).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh

# The key path is a build setting (ZOR_KEY_FILE); the box's /opt path unless set otherwise.
key=$(sed -n 's/^ZOR_KEY_FILE:[A-Z]*=//p' build/CMakeCache.txt)
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
if [ ! -f "$key" ]; then
    echo "no $key: generating a 2048-bit RSA key for this PC"
    $sudo mkdir -p "$(dirname "$key")"
    $sudo openssl genrsa -traditional -out "$key" 2048 2>/dev/null
fi

build/player_sim --out /tmp/player_sim &
player=$!
trap 'kill $player 2>/dev/null; wait $player 2>/dev/null' EXIT
$sudo build/zor_airplay
