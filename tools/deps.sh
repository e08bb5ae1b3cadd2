#!/usr/bin/env bash
# Installs the Debian 12 packages that building, running and testing need, when any is missing.
set -euo pipefail
packages=(
    cmake g++ make pkg-config git
    qt6-base-dev qt6-base-dev-tools libqt6svg6
    libtiff-dev libcairo2-dev libpixman-1-dev libfreetype-dev libfontconfig-dev zlib1g-dev libjpeg-dev
    libgs-dev
    libgtest-dev
    fonts-liberation fonts-urw-base35 fonts-dejavu-core fonts-symbola
    ghostscript netpbm groff python3 python3-pil python3-numpy imagemagick graphicsmagick
    cups cups-filters cups-ppdc printer-driver-gutenprint printer-driver-hpcups
    plotutils gnuplot-nox hp2xx mupdf-tools
    xvfb xauth
    clang-14 libclang-rt-14-dev
    desktop-file-utils appstream help2man man-db dpkg-dev file
    parallel openssh-server openssh-client rsync python3-yaml
    x11-utils x11-apps libxtst6
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
