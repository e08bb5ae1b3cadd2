#!/usr/bin/env bash
# Installs the Debian 12 packages that building, running and testing need, when any is missing.
set -euo pipefail
packages=(
    cmake g++ make pkg-config git
    qt6-base-dev qt6-base-dev-tools libqt6svg6
    libtiff-dev libcairo2-dev libpixman-1-dev libfreetype-dev libfontconfig-dev zlib1g-dev libjpeg-dev
    libgtest-dev
    fonts-liberation fonts-urw-base35 fonts-dejavu-core
    ghostscript netpbm groff python3 python3-pil
    plotutils gnuplot-nox hp2xx
    xvfb xauth
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
