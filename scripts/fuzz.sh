#!/usr/bin/env bash
# scripts/fuzz.sh [TARGET] [SECONDS]
#
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and UBSan into
# build-fuzz/, then runs TARGET (every target when it is absent or "all") for SECONDS each
# (default 60), or until 10 million executions. Each run starts from the committed corpus in
# fuzz/corpus/TARGET and keeps what it finds new in fuzz-out/TARGET/corpus (scratch, not
# committed); crash files land in fuzz-out/TARGET/. Runs go inside tests/sandbox.sh, so
# nothing reaches the host's /tmp or ports, at nice 10. A last line per target sums it up.
set -euo pipefail
cd "$(dirname "$0")/.."
readonly root=$PWD
target=${1:-all}
seconds=${2:-60}
build=$root/build-fuzz
out=$root/fuzz-out

command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ is missing (apt-get install clang libclang-rt-14-dev)" >&2; exit 1; }
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DZOR_FUZZ=ON -DZOR_SANITIZE=ON \
    -DBUILD_TESTING=OFF -DZOR_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=$(sed -n 's/^set(ZOR_FUZZ_TARGETS \(.*\))$/\1/p' "$root/fuzz/CMakeLists.txt")
[ "$target" = all ] || targets=$target
for t in $targets; do
    nice -n 5 cmake --build "$build" -j2 --target "${t}_fuzz" >/dev/null
done

status=0
for t in $targets; do
    mkdir -p "$out/$t/corpus"
    log=$out/$t/fuzz.log
    # Output of the parsers (log lines, the decoder's notes) is closed off: it would cost
    # more than the parsing. libFuzzer keeps its own reports.
    nice -n 10 "$root/tests/sandbox.sh" "$build/fuzz/${t}_fuzz" -max_total_time="$seconds" \
        -runs=10000000 -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$out/$t/" \
        "$out/$t/corpus" "$root/fuzz/corpus/$t" >"$log" 2>&1 || status=1
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    time=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log")
    echo "$t: ${execs:-?} executions, ${rate:-?} exec/s, ${time:-$seconds} s$(
        ls "$out/$t"/crash-* "$out/$t"/leak-* "$out/$t"/timeout-* 2>/dev/null | sed 's/^/, finding /' | tr '\n' ' ')"
done
exit $status
