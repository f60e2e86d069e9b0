#!/usr/bin/env bash
# Builds with gcc's --coverage into build-cov/, runs the whole suite there, and prints the
# line and branch coverage of src/ per folder (gcovr). Extra arguments go to ctest (-R ...);
# --report alone reports the last run again. The sandbox keeps the checkout visible, so the
# daemon's .gcda files land in build-cov/.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v gcovr >/dev/null || { echo "coverage.sh: gcovr is missing (apt-get install gcovr)" >&2; exit 1; }
jobs=$(nproc)
if [ "${1:-}" != --report ]; then
    cmake -S . -B build-cov -DZOR_COVERAGE=ON -DZOR_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=Debug >/dev/null
    cmake --build build-cov -j"$jobs" >/dev/null
    find build-cov -name '*.gcda' -delete
    ctest --test-dir build-cov -j"$jobs" --output-on-failure --timeout 300 "$@" || status=$?
fi
gcovr -r . --filter 'src/' --object-directory build-cov --exclude-throw-branches \
    --exclude-unreachable-branches --gcov-ignore-parse-errors \
    --json-summary build-cov/coverage.json build-cov >build-cov/gcovr.log 2>&1
python3 - build-cov/coverage.json <<'EOF'
import collections, json, os, sys
totals = collections.defaultdict(lambda: [0, 0, 0, 0])
for f in json.load(open(sys.argv[1]))["files"]:
    for key in (os.path.dirname(f["filename"]), "src (all)"):
        t = totals[key]
        t[0] += f["line_covered"]; t[1] += f["line_total"]
        t[2] += f["branch_covered"]; t[3] += f["branch_total"]
pct = lambda a, b: f"{100.0 * a / b:5.1f}%" if b else "    -"
print(f"{'folder':<22}{'lines':>18}{'branches':>20}")
for key in sorted(totals, key=lambda k: (k == "src (all)", k)):
    l, lt, b, bt = totals[key]
    print(f"{key:<22}{pct(l, lt):>8} {l:>4}/{lt:<4}{pct(b, bt):>10} {b:>4}/{bt:<4}")
EOF
exit "${status:-0}"
