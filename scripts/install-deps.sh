#!/bin/sh
# Installs what Quorvane needs to build and test on Debian 12, as root or through sudo.
set -eu
SUDO=""
if [ "$(id -u)" != "0" ]; then SUDO="sudo"; fi
PACKAGES="g++ make cmake pkg-config libgtest-dev libgmock-dev libbenchmark-dev libopenimageio-dev nlohmann-json3-dev"
PACKAGES="$PACKAGES ${QUORVANE_EXTRA_PACKAGES:-}"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ] || [ "${QUORVANE_FORCE_APT_UPDATE:-0}" = "1" ]; then
    $SUDO apt-get update
fi
if [ -n "$missing" ]; then
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends $missing
fi
