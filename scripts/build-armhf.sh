#!/usr/bin/env bash
# Cross-builds everything (daemon, tools, tests, benchmarks) for the box's ARMv7 into
# build-armhf/, with Debian's armhf multiarch toolchain. Extra arguments go to cmake's
# configure step (e.g. -DZOR_KEY_FILE=...).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-cross-deps.sh
cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-linux-gnueabihf.cmake \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build build-armhf -j"$(nproc)"
