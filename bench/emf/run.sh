#!/usr/bin/env bash
# The EMF benchmark: pages per second and peak memory of quarvex on the committed EMF spool file
# (four LibreOffice and Inkscape pages, tests/quarvex/emf/data), at 300 dpi to 1-bit Group 4 and
# to 24-bit Deflate, against Ghostscript rendering the PDFs of the same four pages to TIFF,
# alternating in one run.
#
#   bench/emf/run.sh [--quarvex PATH] [--runs N] [--dpi N] [--pdf-dir DIR]
#
# --pdf-dir  the PDFs made by tools/emf/make_emf_corpus.sh with EMF_KEEP_PDF=DIR; without it they
#            are made afresh (LibreOffice and Inkscape needed), or only quarvex is timed when
#            those are not installed.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
QUARVEX=$ROOT/build/stage/bin/quarvex
RUNS=5
DPI=300
PDFS=
while [ $# -gt 0 ]; do
    case $1 in
        --quarvex) QUARVEX=$2; shift 2 ;;
        --runs) RUNS=$2; shift 2 ;;
        --dpi) DPI=$2; shift 2 ;;
        --pdf-dir) PDFS=$2; shift 2 ;;
        -h | --help) sed -n '2,11p' "$0"; exit 0 ;;
        *) echo "run.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
    esac
done
WORK=$(mktemp -d "${TMPDIR:-/tmp}/quarvex-emf-bench.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
gzip -dc "$ROOT/tests/quarvex/emf/data/lo_inkscape_4pages.spl.gz" > "$WORK/four.spl"
if [ -z "$PDFS" ] && command -v soffice > /dev/null && command -v inkscape > /dev/null; then
    PDFS=$WORK/pdf
    EMF_KEEP_PDF=$PDFS "$ROOT/tools/emf/make_emf_corpus.sh" "$WORK/corpus" > /dev/null
fi
pdf=()
if [ -n "$PDFS" ]; then
    for doc in emf_fonts emf_table emf_rotated emf_inkscape; do pdf+=("$PDFS/$doc.pdf"); done
fi
exec /usr/bin/python3 "$ROOT/bench/emf/measure.py" --quarvex "$QUARVEX" --spool "$WORK/four.spl" --pages 4 \
    --runs "$RUNS" --dpi "$DPI" ${pdf:+--pdf "${pdf[@]}"}
