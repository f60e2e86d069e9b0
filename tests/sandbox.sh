#!/usr/bin/env bash
# tests/sandbox.sh [--key-file PATH] CMD [ARGS...]
#
# Runs CMD inside fresh Linux namespaces prepared like the box and exits with CMD's status:
#   - its own network: lo up, "eth0" (MAC 02:5a:4f:52:00:01, 192.0.2.10/24) and its veth peer
#     "sender0" (192.0.2.20/24), the address that senders and media servers in tests bind to;
#   - its own /tmp (tmpfs) and /opt (tmpfs: nothing is ever created under the host's /opt);
#   - the daemon's key file (--key-file, the build's setting; /opt/zor/app/airplay/RAOPKey.rsa
#     by default), a 2048-bit RSA key (PKCS#1 PEM) made for this run, with its public half
#     beside it (.pub for .rsa); a key directory outside /opt lies under an overlay whose
#     changes live in memory, so the host's directories stay as they are;
#   - a sysfs of the new network, so /sys/class/net/eth0/address shows eth0's MAC;
#   - BusyBox's ifconfig (which prints "inet addr:" as the box's does) and wget first on
#     PATH, the two the daemon runs through the shell;
#   - its own PID namespace: whatever CMD leaves running dies with it.
# CMD sees ZOR_SANDBOX=1, ZOR_ETH0_MAC, ZOR_ETH0_IP, ZOR_SENDER_IP, ZOR_RSA_KEY, ZOR_RSA_PUBKEY.
#
# As root it uses the namespaces directly; otherwise it needs unprivileged user namespaces
# (it then maps the caller to root inside). Every run is independent, so runs in parallel
# (ctest -j) cannot collide. Nothing but CMD's own output goes to stdout, since gtest's test
# discovery reads it.
set -u

