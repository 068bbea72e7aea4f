#!/bin/sh
# Builds and runs every test under AddressSanitizer and UndefinedBehaviorSanitizer.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD="${QUORVANE_ASAN_BUILD_DIR:-build-asan}"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVANE_SANITIZE=ON
cmake --build "$BUILD" -j"$(nproc)"
ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    ctest --test-dir "$BUILD" --output-on-failure -j"$(nproc)"
