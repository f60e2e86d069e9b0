#!/usr/bin/env bash
# tests/sandbox.sh --key-file KEY tests/mdns/mdns_test.sh BUILD_DIR
#
# Discovery end to end, as a phone would see it: the setup helper of BUILD_DIR (packaging/)
# publishes its service files, an avahi-daemon of this test's own (no D-Bus, eth0 only, the
# files bound over /etc/avahi/services) announces them in the box's network namespace, and a
# browser in a second namespace that holds sender0 must find both services with the right
# names, ports, address and TXT records. Also: the helper's key step makes a key only when
# there is none, and withdraw removes the files.
set -euo pipefail
[ "${ZOR_SANDBOX:-}" = 1 ] || { echo "mdns_test.sh: run me through tests/sandbox.sh" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
setup=$(readlink -f "$1")/packaging/zor_airplay_setup
host=zorbox
work=/tmp/mdns
mkdir -p "$work/services"
fail() { echo "FAIL $*"; echo "mdns: 0 passed, 1 failed"; exit 1; }

# The key step: an existing key stays; a missing one is made, 2048 bits.
cp "$ZOR_RSA_KEY" "$work/key.before"
"$setup" key && cmp -s "$ZOR_RSA_KEY" "$work/key.before" || fail "key step replaced an existing key"
rm "$ZOR_RSA_KEY"
"$setup" key && openssl rsa -in "$ZOR_RSA_KEY" -noout -text 2>/dev/null | grep -q "Private-Key: (2048 bit" ||
    fail "key step made no 2048-bit key"

ZOR_AVAHI_SERVICES_DIR=$work/services "$setup" publish
# Exactly the two files: no temporary name left behind.
[ "$(LC_ALL=C ls -A "$work/services" | tr '\n' ' ')" = "zor_airplay.service zor_airplay_raop.service " ] ||
    fail "the services directory holds $(ls -A "$work/services")"

# The sender's own network namespace, holding sender0.
unshare --net sleep 600 &
sender=$!
sleep 0.2
ip link set sender0 netns "$sender"
nsenter -t "$sender" -n sh -c "ip link set lo up && ip addr add $ZOR_SENDER_IP/24 dev sender0 && ip link set sender0 up"

mount --bind "$work/services" /etc/avahi/services
mount -t tmpfs tmpfs /run
cat >"$work/avahi-daemon.conf" <<CONF
[server]
host-name=$host
use-ipv4=yes
use-ipv6=no
allow-interfaces=eth0
enable-dbus=no
[wide-area]
enable-wide-area=no
[publish]
publish-addresses=yes
publish-hinfo=no
publish-workstation=no
CONF
avahi-daemon -f "$work/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits >"$work/avahi.log" 2>&1 &
avahi=$!
trap 'kill "$avahi" "$sender" 2>/dev/null' EXIT

status=0
nsenter -t "$sender" -n /usr/bin/python3 "$here/browse.py" "$ZOR_SENDER_IP" "$ZOR_ETH0_IP" "$ZOR_ETH0_MAC" "$host" ||
    status=$?
if [ "$status" -ne 0 ]; then
    echo "--- avahi-daemon's log"
    cat "$work/avahi.log"
    exit "$status"
fi

ZOR_AVAHI_SERVICES_DIR=$work/services "$setup" withdraw
[ -z "$(ls -A "$work/services")" ] || fail "withdraw left files behind"
