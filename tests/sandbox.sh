#!/usr/bin/env bash
# tests/sandbox.sh [--key-file PATH] CMD [ARGS...]: runs CMD, with its exit status, in fresh
# PID, mount and network namespaces set up like the box: "eth0" and its veth peer "sender0" (the
# tests' senders), tmpfs /tmp and /opt, a fresh 2048-bit key with its .pub, BusyBox's ifconfig
# and wget first on PATH. Only CMD writes to stdout (gtest's test discovery reads it).
set -u
readonly ETH0_MAC=02:5a:4f:52:00:01 ETH0_IP=192.0.2.10 SENDER_IP=192.0.2.20
readonly KEY_FILE=${ZOR_SANDBOX_KEY_FILE:-/opt/zor/app/airplay/RAOPKey.rsa}
readonly KEY_DIR=${KEY_FILE%/*} PUB_FILE=${KEY_FILE%.rsa}.pub BIN_DIR=/opt/zor/sandbox/bin

die() { echo "sandbox.sh: $*" >&2; exit 125; }

# An empty /tmp; a checkout, build or CMD under the host's /tmp (a CI clone) stays visible.
fresh_tmp() {
    local hold=/opt/zor/sandbox/host-tmp p
    local -a keep=()
    for p in "$(dirname "$(readlink -f "$0")")/.." "$PWD" "$(dirname "$(command -v "$1" || echo /)")"; do
        p=$(readlink -f "$p") && case "$p" in /tmp/?*) keep+=("$p") ;; esac
    done
    [ ${#keep[@]} -eq 0 ] || { mkdir -p "$hold" && mount --rbind /tmp "$hold"; } || die "cannot hold /tmp"
    mount -t tmpfs -o mode=1777 tmpfs /tmp || die "cannot mount a tmpfs on /tmp"
    for p in "${keep[@]}"; do
        mkdir -p "$p" && mount --rbind "$hold${p#/tmp}" "$p" || die "cannot keep $p visible"
    done
    [ ${#keep[@]} -eq 0 ] || { umount -l "$hold" && rmdir "$hold"; } || die "cannot release /tmp"
}

# A key directory writable in memory only: a tmpfs on it, else an overlay on its deepest parent.
key_dir() {
    case "$KEY_DIR/" in /opt/*) mkdir -p "$KEY_DIR"; return ;; esac
    if [ -d "$KEY_DIR" ]; then
        mount -t tmpfs -o mode=700 tmpfs "$KEY_DIR" || die "cannot mount a tmpfs on $KEY_DIR"
        return
    fi
    local base=$KEY_DIR layer=/opt/zor/sandbox/keylayer
    while [ -n "$base" ] && [ ! -d "$base" ]; do base=${base%/*}; done
    [ -n "$base" ] && mkdir -p "$layer/upper" "$layer/work" &&
        mount -t overlay overlay -o "lowerdir=$base,upperdir=$layer/upper,workdir=$layer/work" "$base" &&
        mkdir -p "$KEY_DIR" || die "cannot make $KEY_DIR in an overlay"
}

inner() {
    mount --make-rprivate / || die "cannot make the mounts private"
    mount -t tmpfs -o mode=755 tmpfs /opt && mkdir -p "$BIN_DIR" || die "cannot mount a tmpfs on /opt"
    key_dir
    fresh_tmp "$@"
    openssl genrsa -traditional -out "$KEY_FILE" 2048 >/dev/null 2>&1 &  # slow: overlapped
    local keygen=$! busybox
    ip link set lo up && ip link add eth0 address "$ETH0_MAC" type veth peer name sender0 &&
        ip addr add "$ETH0_IP/24" brd + dev eth0 && ip addr add "$SENDER_IP/24" brd + dev sender0 &&
        ip link set eth0 up && ip link set sender0 up || die "cannot configure eth0/sender0"
    mount -t sysfs sysfs /sys || die "cannot mount a sysfs for the new network"
    busybox=$(command -v busybox) || die "busybox is missing"
    ln -s "$busybox" "$BIN_DIR/ifconfig" && ln -s "$busybox" "$BIN_DIR/wget"
    wait "$keygen" && openssl rsa -in "$KEY_FILE" -pubout -out "$PUB_FILE" >/dev/null 2>&1 ||
        die "cannot make the key"
    export ZOR_SANDBOX=1 ZOR_ETH0_MAC="$ETH0_MAC" ZOR_ETH0_IP="$ETH0_IP" ZOR_SENDER_IP="$SENDER_IP"
    export ZOR_RSA_KEY="$KEY_FILE" ZOR_RSA_PUBKEY="$PUB_FILE" PATH="$BIN_DIR:$PATH"
    unset ZOR_SANDBOX_STAGE ZOR_SANDBOX_KEY_FILE
    # A child, not exec'd: PID 1 ignores default-action signals, which CMD must not inherit;
    # and this shell reaps what CMD orphans. A trapped signal ends wait while CMD still runs.
    "$@" &
    local cmd=$! status
    trap 'kill -TERM "$cmd" 2>/dev/null' TERM INT HUP
    while wait "$cmd"; status=$?; kill -0 "$cmd" 2>/dev/null; do :; done
    exit "$status"
}

outer() {
    if [ "${1:-}" = --key-file ]; then
        [ $# -ge 2 ] && [ "${2:0:1}" = / ] || die "--key-file needs an absolute path"
        export ZOR_SANDBOX_KEY_FILE=$2
        shift 2
    fi
    [ $# -ge 1 ] || die "usage: tests/sandbox.sh [--key-file PATH] CMD [ARGS...]"
    # --kill-child: a killed sandbox (a test time-out) takes everything inside with it.
    local -a ns=(--net --mount --pid --fork --mount-proc --kill-child) tries=("--user --map-root-user")
    local extra
    [ "$(id -u)" -ne 0 ] || tries=("" "${tries[@]}")
    for extra in "${tries[@]}"; do
        # shellcheck disable=SC2086
        unshare $extra "${ns[@]}" true 2>/dev/null &&
            ZOR_SANDBOX_STAGE=inner exec unshare $extra "${ns[@]}" -- bash "$(readlink -f "$0")" "$@"
    done
    die "cannot create namespaces: run as root or enable unprivileged user namespaces"
}

if [ "${ZOR_SANDBOX_STAGE:-}" = inner ]; then inner "$@"; else outer "$@"; fi
