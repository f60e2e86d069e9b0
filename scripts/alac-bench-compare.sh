#!/usr/bin/env bash
# scripts/alac-bench-compare.sh REV [ROUNDS]: the decoder's speed against another revision's,
# in one run. Builds alac_bench of REV (in a temporary worktree, with REV's own build settings)
# and of this checkout, runs the two in turn ROUNDS times (default 9) on one core, and prints
# each stream's median real-time factor for both and their ratio. Streams only one of the two
# benchmarks knows are left out. With ZOR_ARMHF=1 both are built for the box (as
# scripts/build-armhf.sh does) and run under qemu-arm, which counts instructions more than it
# times a Cortex core.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 1 ] || { echo "usage: $0 REV [ROUNDS]" >&2; exit 2; }
rev=$1 rounds=${2:-9}
root=$PWD
tmp=$(mktemp -d)
trap 'git -C "$root" worktree remove --force "$tmp/rev" >/dev/null 2>&1 || true; rm -rf "$tmp"' EXIT

configure=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
run=()
here=build
if [ "${ZOR_ARMHF:-0}" = 1 ]; then
    scripts/install-cross-deps.sh
    configure+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-linux-gnueabihf.cmake")
    run=(qemu-arm -L /usr/arm-linux-gnueabihf)
    here=build-armhf
fi
git worktree add --detach "$tmp/rev" "$rev" >/dev/null
for pair in "$tmp/rev:$tmp/rev-build" "$root:$root/$here"; do
    cmake -S "${pair%%:*}" -B "${pair#*:}" "${configure[@]}" >/dev/null
    cmake --build "${pair#*:}" -j"$(nproc)" --target alac_bench >/dev/null
done

# Both read the committed streams of this checkout.
export ZOR_SOURCE_DIR=$root
for ((i = 0; i < rounds; ++i)); do
    for side in rev here; do
        [ "$side" = rev ] && bench=$tmp/rev-build/alac_bench || bench=$root/$here/alac_bench
        taskset -c 0 "${run[@]}" "$bench" --benchmark_format=json --benchmark_min_time=0.2 \
            >"$tmp/$side.$i.json" 2>/dev/null
    done
done
python3 - "$tmp" "$rounds" "$rev" <<'EOF'
import json, statistics, sys
tmp, rounds, rev = sys.argv[1], int(sys.argv[2]), sys.argv[3]
rt = {"rev": {}, "here": {}}
for side in rt:
    for i in range(rounds):
        for b in json.load(open(f"{tmp}/{side}.{i}.json"))["benchmarks"]:
            rt[side].setdefault(b["name"].split("/", 1)[-1], []).append(b["rt_factor"])
print(f"{'stream':<24}{rev[:12]:>12}{'this tree':>12}{'ratio':>8}   (real-time factor, medians of {rounds})")
for name, here in rt["here"].items():
    if name in rt["rev"]:
        a, b = statistics.median(rt["rev"][name]), statistics.median(here)
        print(f"{name:<24}{a:>12.0f}{b:>12.0f}{b / a:>8.2f}")
EOF
