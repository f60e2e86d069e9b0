#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite. Every test case runs in
# its own sandbox (tests/sandbox.sh): own network, /tmp and key directory, nothing on the host.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
ctest --test-dir build -j"$(nproc)" --output-on-failure --timeout 300
