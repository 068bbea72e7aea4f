#!/bin/sh
# Installs what is missing, builds everything (Release) and runs every test.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD="${QUORVANE_BUILD_DIR:-build}"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release
cmake --build "$BUILD" -j"$(nproc)"
ctest --test-dir "$BUILD" --output-on-failure -j"$(nproc)"