readonly ETH0_MAC=02:5a:4f:52:00:01
readonly ETH0_IP=192.0.2.10
readonly SENDER_IP=192.0.2.20
readonly KEY_FILE=${ZOR_SANDBOX_KEY_FILE:-/opt/zor/app/airplay/RAOPKey.rsa}
readonly KEY_DIR=${KEY_FILE%/*}
readonly PUB_FILE=${KEY_FILE%.rsa}.pub
readonly BIN_DIR=/opt/zor/sandbox/bin

die() {
    echo "sandbox.sh: $*" >&2
    exit 125
}

# Covers /tmp with an empty tmpfs. A checkout, build or CMD that lives under the host's
# /tmp (a CI clone, say) stays visible at its own path: it is bound back in.
fresh_tmp() {
    local hold=/opt/zor/sandbox/host-tmp
    local -a keep=()
    local p
    for p in "$(dirname "$(readlink -f "$0")")/.." "$PWD" "$(dirname "$(command -v "$1" || echo /)")"; do
        p=$(readlink -f "$p") || continue
        case "$p" in /tmp/?*) keep+=("$p") ;; esac
    done
    if [ ${#keep[@]} -gt 0 ]; then
        mkdir -p "$hold" && mount --rbind /tmp "$hold" || die "cannot hold the host's /tmp"
    fi
    mount -t tmpfs -o mode=1777 tmpfs /tmp || die "cannot mount a tmpfs on /tmp"
    for p in "${keep[@]}"; do
        mkdir -p "$p" && mount --rbind "$hold${p#/tmp}" "$p" || die "cannot keep $p visible"
    done
    if [ ${#keep[@]} -gt 0 ]; then
        umount -l "$hold" && rmdir "$hold" || die "cannot release the host's /tmp"
    fi
}

# Makes the key directory writable in memory only. An existing directory gets a tmpfs; a missing
# one is made inside an overlay on its deepest existing parent, so nothing lands on the host.
key_dir() {
    case "$KEY_DIR/" in /opt/*) mkdir -p "$KEY_DIR"; return ;; esac
    if [ -d "$KEY_DIR" ]; then
        mount -t tmpfs -o mode=700 tmpfs "$KEY_DIR" || die "cannot mount a tmpfs on $KEY_DIR"
        return
    fi
    local base=$KEY_DIR
    while [ -n "$base" ] && [ ! -d "$base" ]; do base=${base%/*}; done
    [ -n "$base" ] || die "no parent of $KEY_DIR to lay an overlay on"
    local layer=/opt/zor/sandbox/keylayer
    mkdir -p "$layer/upper" "$layer/work" &&
        mount -t overlay overlay -o "lowerdir=$base,upperdir=$layer/upper,workdir=$layer/work" "$base" &&
        mkdir -p "$KEY_DIR" || die "cannot make $KEY_DIR in an overlay on $base"
}

# Everything below runs as PID 1 of the new namespaces; it prepares them, then runs CMD.
inner() {
    mount --make-rprivate / || die "cannot make the mounts private"
    [ -d /opt ] || die "/opt does not exist on this machine; the key directory lives under it"
    mount -t tmpfs -o mode=755 tmpfs /opt || die "cannot mount a tmpfs on /opt"
    mkdir -p "$BIN_DIR"
    key_dir
    fresh_tmp "$@"

    # Key generation is the slow part (a few hundred ms): overlap it with the rest.
    openssl genrsa -traditional -out "$KEY_FILE" 2048 >/dev/null 2>&1 &
    local keygen=$!

    ip link set lo up || die "cannot bring up lo"
    ip link add eth0 address "$ETH0_MAC" type veth peer name sender0 ||
        die "cannot create the eth0/sender0 veth pair"
    ip addr add "$ETH0_IP/24" brd + dev eth0 &&
        ip addr add "$SENDER_IP/24" brd + dev sender0 &&
        ip link set eth0 up && ip link set sender0 up || die "cannot configure eth0/sender0"
    mount -t sysfs sysfs /sys || die "cannot mount a sysfs for the new network"

    local busybox
    busybox=$(command -v busybox) || die "busybox is missing (apt-get install busybox)"
    ln -s "$busybox" "$BIN_DIR/ifconfig"
    ln -s "$busybox" "$BIN_DIR/wget"

    wait "$keygen" || die "openssl genrsa failed"
    openssl rsa -in "$KEY_FILE" -pubout -out "$PUB_FILE" >/dev/null 2>&1 ||
        die "cannot derive the public key"

    export ZOR_SANDBOX=1 ZOR_ETH0_MAC="$ETH0_MAC" ZOR_ETH0_IP="$ETH0_IP"
    export ZOR_SENDER_IP="$SENDER_IP" ZOR_RSA_KEY="$KEY_FILE"
    export ZOR_RSA_PUBKEY="$PUB_FILE" PATH="$BIN_DIR:$PATH"
    unset ZOR_SANDBOX_STAGE ZOR_SANDBOX_KEY_FILE

    # CMD runs as a child, not exec'd: PID 1 ignores default-action signals, which a test
    # program must not inherit; and this shell reaps whatever CMD orphans.
    "$@" &
    local cmd=$!
    trap 'kill -TERM "$cmd" 2>/dev/null' TERM INT HUP
    local status
    while :; do
        wait "$cmd"
        status=$?
        # A trapped signal interrupts wait with status > 128 while CMD still runs.
        kill -0 "$cmd" 2>/dev/null || break
    done
    exit "$status"
}

outer() {
    if [ "${1:-}" = --key-file ]; then
        [ $# -ge 2 ] && [ "${2:0:1}" = / ] || die "--key-file needs an absolute path"
        export ZOR_SANDBOX_KEY_FILE=$2
        shift 2
    fi
    [ $# -ge 1 ] || die "usage: tests/sandbox.sh [--key-file PATH] CMD [ARGS...]"
    command -v unshare >/dev/null || die "unshare (util-linux) is missing"
    command -v ip >/dev/null || die "ip (iproute2) is missing"
    command -v openssl >/dev/null || die "openssl is missing"

    local script
    script=$(readlink -f "$0")
    # --kill-child: if this process is killed (a test time-out), the namespace's PID 1 and so
    # every process inside dies too.
    local -a ns=(--net --mount --pid --fork --mount-proc --kill-child)
    local -a tries=()
    [ "$(id -u)" -eq 0 ] && tries+=("")
    tries+=("--user --map-root-user")
    local extra
    for extra in "${tries[@]}"; do
        # shellcheck disable=SC2086
        if unshare $extra "${ns[@]}" true 2>/dev/null; then
            # shellcheck disable=SC2086
            ZOR_SANDBOX_STAGE=inner exec unshare $extra "${ns[@]}" -- bash "$script" "$@"
        fi
    done
    die "cannot create network, mount and PID namespaces: run as root, or enable unprivileged" \
        "user namespaces (sysctl kernel.unprivileged_userns_clone=1 /" \
        "user.max_user_namespaces > 0)"
}

if [ "${ZOR_SANDBOX_STAGE:-}" = inner ]; then
    inner "$@"
else
    outer "$@"
fi
