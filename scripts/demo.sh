#!/bin/sh
# Installs what is missing, builds, and runs a headless-host session of the effect: the
# About text and the control panel as the host shows them.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD="${QUORVANE_BUILD_DIR:-build}"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release
cmake --build "$BUILD" -j"$(nproc)" --target quorvane_session
"$BUILD/quorvane_session"
