#!/usr/bin/env bash
# Makes the heavy jobs of the engine benchmark: pages that cost the engine most, from the
# printer drivers people use.
#
#   bench/engine/make_heavy.sh OUTDIR
#
# OUTDIR/heavy.tsv lists one job a line: input (relative to OUTDIR), dpi, depth, compression and
# a label. The jobs:
#   - 600-dpi grey PCL XL from Ghostscript's lj5gray driver: the gzip man page, and a colour
#     drawing (Ghostscript's colorcir.ps where installed, else groff's colour-table example);
#   - 600-dpi black-and-white PCL XL from lj5mono: the ls man page;
#   - 300-dpi PCL 5 colour raster from cljet5c: a colour picture (Ghostscript's tiger.eps where
#     installed, else groff's penguin example; Debian ships neither of Ghostscript's);
#   - one 300-dpi HP-GL/2 page of 3000 grey-filled polygons, halftoned to black and white, and
#     one HP-GL/2 polygon of 50,000 random points (hpgl2_big_polygon.py) at 24-bit Deflate;
#   - 600-dpi 24-bit Deflate pages: the gzip man page and the colour picture through pxlcolor;
#   - 100 empty PCL XL pages and 200 page-sized pattern fills at 24-bit Deflate, and 2000
#     page-sized PCL 5 rectangle fills.
# Needs gs, groff (with its examples) and /usr/bin/python3.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 OUTDIR" >&2; exit 2; }
OUT=$1
HERE=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
export SOURCE_DATE_EPOCH=1700000000 LC_ALL=C
GS=(gs -q -dNOPAUSE -dBATCH -dSAFER)
LIST=$OUT/heavy.tsv.tmp
: > "$LIST"
log() { echo "make_heavy: $*" >&2; }
job() { printf '%s\t%s\t%s\t%s\t%s\n' "$@" >> "$LIST"; }

man_ps() { zcat -f "$2" | groff -man -Tps -P-pletter > "$OUT/$1.ps"; }
man_ps gzip /usr/share/man/man1/gzip.1.gz
man_ps ls /usr/share/man/man1/ls.1.gz
EX=
for d in /usr/share/doc/ghostscript/examples /usr/share/ghostscript/*/examples; do
    [ -d "$d" ] && { EX=$d; break; }
done
GROFFEX=/usr/share/doc/groff-base/examples
example() { # NAME CANDIDATES...: the first readable one (maybe gzipped) as OUTDIR/NAME.ps
    local name=$1 f
    shift
    for f in "$@"; do
        [ -r "$f" ] && { zcat -f "$f" > "$OUT/$name.ps"; log "$name from $f"; return 0; }
    done
    log "no source for $name"
    return 1
}

"${GS[@]}" -sDEVICE=lj5gray -r600 -sOutputFile="$OUT/gzip_lj5gray_600.pxl" "$OUT/gzip.ps"
job gzip_lj5gray_600.pxl 600 8 1 "lj5gray 600 gzip(1)"
"${GS[@]}" -sDEVICE=lj5mono -r600 -sOutputFile="$OUT/ls_lj5mono_600.pxl" "$OUT/ls.ps"
job ls_lj5mono_600.pxl 600 1 7 "lj5mono 600 ls(1)"
if example drawing "$EX/colorcir.ps" "$GROFFEX/hdtbl/rainbow.ps.gz"; then
    "${GS[@]}" -sDEVICE=lj5gray -r600 -sOutputFile="$OUT/drawing_lj5gray_600.pxl" "$OUT/drawing.ps"
    job drawing_lj5gray_600.pxl 600 8 1 "lj5gray 600 colour drawing"
fi
/usr/bin/python3 "$HERE/hpgl2_polygons.py" "$OUT/polygons_hpgl2_300.pcl" 3000
job polygons_hpgl2_300.pcl 300 1 7 "HP-GL/2 3000 grey polygons"
# 50,000 points: engines whose fill grows with the square of the sides take seconds on it.
/usr/bin/python3 "$HERE/hpgl2_big_polygon.py" "$OUT/big_polygon_hpgl2_300.pcl" 50000
job big_polygon_hpgl2_300.pcl 300 24 6 "HP-GL/2 polygon of 50,000 random points"
if example picture "$EX/tiger.eps" "$GROFFEX/mom/penguin.ps.gz"; then
    "${GS[@]}" -sDEVICE=cljet5c -r300 -sOutputFile="$OUT/picture_cljet5c_300.pcl" "$OUT/picture.ps"
    job picture_cljet5c_300.pcl 300 24 1 "cljet5c 300 colour picture"
    "${GS[@]}" -sDEVICE=pxlcolor -r600 -sOutputFile="$OUT/picture_pxlcolor_600.pxl" "$OUT/picture.ps"
    job picture_pxlcolor_600.pxl 600 24 6 "pxlcolor 600 colour picture, Deflate"
fi
"${GS[@]}" -sDEVICE=pxlcolor -r600 -dLastPage=2 -sOutputFile="$OUT/gzip_pxlcolor_600.pxl" "$OUT/gzip.ps"
job gzip_pxlcolor_600.pxl 600 24 6 "pxlcolor 600 gzip(1), Deflate"
/usr/bin/python3 "$HERE/blank_jobs.py" "$OUT"
job empty_pages_pclxl.pxl 300 24 6 "100 empty PCL XL pages, Deflate"
job pattern_fills_pclxl.pxl 300 24 6 "200 page pattern fills, Deflate"
job rect_fills_pcl5.pcl 300 8 1 "2000 page rectangle fills, grey"
mv "$LIST" "$OUT/heavy.tsv"
log "$(wc -l < "$OUT/heavy.tsv") jobs in $OUT/heavy.tsv"
