#!/usr/bin/env bash
# The engine benchmark: converts every file of the generated corpus at 300 and 600 dpi, to 1-bit
# Group 4 (-b 1 -c 7) and to 24-bit Deflate (-b 24 -c 6), and reports wall time, pages per
# second and peak memory; plus an empty job and one 600-dpi Letter raster page to Group 4.
#
#   bench/engine/run.sh [--quarvex PATH] [--corpus DIR] [--runs N] [--tsv FILE] [--quick]
#                       [--heavy] [--baseline PATH | --baseline-rev REV] [--only TEXT]
#
# --quarvex  the engine (default: build/stage/bin/quarvex in the source tree)
# --corpus   a corpus made by tools/corpus/make_corpus.sh; made into a temporary folder if absent
# --runs     runs per measurement; the median time and the largest peak memory are reported (3)
# --tsv      also write the table as tab-separated values
# --quick    only the empty job and the raster page, not the corpus
# --heavy    also the heavy jobs of make_heavy.sh (600-dpi driver pages, polygons, fills)
# --baseline      an older engine: each job runs on both, alternately, and the table gives
#                 both times, their ratio, both peaks and whether the TIFFs are the same bytes
# --baseline-rev  the same with the engine of git revision REV, built (quarvex only, with
#                 ccache when present) in build/baseline-REV of the source tree
# --only     only the jobs whose label or file name contains TEXT (e.g. --heavy --only polygons)
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
QUARVEX=$ROOT/build/stage/bin/quarvex
CORPUS=
RUNS=3
TSV=
QUICK=0
HEAVY=0
BASELINE=
BASELINE_REV=
ONLY=
while [ $# -gt 0 ]; do
    case $1 in
        --quarvex) QUARVEX=$2; shift 2 ;;
        --corpus) CORPUS=$2; shift 2 ;;
        --runs) RUNS=$2; shift 2 ;;
        --tsv) TSV=$2; shift 2 ;;
        --quick) QUICK=1; shift ;;
        --heavy) HEAVY=1; shift ;;
        --baseline) BASELINE=$2; shift 2 ;;
        --baseline-rev) BASELINE_REV=$2; shift 2 ;;
        --only) ONLY=$2; shift 2 ;;
        -h | --help) sed -n '2,20p' "$0"; exit 0 ;;
        *) echo "run.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
    esac
done
[ -x "$QUARVEX" ] || { echo "run.sh: no engine at $QUARVEX (build the quarvex target, or --quarvex)" >&2; exit 1; }

if [ -n "$BASELINE_REV" ]; then
    # The older engine from its own sources, built the same way as the current one.
    REV=$(git -C "$ROOT" rev-parse --short "$BASELINE_REV")
    BDIR=$ROOT/build/baseline-$REV
    if [ ! -x "$BDIR/build/stage/bin/quarvex" ]; then
        rm -rf "$BDIR/src"
        mkdir -p "$BDIR/src"
        git -C "$ROOT" archive "$REV" | tar -x -C "$BDIR/src"
        LAUNCH=()
        command -v ccache > /dev/null && LAUNCH=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        cmake -S "$BDIR/src" -B "$BDIR/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${LAUNCH[@]}" \
            -DQUARVEL_BUILD_FRONTEND=OFF -DQUARVEL_BUILD_TESTS=OFF > "$BDIR/configure.log"
        cmake --build "$BDIR/build" --target quarvex -j2 > "$BDIR/build.log"
    fi
    BASELINE=$BDIR/build/stage/bin/quarvex
fi
[ -z "$BASELINE" ] || [ -x "$BASELINE" ] || { echo "run.sh: no baseline engine at $BASELINE" >&2; exit 1; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/quarvex-bench.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
if [ -z "$CORPUS" ]; then
    CORPUS=$WORK/corpus
    "$ROOT/tools/corpus/make_corpus.sh" "$CORPUS" 2> "$WORK/corpus.log"
fi

# The fixed jobs: an empty file, a PCL job that only resets the printer, and one Letter page of
# 600-dpi raster from a driver.
: > "$WORK/empty.pcl"
printf '\033E\033E' > "$WORK/reset_only.pcl"
gs -q -dNOPAUSE -dBATCH -dSAFER -dLastPage=1 -sDEVICE=ljet4 -r600 -sPAPERSIZE=letter -dFIXEDMEDIA \
    -sOutputFile="$WORK/letter_raster_600.pcl" "$CORPUS/src/text.ps"

JOBS=()
if [ "$HEAVY" = 1 ]; then
    "$ROOT/bench/engine/make_heavy.sh" "$WORK/heavy" 2> "$WORK/heavy.log"
    JOBS=(--jobs "$WORK/heavy/heavy.tsv")
fi

/usr/bin/python3 "$ROOT/bench/engine/measure.py" --quarvex "$QUARVEX" --corpus "$CORPUS" \
    --work "$WORK" --runs "$RUNS" --quick "$QUICK" ${TSV:+--tsv "$TSV"} "${JOBS[@]}" \
    ${BASELINE:+--baseline "$BASELINE"} ${ONLY:+--only "$ONLY"}
