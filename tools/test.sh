#!/usr/bin/env bash
# Installs what is missing, builds and runs every test, then runs every fuzz target for
# QX_FUZZ_SECONDS seconds (default 60; 0 leaves the fuzzing out), seeded with the corpus the
# tests generated.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
tools/build.sh
(cd build && ctest --output-on-failure -j"$(nproc)")
fuzz_seconds=${QX_FUZZ_SECONDS:-60}
if [ "$fuzz_seconds" -gt 0 ]; then
    QX_FUZZ_CORPUS=$PWD/build/corpus tools/fuzz.sh "$fuzz_seconds"
fi
