#!/bin/sh
# Installs what is missing, builds the quorvane command and the effect, and cleans the bundled
# sample sequence (samples/lemur: a real photograph with its matte plus keyer-like garbage):
# the cleaned frames go to out/lemur.0001.png ... out/lemur.0005.png, and a before/after
# contact sheet (input left, output right, both over a checkerboard) to out/contact-sheet.png.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
BUILD="${QUORVANE_BUILD_DIR:-build}"
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release
cmake --build "$BUILD" -j"$(nproc)" --target quorvane
"$BUILD/quorvane" render samples/lemur/lemur.####.png out/lemur.####.png \
    --preset samples/lemur/clean.json --contact-sheet out/contact-sheet.png
echo "Cleaned frames: out/lemur.0001.png ... out/lemur.0005.png"
echo "Before (left) and after (right): out/contact-sheet.png"
