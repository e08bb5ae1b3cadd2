#!/usr/bin/env bash
# hp2xx's PCL raster against its own bitmap of the same HP-GL plot: `hp2xx -m pcl` and
# `hp2xx -m pbm` draw the plot into the same bitmap, which the PCL job sends row by row, so the
# pair is bit for bit. The plots are made by plotutils (`graph -T hpgl`, `pic2plot -T hpgl`).
#
#   tools/corpus/hp2xx_corpus.sh OUTDIR MANIFEST [PIC-FILE]
#
# Writes OUTDIR/pcl5/hp2xx-*.pcl and OUTDIR/ref/hp2xx-*.tif (the bitmap on a white sheet) and
# appends one line per job to MANIFEST (make_corpus.sh's format).
#
# Where the plot lands is set by the job's commands alone:
#  - without -i hp2xx sends no reset and no position: the raster starts at the floating cursor,
#    the first text line under the default half-inch top margin, 3/4 of a 1/6-inch line down
#    (187.5 rows at 300 dpi, row 188 on the dot grid), at the logical page's left edge on the
#    default Letter sheet. The reference has the bitmap at row 188, column 0; the test adds the
#    logical page inset.
#  - with -i it resets, selects A4, a zero top margin and row 0: the plot starts at the logical
#    page's top left corner; the reference has it at the sheet's corner.
#  - with -o/-O it also moves the cursor by the offsets, in decipoints (ESC&a+#H, ESC&a+#V);
#    the manifest adds that move in dots at the job's resolution, to the nearest dot, as
#    "@-DX,-DY".
# Needs hp2xx, plotutils and netpbm; does nothing without hp2xx.
set -euo pipefail
if [ $# -lt 2 ]; then
    echo "usage: $0 OUTDIR MANIFEST [PIC-FILE]" >&2
    exit 2
fi
OUT=$1 MANIFEST=$2 PIC=${3:-}
log() { echo "hp2xx_corpus: $*" >&2; }
command -v hp2xx > /dev/null && command -v graph > /dev/null || { log "skipped: no hp2xx or plotutils"; exit 0; }
mkdir -p "$OUT/pcl5" "$OUT/ref" "$OUT/src"
export LC_ALL=C
WORK=$OUT/src/hp2xx
rm -rf "$WORK"
mkdir -p "$WORK"

printf '0 0\n1 1\n2 4\n3 9\n4 16\n' | graph -T hpgl > "$WORK/graph.hpgl"
[ -n "$PIC" ] && [ -r "$PIC" ] && pic2plot -T hpgl < "$PIC" > "$WORK/shapes.hpgl"

# pair NAME PLOT DPI SHEET-W SHEET-H ROW [hp2xx options...]: the plot's bitmap at (0, ROW) on a
# SHEET-W x SHEET-H inch sheet.
pair() {
    local name=$1 plot=$2 dpi=$3 sw=$4 sh=$5 row=$6
    shift 6
    [ -s "$WORK/$plot.hpgl" ] || return 0
    local in="pcl5/hp2xx-$name.pcl" ref="ref/hp2xx-$name.tif"
    hp2xx -q -m pcl -d "$dpi" "$@" -f "$OUT/$in" "$WORK/$plot.hpgl"
    hp2xx -q -m pbm -d "$dpi" "$@" -f "$WORK/$name.pbm" "$WORK/$plot.hpgl"
    local w h
    w=$(awk -v v="$sw" -v d="$dpi" 'BEGIN { printf "%d", v * d + 0.5 }')
    h=$(awk -v v="$sh" -v d="$dpi" 'BEGIN { printf "%d", v * d + 0.5 }')
    pbmmake -white "$w" "$h" | pnmpaste "$WORK/$name.pbm" 0 "$row" |
        pnmtotiff -g4 -xresolution="$dpi" -yresolution="$dpi" > "$OUT/$ref" 2> /dev/null
    # The job's relative cursor moves before its raster, in decipoints.
    local mx my measure=0.999
    mx=$(grep -ao $'\e&a+[0-9]*H' "$OUT/$in" | head -1 | tr -dc 0-9 || true)
    my=$(grep -ao $'\e&a+[0-9]*V' "$OUT/$in" | head -1 | tr -dc 0-9 || true)
    mx=${mx:-0} my=${my:-0}
    if [ "$mx" != 0 ] || [ "$my" != 0 ]; then
        measure="0.999@$(awk -v x="$mx" -v y="$my" -v d="$dpi" 'BEGIN {
            printf "%d,%d", -int(x * d / 720 + 0.5), -int(y * d / 720 + 0.5) }')"
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "$in" hp2xx "$dpi" "$ref" 1 pcl5 "$measure" >> "$MANIFEST"
    log "$in"
}

pair graph-300 graph 300 8.5 11 188
pair graph-init-300 graph 300 8.27 11.69 0 -i -F
pair graph-offset-300 graph 300 8.27 11.69 0 -i -F -o 20 -O 30
pair shapes-init-150 shapes 150 8.27 11.69 0 -i -F
