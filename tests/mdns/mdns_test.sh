#!/usr/bin/env bash
# tests/sandbox.sh --key-file KEY tests/mdns/mdns_test.sh BUILD_DIR
# Discovery as a phone sees it: the setup helper publishes, an avahi-daemon of our own announces
# on eth0, browse.py behind sender0 must find both services. Also the key step and withdraw.
set -euo pipefail
[ "${ZOR_SANDBOX:-}" = 1 ] || { echo "mdns_test.sh: run me through tests/sandbox.sh" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
setup=$(readlink -f "$1")/packaging/zor_airplay_setup
work=/tmp/mdns
export ZOR_AVAHI_SERVICES_DIR=$work/services
mkdir -p "$ZOR_AVAHI_SERVICES_DIR"
fail() { echo "FAIL $*"; echo "mdns: 0 passed, 1 failed"; exit 1; }

cp "$ZOR_RSA_KEY" "$work/key.before"
"$setup" key && cmp -s "$ZOR_RSA_KEY" "$work/key.before" || fail "key step replaced an existing key"
rm "$ZOR_RSA_KEY"
"$setup" key && openssl rsa -in "$ZOR_RSA_KEY" -noout -text 2>/dev/null | grep -q "Private-Key: (2048 bit" ||
    fail "key step made no 2048-bit key"
"$setup" publish
files=$(LC_ALL=C ls -A "$work/services" | tr '\n' ' ')  # no temporary name left behind
[ "$files" = "zor_airplay.service zor_airplay_raop.service " ] || fail "services directory holds $files"

unshare --net sleep 600 &  # the sender's network namespace
sender=$!
sleep 0.2
ip link set sender0 netns "$sender"
nsenter -t "$sender" -n sh -c "ip link set lo up && ip addr add $ZOR_SENDER_IP/24 dev sender0 && ip link set sender0 up"
mount --bind "$work/services" /etc/avahi/services
mount -t tmpfs tmpfs /run
printf '%s\n' "[server]" host-name=zorbox use-ipv4=yes use-ipv6=no allow-interfaces=eth0 enable-dbus=no \
    "[wide-area]" enable-wide-area=no "[publish]" publish-addresses=yes publish-hinfo=no \
    publish-workstation=no >"$work/avahi-daemon.conf"
avahi-daemon -f "$work/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits >"$work/avahi.log" 2>&1 & avahi=$!
trap 'kill "$avahi" "$sender" 2>/dev/null' EXIT
nsenter -t "$sender" -n /usr/bin/python3 "$here/browse.py" "$ZOR_SENDER_IP" "$ZOR_ETH0_IP" "$ZOR_ETH0_MAC" zorbox ||
    { status=$?; echo "--- avahi-daemon's log"; cat "$work/avahi.log"; exit "$status"; }
"$setup" withdraw
[ -z "$(ls -A "$work/services")" ] || fail "withdraw left files behind"
