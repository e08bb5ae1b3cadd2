#!/usr/bin/env bash
# MuPDF's PCL writers against MuPDF's own rendering of the same PDF: `mutool draw -F pcl` (mono
# and RGB) and `mutool convert -F pcl` with several of its printer presets, each compared with
# `mutool draw -F pbm` / `-F pnm` of the same pages at the same resolution. MuPDF halftones the
# page once and sends exactly those pixels, so every pair is bit for bit.
#
#   tools/corpus/mupdf_corpus.sh OUTDIR SRCDIR MANIFEST
#
# SRCDIR holds the corpus's PostScript sources (text.ps, tables.ps, chess.ps); each is turned
# into a PDF by Ghostscript first. Writes OUTDIR/pcl5/mupdf-*.pcl and OUTDIR/ref/mupdf-*.tif and
# appends one line per job to MANIFEST (make_corpus.sh's format).
#
# Where the pages land: MuPDF renders the whole sheet from its corner and sends it from the
# logical page's left edge (ESC*p0x0Y), so its page sits one logical page inset right of the
# sheet's corner unless the job registers it back. The corpus test finds both from the commands:
# the generic writer's opening "ESC&10e-180u36Z" has no group character (a "1" where "l" was
# meant), so the printer takes no registration from it, and the page lands 75 dots (at 300 dpi)
# right of the reference; the LaserJet III and 4 presets repeat the registration well formed
# (ESC&l-180u36Z), and their page lands on the reference. A4 and other sizes MuPDF does not
# find in its table go out as the custom size 101 with their width and length in decipoints
# (ESC&f#I, ESC&f#J). Top registration moves nothing here (see the engine's ESC&l#Z).
# Needs mutool, gs and python3 (PIL); does nothing without mutool.
set -euo pipefail
if [ $# -ne 3 ]; then
    echo "usage: $0 OUTDIR SRCDIR MANIFEST" >&2
    exit 2
fi
OUT=$1 SRC=$2 MANIFEST=$3
PY=/usr/bin/python3
[ -x "$PY" ] || PY=python3
log() { echo "mupdf_corpus: $*" >&2; }
command -v mutool > /dev/null || { log "skipped: no mutool"; exit 0; }
mkdir -p "$OUT/pcl5" "$OUT/ref"
export LC_ALL=C SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-1700000000}
WORK=$SRC/mupdf
rm -rf "$WORK"
mkdir -p "$WORK"

# The first two pages of SRCDIR/NAME.ps as WORK/NAME.pdf, at the PostScript's own page size.
pdf_of() {
    [ -s "$WORK/$1.pdf" ] && return 0
    [ -s "$SRC/$1.ps" ] || return 1
    gs -q -dNOPAUSE -dBATCH -dSAFER -dLastPage=2 -sDEVICE=pdfwrite -sOutputFile="$WORK/$1.pdf" "$SRC/$1.ps"
}

# Pages rendered by mutool (PNM files, in page order) as one multi-page TIFF: G4 for bitmaps,
# LZW for colour.
pages_to_tiff() { # OUTPUT DPI PAGES...
    "$PY" -c 'import sys
from PIL import Image
out, dpi, files = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
pages = [Image.open(f) for f in files]
for p in pages:
    p.load()
bilevel = pages[0].mode == "1"
pages[0].save(out, compression="group4" if bilevel else "tiff_lzw", dpi=(dpi, dpi), save_all=True,
              append_images=pages[1:])' "$@"
}

# pair NAME SOURCE DPI COLOURSPACE MEASURE WRITER...: WRITER writes the PCL of WORK/SOURCE.pdf
# to standard output (its last two arguments are the PDF and the PCL file).
pair() {
    local name=$1 src=$2 dpi=$3 cs=$4 measure=$5
    shift 5
    pdf_of "$src" || return 0
    local in="pcl5/mupdf-$name.pcl" ref="ref/mupdf-$name.tif"
    if ! "$@" "$WORK/$src.pdf" "$OUT/$in" 2> /dev/null || [ ! -s "$OUT/$in" ]; then
        log "skipped $in: mutool made nothing"
        rm -f "$OUT/$in"
        return 0
    fi
    local fmt=pbm ext=pbm
    [ "$cs" = rgb ] && fmt=pnm ext=ppm
    mutool draw -q -F $fmt -c "$cs" -r "$dpi" -o "$WORK/$name-%d.$ext" "$WORK/$src.pdf" 2> /dev/null
    local pages=()
    mapfile -t pages < <(ls "$WORK/$name"-*."$ext" | sort -V)
    pages_to_tiff "$OUT/$ref" "$dpi" "${pages[@]}"
    rm -f "${pages[@]}"
    # The exit status: 3 (written with warnings) when the job selects a page size the printer
    # does not know (MuPDF sends ESC&l0A with Letter) or breaks an escape sequence.
    local status=0
    if grep -aq $'\e&l0A' "$OUT/$in" || grep -aq $'\e&u%' "$OUT/$in"; then
        status=3
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\t%s\n' "$in" mutool "$dpi" "$ref" "${#pages[@]}" pcl5 "$measure" "$status" >> "$MANIFEST"
    log "$in (${#pages[@]} pages)"
}

R5=0.999
draw() { # DPI COLOURSPACE PDF PCL
    mutool draw -q -F pcl -c "$2" -r "$1" -o "$4" "$3"
}
preset() { # PRESET DPI PDF PCL
    mutool convert -F pcl -O "colorspace=mono,resolution=$2,preset=$1" -o "$4" "$3" > /dev/null
}

# mutool draw: its generic LaserJet output, Letter at 300 dpi and at 75 dpi (where MuPDF's
# rounding makes the sheet a custom 612.5 x 792 points), A4 (a custom size) at 600 dpi, and
# colour (PCL 5 Color direct-by-pixel RGB, adaptive compression, scaled raster) on A4.
pair draw-mono-300 text 300 mono $R5 draw 300 mono
pair draw-mono-75 text 75 mono $R5 draw 75 mono
pair draw-mono-600-a4 tables 600 mono $R5 draw 600 mono
pair draw-rgb-150-a4 chess 150 rgb $R5 draw 150 rgb
# mutool convert's presets: LaserJet III (mode 2, well-formed registration), LaserJet 4 duplex
# (mode 3, duplex) and the Oce 9050 (which opens in HP-GL/2 and returns to PCL; it sends no
# page size, so it is given a Letter document, the printer's default).
# The LaserJet 4 presets also send "ESC&u%dD" (a format string where the unit of measure was
# meant): the sequence breaks at the "%", which with the "dD" after it prints as text in the top
# left corner (about 600 pixels of the page); the rest is bit for bit.
pair lj3-300 text 300 mono $R5 preset lj3 300
pair lj4d-300 text 300 mono $R5 preset lj4d 300
pair oce9050-300 text 300 mono $R5 preset oce9050 300
