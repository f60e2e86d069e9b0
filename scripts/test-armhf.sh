#!/usr/bin/env bash
# Runs the whole test suite on the armhf build (build-armhf/, scripts/build-armhf.sh) through
# qemu-user, then checks that alac_decode gives byte for byte the same PCM on both
# architectures for every committed vector (needs the native build/ too).
#
# ARM executables must run transparently, since the tests start the daemon and the tools as
# child processes inside their sandboxes. So this script enters a user namespace of its own,
# mounts that namespace's own binfmt_misc (kernel 6.7 and later) and registers qemu-arm there;
# the host's registrations are never looked at or changed, and the registration dies with
# the namespace. The F flag opens qemu-arm now, so it still runs inside the sandboxes' fresh
# mounts; the sandboxes' namespaces belong to this user namespace and so see the registration.
# Plain qemu-arm: ARM programs find the armhf multiarch libraries under the host's own /usr.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${ZOR_ARMHF_STAGE:-}" != inner ]; then
    command -v qemu-arm >/dev/null || { echo "test-armhf.sh: qemu-arm is missing (apt-get install qemu-user)" >&2; exit 1; }
    [ -x build-armhf/zor_airplay ] || { echo "test-armhf.sh: no build-armhf/ (scripts/build-armhf.sh)" >&2; exit 1; }
    ZOR_ARMHF_STAGE=inner exec unshare --user --map-root-user --mount -- bash "$0" "$@"
fi

mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
# ELF, 32-bit, little endian, executable or shared object, machine 40 (ARM).
magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
printf '%s' ":qemu-arm:M::$magic:$mask:$(command -v qemu-arm):F" >/proc/sys/fs/binfmt_misc/register
# The registration must reach into a sandbox's nested namespaces, where the tests run.
# (alac_decode without arguments prints its usage and fails; 126 is the shell's "cannot run").
status=0
tests/sandbox.sh build-armhf/alac_decode >/dev/null 2>&1 || status=$?
case "$status" in
    125 | 126 | 127) echo "test-armhf.sh: ARM programs do not run inside the sandbox ($status)" >&2; exit 1 ;;
esac

ctest --test-dir build-armhf -j"$(nproc)" --output-on-failure --timeout 600

# The decoder's output on both architectures, vector by vector.
out=build-armhf/alac-compare
rm -rf "$out" && mkdir -p "$out"
checked=0
while read -r name _bits _channels _frames _samples fmtp; do
    case "$name" in "#"* | "") continue ;; esac
    frames=tests/data/alac/$name.frames
    # shellcheck disable=SC2086
    build/alac_decode "$frames" $fmtp >"$out/$name.amd64"
    # shellcheck disable=SC2086
    build-armhf/alac_decode "$frames" $fmtp >"$out/$name.armhf"
    cmp "$out/$name.amd64" "$out/$name.armhf"
    checked=$((checked + 1))
done <tests/data/alac/vectors.txt
vectors=$(find tests/data/alac -name '*.frames' | wc -l)
[ "$checked" -eq "$vectors" ] || { echo "test-armhf.sh: $checked of $vectors vectors compared" >&2; exit 1; }
echo "alac_decode: armhf output identical to amd64 for all $checked vectors"
