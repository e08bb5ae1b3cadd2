#!/usr/bin/env bash
# Builds HP-GL/2 reference pairs: the same plot as a PCL job (HP-GL/2 inside PCL 5) and as
# PostScript from the same producer, rendered by Ghostscript in grey on a Letter page.
#
#   tools/corpus/hpgl2_corpus.sh OUTDIR
#
# Writes OUTDIR/hpgl2/NAME.pcl, OUTDIR/hpgl2/NAME.ref.pgm and OUTDIR/hpgl2/manifest.tsv, one
# line a pair: NAME DPI FLOOR (the least ink F-score the pair must reach). Both sides are
# placed on the page by the producer itself, so the pictures must land in the same place (for
# gnuplot, where each job's commands put it; see below). Needs plotutils (pic2plot, graph), gs,
# gnuplot and netpbm.
set -euo pipefail
if [ $# -ne 1 ]; then
    echo "usage: $0 OUTDIR" >&2
    exit 2
fi
OUT=$1/hpgl2
rm -rf "$OUT"
mkdir -p "$OUT"
export LC_ALL=C SOURCE_DATE_EPOCH=1700000000
DPI=150
MANIFEST=$OUT/manifest.tsv
: > "$MANIFEST"

# pair NAME PRODUCER ARGS... : runs PRODUCER -T pcl and -T ps with ARGS on standard input.
pair() {
    local name=$1 producer=$2
    shift 2
    local input
    input=$(cat)
    printf '%s' "$input" | "$producer" -T pcl --page-size letter "$@" > "$OUT/$name.pcl"
    printf '%s' "$input" | "$producer" -T ps --page-size letter "$@" > "$OUT/$name.ps"
    gs -q -dNOPAUSE -dBATCH -dSAFER -sPAPERSIZE=letter -dFIXEDMEDIA -sDEVICE=pgmraw -r$DPI \
        -sOutputFile="$OUT/$name.ref.pgm" "$OUT/$name.ps"
    rm -f "$OUT/$name.ps"
    printf '%s\t%s\t%s\n' "$name" "$DPI" "${FLOOR:-0.9}" >> "$MANIFEST"
}

# The picture of the HP-GL/2 tests' own data.
pair shapes_pic2plot pic2plot < "$(dirname "$0")/../../tests/quarvex/hpgl2/data/shapes.pic"

# A coloured curve (pen 3, green) with its axes, ticks and tick labels. graph aligns tick labels
# itself (the x axis's by their top, the y axis's by their middle) from the ascent and descent in
# its own font tables, and its tables for the PCL face (Univers) and the PostScript face
# (Helvetica) differ by about 0.13 em, so with those faces its two documents put the labels
# 2 to 5 pixels apart at 150 dpi. With one of its vector fonts the labels are strokes that graph
# draws the same way in both documents, so the whole plot must match. Labels in PCL fonts are
# compared in the pic2plot pairs (Univers, centred by pic2plot in both documents).
printf '0 0\n1 1\n2 4\n3 9\n4 16\n' | pair graph_colour_plotutils graph -C -F HersheySans

pair boxes_pic2plot pic2plot <<'PIC'
.PS
box wid 2 ht 1 "Input"
arrow down
box wid 2 ht 1 "Process"
arrow down
ellipse wid 2 ht 1 "Output"
line from 1st box.w left 1 then down 3 then to 1st ellipse.w
.PE
PIC

# gnuplot's pcl5 terminal against its postscript terminal, landscape Letter, 10 x 7 inches, in
# black and white and in colour. The two terminals lay out their margins from their own font
# metrics, so the script fixes the margins; the key is left out (its text is placed from each
# terminal's character width guess). Where the plots land is set by each job's own commands:
# the PCL job draws in plotter units from the lower left corner of PCL's default picture frame,
# which in landscape Letter is the logical page's left edge (60 dots at 300 dpi, 14.4 pt, in
# from the sheet's edge) and the bottom of the default text area (a half-inch top margin and
# 7.5 inches of text: 36 pt above the sheet's bottom edge); the PostScript puts its origin at
# (50 pt, 58 pt) of the landscape sheet. Ghostscript draws the PostScript moved by the difference,
# (-35.6 pt, -22 pt), which is "22 -35.6 translate" on the portrait sheet the PostScript turns,
# and the picture is turned a quarter turn clockwise to lie as the landscape PCL page does.
gnuplot_pair() { # NAME POSTSCRIPT-COLOUR-OPTION
    local name=$1 colour=$2
    command -v gnuplot > /dev/null || return 0
    local script=$OUT/$name.gp
    cat > "$script" <<'GP'
set xrange [-5:5]
set grid
set title "sin and cos"
set xlabel "x"
set ylabel "y"
set key off
set lmargin at screen 0.1
set rmargin at screen 0.95
set bmargin at screen 0.12
set tmargin at screen 0.9
plot sin(x) with lines dt 1 lc rgb "#9400d3", cos(x) with lines dt 1 lc rgb "#009e73"
GP
    gnuplot -e "set terminal pcl5 landscape size 10,7 font \"univers,12\"; set output \"$OUT/$name.pcl\"" "$script"
    gnuplot -e "set terminal postscript landscape $colour size 10,7 font \"Helvetica,12\"; set output \"$OUT/$name.ps\"" "$script"
    gs -q -dNOPAUSE -dBATCH -dSAFER -sPAPERSIZE=letter -dFIXEDMEDIA -sDEVICE=pgmraw -r$DPI \
        -sOutputFile=- -c "22 -35.6 translate" -f "$OUT/$name.ps" | pamflip -cw > "$OUT/$name.ref.pgm"
    rm -f "$OUT/$name.ps" "$script"
    printf '%s\t%s\t%s\n' "$name" "$DPI" "${FLOOR:-0.9}" >> "$MANIFEST"
}
gnuplot_pair gnuplot_mono monochrome
gnuplot_pair gnuplot_colour color
