#!/usr/bin/env bash
# PostScript and PDF pages through quarvex against Ghostscript rendering the same file to TIFF
# on its own, measured in one run: the two are alternated, each RUNS times, and the median wall
# time and the largest peak resident memory (GNU time) are reported, with pages per second.
#
#   bench/postscript/run.sh [--quarvex PATH] [--runs N] [--pages N]
#
# The documents: a groff text of N pages (default 20) as PostScript, and the same as PDF
# (ps2pdf). Each is converted at 300 dpi to 1-bit Group 4 (Ghostscript: tiffg4) and to 24-bit
# LZW (Ghostscript: tiff24nc -sCompression=lzw).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
QUARVEX=$ROOT/build/stage/bin/quarvex
RUNS=3
PAGES=20
while [ $# -gt 0 ]; do
    case $1 in
        --quarvex) QUARVEX=$2; shift 2 ;;
        --runs) RUNS=$2; shift 2 ;;
        --pages) PAGES=$2; shift 2 ;;
        -h | --help) sed -n '2,10p' "$0"; exit 0 ;;
        *) echo "run.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
    esac
done
[ -x "$QUARVEX" ] || { echo "run.sh: no engine at $QUARVEX" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "run.sh: needs GNU time (/usr/bin/time)" >&2; exit 1; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/quarvex-psbench.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
DATA=$ROOT/tests/quarvex/postscript/data
for i in $(seq "$PAGES"); do
    cat "$DATA/letter.ms" | sed 's/^\.bp$//'
    echo .bp
done > "$WORK/doc.ms"
groff -ms -t -Tps "$WORK/doc.ms" > "$WORK/doc.ps"
ps2pdf "$WORK/doc.ps" "$WORK/doc.pdf"

# One timed run appended to LABEL.times: wall seconds and peak resident kilobytes.
measure() { # label command...
    local label=$1; shift
    /usr/bin/time -f '%e %M' -o "$WORK/t" "$@" > /dev/null 2>&1 || true
    cat "$WORK/t" >> "$WORK/$label.times"
}
report() { # label pages
    sort -n "$WORK/$1.times" | awk -v label="$1" -v pages="$2" -v runs="$RUNS" '
        { t[NR] = $1; if ($2 > m) m = $2 }
        END { med = t[int((NR + 1) / 2)]; printf "%-28s %6.2f s  %7.1f pages/s  %7.1f MB peak\n", label, med, (med > 0 ? pages / med : 0), m / 1024 }'
}

pages=$(grep -c '^%%Page:' "$WORK/doc.ps")
for doc in ps pdf; do
    in=$WORK/doc.$doc
    labels="q-$doc-1bit gs-$doc-1bit q-$doc-24bit gs-$doc-24bit"
    for label in $labels; do : > "$WORK/$label.times"; done
    for _ in $(seq "$RUNS"); do
        measure "q-$doc-1bit" "$QUARVEX" -r 300x300 -b 1 -c 7 -o "$WORK/q.tif" -i "$in"
        measure "gs-$doc-1bit" gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=tiffg4 -r300 -sOutputFile="$WORK/g.tif" "$in"
        measure "q-$doc-24bit" "$QUARVEX" -r 300x300 -b 24 -c 2 -o "$WORK/q.tif" -i "$in"
        measure "gs-$doc-24bit" gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=tiff24nc -sCompression=lzw -r300 \
            -sOutputFile="$WORK/g.tif" "$in"
    done
    echo "$doc: $pages pages, 300 dpi, median of $RUNS alternated runs"
    for label in $labels; do
        report "$label" "$pages"
    done
done
