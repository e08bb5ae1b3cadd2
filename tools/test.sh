#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
tools/build.sh
cd build
ctest --output-on-failure -j"$(nproc)"
