#!/usr/bin/env bash
# Builds a corpus of real printer files for the engine, with reference renderings.
#
#   tools/corpus/make_corpus.sh OUTDIR
#
# Sources are documents the system ships: man pages set by groff, groff's PostScript examples,
# a picture turned into PNM, and the GPL text for plain-text jobs. Producers are Ghostscript's
# PCL 5 and PCL XL printer drivers and netpbm's pnmtopclxl; the references are Ghostscript's
# own TIFF renderings of the same source at the same resolution and page size, with the same
# printable-area clip the printer driver applied.
#
# OUTDIR/manifest.tsv has one line per input file (after a header line starting with '#'):
#   input  producer  dpi  reference  pages  kind  measure  size
# input and reference are relative to OUTDIR; reference is "-" when there is none.
# kind is pcl5 or pclxl. measure is the minimum share of agreeing pixels (e.g. 0.999), or "ink"
# for jobs with no pixel reference: then only the page count and that every page carries some
# ink are checked. A PCL 5 reference has the producer's page origin at the sheet's corner; the
# test moves it to where the job's commands put it (the logical page's left edge for the paper
# and orientation the job selects, and its left offset registration). A producer that places
# its page for one printer model beyond what its commands say is given that offset here, as
# "SHARE@DX,DY" (pixels, engine to reference), with the reason beside it. "SHARE@sheet" marks a
# reference drawn on the sheet where the job's own commands put each mark (groff's LaserJet
# layout), compared as it lies. size is the expected page size in points (WxH) or "-" (take it
# from the reference). An optional ninth field is quarvex's expected exit status (default 0).
#
# Deterministic: the same system gives the same files. Needs gs, groff, netpbm, python3 (PIL);
# ImageMagick, GraphicsMagick, MuPDF's mutool and hp2xx add their producers when installed.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 OUTDIR" >&2
    exit 2
fi
OUT=$1
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
SRC=$OUT/src
rm -rf "$OUT/pcl5" "$OUT/pclxl" "$OUT/ref" "$SRC" "$OUT/manifest.tsv.tmp"
mkdir -p "$OUT/pcl5" "$OUT/pclxl" "$OUT/ref" "$SRC"

export SOURCE_DATE_EPOCH=1700000000
export LC_ALL=C
PY=/usr/bin/python3
[ -x "$PY" ] || PY=python3
GS=(gs -q -dNOPAUSE -dBATCH -dSAFER -dLastPage=2)
MANIFEST=$OUT/manifest.tsv.tmp
printf '#input\tproducer\tdpi\treference\tpages\tkind\tmeasure\tsize\n' > "$MANIFEST"

log() { echo "make_corpus: $*" >&2; }

# Number of pages in a TIFF file.
tiff_pages() {
    "$PY" -c 'import sys
from PIL import Image
im = Image.open(sys.argv[1]); print(getattr(im, "n_frames", 1))' "$1"
}

# ---------------------------------------------------------------------------------------------
# Sources (PostScript), each named src/NAME.ps. Missing optional sources are skipped.
# ---------------------------------------------------------------------------------------------
SOURCES=()

man_to_ps() { # NAME PRE-PROCESSOR-FLAGS candidate man files...
    local name=$1 flags=$2
    shift 2
    local f
    for f in "$@"; do
        if [ -r "$f" ]; then
            # shellcheck disable=SC2086
            zcat -f "$f" | groff $flags -man -Tps -P-pletter > "$SRC/$name.ps" 2>/dev/null && {
                SOURCES+=("$name")
                log "source $name from $f"
                return 0
            }
        fi
    done
    return 1
}

# A text-heavy page.
if ! man_to_ps text "" /usr/share/man/man1/ls.1.gz /usr/share/man/man1/groff.1.gz \
        /usr/share/man/man1/gs.1.gz; then
    # No man pages installed: set the GPL as a document with the ms macros.
    { echo ".TL"; echo "GNU General Public License"; echo ".LP";
      sed -e 's/^\./\\\&./' -e 's/^'\''/\\\&'\''/' /usr/share/common-licenses/GPL-3 | head -160; } |
        groff -ms -Tps -P-pletter > "$SRC/text.ps"
    SOURCES+=(text)
    log "source text from the GPL"
fi
# Tables (tbl), on A4 to have a second paper size.
for f in /usr/share/man/man7/groff_char.7.gz /usr/share/man/man1/eqn.1.gz /usr/share/man/man1/find.1.gz; do
    if [ -r "$f" ]; then
        zcat -f "$f" | groff -t -man -Tps -P-pa4 -dpaper=a4 > "$SRC/tables.ps" 2>/dev/null &&
            { SOURCES+=(tables); log "source tables from $f"; break; }
    fi
done
# groff's and Ghostscript's example PostScript: line art, colour tables, a picture.
copy_example() { # NAME candidates...
    local name=$1 f
    shift
    for f in "$@"; do
        if [ -r "$f" ]; then
            zcat -f "$f" > "$SRC/$name.ps"
            SOURCES+=("$name")
            log "source $name from $f"
            return 0
        fi
    done
    return 1
}
GSEX=$(ls -d /usr/share/ghostscript/*/examples /usr/share/doc/ghostscript/examples 2>/dev/null | head -1 || true)
copy_example chess /usr/share/doc/groff-base/examples/hdtbl/chess_board.ps.gz || true
copy_example rainbow /usr/share/doc/groff-base/examples/hdtbl/rainbow.ps.gz || true
copy_example penguin /usr/share/doc/groff-base/examples/mom/penguin.ps.gz || true
copy_example gnu /usr/share/doc/groff-base/examples/gnu.eps.gz || true
if [ -n "$GSEX" ]; then
    copy_example tiger "$GSEX"/tiger.eps* || true
    copy_example colorcir "$GSEX"/colorcir.ps* || true
fi

has_source() { [ -f "$SRC/$1.ps" ]; }

# Compression for a reference device: G4 for bilevel, LZW for the rest (keeps the tree small).
ref_compression() {
    case $1 in
        tiffg4) echo g4 ;;
        *) echo lzw ;;
    esac
}

# ---------------------------------------------------------------------------------------------
# PCL 5 and PCL XL from Ghostscript's drivers, with references.
# ---------------------------------------------------------------------------------------------
# gs_pair KIND DEVICE DPI SOURCE REFDEVICE MEASURE [extra gs args...]
gs_pair() {
    local kind=$1 dev=$2 dpi=$3 src=$4 refdev=$5 measure=$6
    shift 6
    has_source "$src" || return 0
    local ext=pcl
    [ "$kind" = pclxl ] && ext=pxl
    local base="${src}_${dev}_${dpi}"
    # The page-range filter keeps the LaserJet 5 drivers from writing their stream header, so
    # they get whole documents (the reference too).
    local gsargs=("${GS[@]}")
    case $dev in lj5*) gsargs=(gs -q -dNOPAUSE -dBATCH -dSAFER) ;; esac
    local in="$kind/$base.$ext"
    # Produce the printer file, and learn the printable area the driver clipped to.
    local margins
    margins=$("${gsargs[@]}" -sDEVICE="$dev" -r"$dpi" "$@" -sOutputFile="$OUT/$in" \
        -f "$SRC/$src.ps" -c "(@@MARGINS ) print currentpagedevice /.HWMargins get ==" 2>/dev/null |
        sed -n 's/^@@MARGINS //p' | tail -1)
    if [ ! -s "$OUT/$in" ]; then
        log "skipped $in: $dev made nothing"
        rm -f "$OUT/$in"
        return 0
    fi
    # Some drivers lose the PCL XL stream header when the resolution is not their own.
    if [ "$kind" = pclxl ] && ! head -c 4096 "$OUT/$in" | grep -aq 'HP-PCL XL;'; then
        log "skipped $in: $dev wrote no PCL XL stream header at $dpi dpi"
        rm -f "$OUT/$in"
        return 0
    fi
    if [ "$refdev" = "-" ]; then
        printf '%s\t%s\t%s\t-\t%s\t%s\t%s\t%s\n' "$in" "$dev" "$dpi" "$PAGES_HINT" "$kind" "$measure" "${SIZE_HINT:--}" >> "$MANIFEST"
        return 0
    fi
    local ref="ref/$base.tif"
    "${gsargs[@]}" -sDEVICE="$refdev" -r"$dpi" "$@" -sCompression="$(ref_compression "$refdev")" -sOutputFile="$OUT/$ref" \
        -c "<< /.HWMargins ${margins:-[0 0 0 0]} >> setpagedevice ${REF_SETUP:-}" -f "$SRC/$src.ps" 2>/dev/null
    local pages
    pages=$(tiff_pages "$OUT/$ref")
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "$in" "$dev" "$dpi" "$ref" "$pages" "$kind" "$measure" >> "$MANIFEST"
    log "$in ($pages pages, clip ${margins:-none})"
}

# Raster PCL 5 from a driver: pixel for pixel at the same resolution.
R5=0.999
# Vector PCL XL: glyph and edge rounding differs between rasterisers.
RXL=0.99

gs_pair pcl5 ljet4 300 text tiffg4 $R5
gs_pair pcl5 ljet4 600 text tiffg4 $R5
gs_pair pcl5 ljet4 300 tables tiffg4 $R5
gs_pair pcl5 ljet4 300 chess tiffg4 $R5
gs_pair pcl5 ljet4 600 penguin tiffg4 $R5
gs_pair pcl5 ljet4 300 gnu tiffg4 $R5
gs_pair pcl5 ljet4pjl 300 penguin tiffg4 $R5
gs_pair pcl5 ljet4pjl 600 tables tiffg4 $R5
gs_pair pcl5 laserjet 300 text tiffg4 "$R5@15,75"
# Duplex from the LaserJet 4 driver: its back sides carry the opposite left registration
# (+180 decipoints against the fronts' -180), which the printer applies mirrored, so both sides
# land like the fronts. Letter and A4.
gs_pair pcl5 ljet4d 300 text tiffg4 $R5 -dDuplex=true
gs_pair pcl5 ljet4d 300 tables tiffg4 $R5 -dDuplex=true
# At 75 dpi the driver sets its unit of measure to 75 and places everything in those units.
gs_pair pcl5 ljet4 75 chess tiffg4 $R5
gs_pair pcl5 ljet4 300 rainbow tiffg4 $R5
# The first LaserJet's driver sends no registration: it lays its raster out for that printer's
# unprintable margins, leaving out the top 75 rows and the left 15 columns of the page. On a
# PCL 5 printer, whose logical page starts 75 dots in, its pages therefore sit 60 dots right of
# and 75 dots above its source: "@15,75" adds the columns and rows it leaves out to the logical
# page inset the test finds from the commands (75 dots, Letter). It anchors its halftone
# screen to that origin too; the reference's screen is moved to match: 60 dots right and 75 up
# is, on Ghostscript's 300-dpi screen, the same cell position as a phase of (-1, 3). The driver
# sends no page size, so the printer takes Letter: both are made on Letter.
REF_SETUP='<< /BeginPage { pop -1 3 -1 .setscreenphase } >> setpagedevice' \
    gs_pair pcl5 laserjet 300 rainbow tiffg4 "$R5@15,75" -sPAPERSIZE=letter -dFIXEDMEDIA
gs_pair pcl5 ljet4 300 tiger tiffg4 $R5
gs_pair pcl5 ljet4 300 colorcir tiffg4 $R5
# The Color LaserJet 5 driver draws on A4 turned sideways (that printer feeds its long edge
# first), Ghostscript turning the document to fit, with its own halftone; it then selects A4 in
# portrait orientation and sends rows as long as the sideways sheet, which PCL clips at the
# portrait page's edge. No other Ghostscript device draws those pixels, so the file is checked
# on page count, page size (the A4 portrait sheet the job selects) and ink.
PAGES_HINT=$(has_source chess && "${GS[@]}" -sDEVICE=bbox -f "$SRC/chess.ps" 2>&1 | grep -c '^%%BoundingBox' || echo 0)
SIZE_HINT=595x842 gs_pair pcl5 cljet5 300 chess - ink

gs_pair pclxl pxlmono 300 text tiffgray $RXL
gs_pair pclxl pxlmono 600 text tiffgray $RXL
gs_pair pclxl pxlmono 300 tables tiffgray $RXL
gs_pair pclxl pxlmono 300 penguin tiffgray $RXL
gs_pair pclxl pxlmono 300 gnu tiffgray $RXL
gs_pair pclxl pxlmono 600 chess tiffgray $RXL
gs_pair pclxl pxlcolor 300 chess tiff24nc $RXL
gs_pair pclxl pxlcolor 300 rainbow tiff24nc $RXL
gs_pair pclxl pxlcolor 600 gnu tiff24nc $RXL
gs_pair pclxl pxlcolor 600 penguin tiff24nc $RXL
gs_pair pclxl pxlcolor 300 tiger tiff24nc $RXL
# The LaserJet 5 drivers write a complete stream only at their own 600 dpi.
gs_pair pclxl lj5mono 600 gnu tiffg4 $RXL
gs_pair pclxl lj5gray 600 penguin tiffgray $RXL

# ---------------------------------------------------------------------------------------------
# PCL XL raster from pnmtopclxl: a picture on a Letter page, 1 inch from the top-left corner.
# ---------------------------------------------------------------------------------------------
PIC=$SRC/picture.ppm
picture_made=0
for f in /usr/share/doc/groff-base/examples/img/webpage1.png /usr/share/doc/libpng-dev/examples/pngtest.png \
         /usr/share/icons/Adwaita/512x512/places/folder-pictures.png; do
    if [ -r "$f" ] && pngtopnm -mix -background=white "$f" 2>/dev/null | pamscale -xyfit 1000 1300 2>/dev/null |
            ppmtoppm > "$PIC" 2>/dev/null && [ -s "$PIC" ]; then
        picture_made=1
        log "picture from $f"
        break
    fi
done
if [ $picture_made = 0 ] && has_source chess; then
    "${GS[@]}" -dLastPage=1 -sDEVICE=ppmraw -r100 -sOutputFile="$PIC" "$SRC/chess.ps"
    picture_made=1
    log "picture from the chess board page"
fi
if [ $picture_made = 0 ]; then
    "${GS[@]}" -dLastPage=1 -sDEVICE=ppmraw -r100 -sOutputFile="$PIC" "$SRC/text.ps"
    log "picture from the text page"
fi
ppmtopgm "$PIC" > "$SRC/picture.pgm"

# pnm_pair NAME INPUT-PNM IMAGE-DPI PAGE-DPI
pnm_pair() {
    local name=$1 pnm=$2 idpi=$3 dpi=$4
    local in="pclxl/$name.pxl" ref="ref/$name.tif"
    pnmtopclxl -quiet -dpi="$idpi" -xoffs=1 -yoffs=1 -format=letter -colorok "$pnm" > "$OUT/$in"
    # The reference: the picture, scaled to the page resolution by pixel replication, pasted
    # onto a white Letter sheet at (1 in, 1 in), in grey.
    local scale=$((dpi / idpi))
    local w=$((dpi * 17 / 2)) h=$((dpi * 11))
    ppmtopgm < "$pnm" 2>/dev/null | pnmenlarge "$scale" > "$SRC/$name.big.pgm" 2>/dev/null ||
        ppmtopgm < "$pnm" > "$SRC/$name.big.pgm"
    pgmmake 1 "$w" "$h" | pnmpaste "$SRC/$name.big.pgm" "$dpi" "$dpi" |
        pnmtotiff -flate -xresolution="$dpi" -yresolution="$dpi" > "$OUT/$ref" 2>/dev/null
    rm -f "$SRC/$name.big.pgm"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "$in" pnmtopclxl "$dpi" "$ref" 1 pclxl $RXL >> "$MANIFEST"
    log "$in"
}
pnm_pair picture_rgb_300 "$PIC" 300 300
pnm_pair picture_gray_300 "$SRC/picture.pgm" 300 300
pnm_pair picture_rgb_150_at_300 "$PIC" 150 300
pnm_pair picture_gray_300_at_600 "$SRC/picture.pgm" 300 600

# PCL 5 raster from netpbm's LaserJet converters: the same picture in black and white
# (pbmtolj, compressed rows) and in colour (ppmtolj, PCL 5c direct-by-pixel RGB). They reset,
# set a zero top margin and start the raster at the cursor, which has not moved: it floats to
# the first line under the new margin, 3/4 of a 1/6-inch line down (37.5 rows at 300 dpi, row
# 38 on the dot grid), at the logical page's left edge. The reference is the picture at row 38
# of column 0; the test adds the logical page inset (Letter, the default). Bit for bit.
pamditherbw -threshold -value=0.5 "$SRC/picture.pgm" 2>/dev/null | pamtopnm > "$SRC/picture.pbm"
# pcl5_pnm_pair NAME CONVERTER-COMMAND... (the PNM comes last, the reference scale is SCALE)
pcl5_pnm_pair() {
    local name=$1 pnm=$2 scale=$3 dpi=300
    shift 3
    local in="pcl5/$name.pcl" ref="ref/$name.tif"
    "$@" "$pnm" > "$OUT/$in" 2>/dev/null
    local w=$((dpi * 17 / 2)) h=$((dpi * 11))
    pnmtopnm < "$pnm" 2>/dev/null | ppmtopgm 2>/dev/null | pnmenlarge "$scale" > "$SRC/$name.big.pgm" 2>/dev/null ||
        { ppmtopgm < "$pnm" 2>/dev/null || pgmtopgm < "$pnm"; } > "$SRC/$name.big.pgm"
    pgmmake 1 "$w" "$h" | pnmpaste "$SRC/$name.big.pgm" 0 $((dpi * 38 / 300)) |
        pnmtotiff -flate -xresolution="$dpi" -yresolution="$dpi" > "$OUT/$ref" 2>/dev/null
    rm -f "$SRC/$name.big.pgm"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "$in" "$(basename "$1")" "$dpi" "$ref" 1 pcl5 "$R5" >> "$MANIFEST"
    log "$in"
}
pcl5_pnm_pair picture_pbmtolj_300 "$SRC/picture.pbm" 1 pbmtolj -resolution 300 -packbits -delta
pcl5_pnm_pair picture_ppmtolj_300 "$PIC" 1 ppmtolj -resolution 300
pcl5_pnm_pair picture_ppmtolj_150_at_300 "$PIC" 2 ppmtolj -resolution 150
# ImageMagick's and GraphicsMagick's PCL writers: the same job layout (reset, zero top margin,
# raster at the floating cursor), at the image's density.
imagemagick() { convert "$1" -density 300 pcl:- 2>/dev/null; }
graphicsmagick() { gm convert -density 300 "$1" pcl:- 2>/dev/null; }
if command -v convert > /dev/null && convert -version 2>/dev/null | grep -q ImageMagick; then
    pcl5_pnm_pair picture_imagemagick_bw_300 "$SRC/picture.pbm" 1 imagemagick
    pcl5_pnm_pair picture_imagemagick_rgb_300 "$PIC" 1 imagemagick
fi
if command -v gm > /dev/null; then
    pcl5_pnm_pair picture_graphicsmagick_bw_300 "$SRC/picture.pbm" 1 graphicsmagick
    pcl5_pnm_pair picture_graphicsmagick_rgb_300 "$PIC" 1 graphicsmagick
fi

# ---------------------------------------------------------------------------------------------
# CUPS's LaserJet driver as a Linux user prints: the sample HP LaserJet PPD (built from CUPS's
# sample.drv), cupsfilter rendering a PDF to CUPS raster for it, and its rastertohp filter. The
# driver sends the PPD's imageable area (from 1/4 inch left and 1/2 inch top) and places it with
# its cursor at the logical page's left edge, 1/2 inch down: the page lands where the PDF has
# it, so "@75,0" takes back the logical page inset the test adds for a page whose origin is the
# sheet's corner. The reference is Ghostscript's rendering of the same PDF, clipped to the same
# imageable area (CUPS renders the PDF through Ghostscript too): bit for bit.
# ---------------------------------------------------------------------------------------------
cups_pair() { # NAME SOURCE
    local name=$1 src=$2 dpi=300
    has_source "$src" && command -v cupsfilter > /dev/null && command -v ppdc > /dev/null &&
        [ -x /usr/lib/cups/filter/rastertohp ] && [ -r /usr/share/cups/drv/sample.drv ] || return 0
    local ppddir=$SRC/ppd
    mkdir -p "$ppddir"
    [ -s "$ppddir/laserjet.ppd" ] || ppdc -d "$ppddir" /usr/share/cups/drv/sample.drv > /dev/null 2>&1 || return 0
    "${GS[@]}" -sDEVICE=pdfwrite -sPAPERSIZE=letter -dFIXEDMEDIA -sOutputFile="$SRC/$name.pdf" "$SRC/$src.ps"
    cupsfilter -p "$ppddir/laserjet.ppd" -m application/vnd.cups-raster -o Resolution=${dpi}dpi \
        "$SRC/$name.pdf" > "$SRC/$name.ras" 2> /dev/null || return 0
    PPD=$ppddir/laserjet.ppd /usr/lib/cups/filter/rastertohp 1 user "$name" 1 "" < "$SRC/$name.ras" \
        > "$OUT/pcl5/$name.pcl" 2> /dev/null || { rm -f "$OUT/pcl5/$name.pcl"; return 0; }
    local ref="ref/$name.tif"
    "${GS[@]}" -sDEVICE=tiffg4 -r$dpi -sPAPERSIZE=letter -dFIXEDMEDIA -sOutputFile="$OUT/$ref" \
        -c "<< /.HWMargins [18 36 18 36] >> setpagedevice" -f "$SRC/$name.pdf" 2>/dev/null
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "pcl5/$name.pcl" rastertohp "$dpi" "$ref" "$(tiff_pages "$OUT/$ref")" pcl5 \
        "$R5@75,0" >> "$MANIFEST"
    log "pcl5/$name.pcl"
}
cups_pair text_rastertohp_300 text

# ---------------------------------------------------------------------------------------------
# A driver's page stored as a PCL macro and called twice: the macro holds binary raster data
# (which must not be read as commands while it is stored), nothing prints while it is defined,
# and each call must print the page exactly as the driver's own file does.
# ---------------------------------------------------------------------------------------------
macro_job() {
    local from=$1 name=$2
    [ -s "$OUT/pcl5/$from.pcl" ] && [ -s "$OUT/ref/$from.tif" ] || return 0
    local size
    size=$(stat -c %s "$OUT/pcl5/$from.pcl")
    {
        printf '\033E\033&f1y0X'
        # The driver's page without its opening reset and its closing form feed and reset.
        tail -c +3 "$OUT/pcl5/$from.pcl" | head -c $((size - 5))
        printf '\033&f1X\033&f1y3X\f\033&f1y3X\f\033E'
    } > "$OUT/pcl5/$name.pcl"
    "$PY" -c 'import sys
from PIL import Image
page = Image.open(sys.argv[1])
page.load()
page.save(sys.argv[2], compression="group4", dpi=page.info.get("dpi", (300, 300)), save_all=True,
          append_images=[page.copy()])' "$OUT/ref/$from.tif" "$OUT/ref/$name.tif"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "pcl5/$name.pcl" ljet4-macro 300 "ref/$name.tif" 2 pcl5 "$R5" >> "$MANIFEST"
    log "pcl5/$name.pcl"
}
macro_job chess_ljet4_300 chess_ljet4_macro_300

# ---------------------------------------------------------------------------------------------
# Plain-text PCL 5 jobs in resident fonts: the GPL wrapped in PJL and PCL escape sequences.
# No pixel reference: the page count is known (a form feed every LINES lines), and every page
# carries ink.
# ---------------------------------------------------------------------------------------------
TEXT=/usr/share/common-licenses/GPL-3
ESC=$'\033'
UEL="${ESC}%-12345X"

# text_job NAME LINES-PER-PAGE PAGES SIZE PAGE-SETUP FONT-SELECTION [PJL lines...]
text_job() {
    local name=$1 per=$2 pages=$3 size=$4 setup=$5 font=$6
    shift 6
    local file="$OUT/pcl5/$name.pcl"
    {
        printf '%s@PJL JOB NAME="%s"\r\n' "$UEL" "$name"
        local l
        for l in "$@"; do printf '@PJL %s\r\n' "$l"; done
        printf '@PJL ENTER LANGUAGE=PCL\r\n'
        printf '%sE%s%s' "$ESC" "$setup" "$font"
        head -n $((per * pages)) "$TEXT" | awk -v per="$per" '{
            sub(/\r$/, ""); printf "%s\r\n", $0
            if (NR % per == 0) printf "\f" }'
        printf '%sE%s@PJL EOJ NAME="%s"\r\n%s' "$ESC" "$UEL" "$name" "$UEL"
    } > "$file"
    printf '%s\t%s\t%s\t-\t%s\t%s\t%s\t%s\n' "pcl5/$name.pcl" hand-wrapped 300 "$pages" pcl5 ink "$size" >> "$MANIFEST"
    log "pcl5/$name.pcl"
}
# Courier 12 pt 10 cpi, Roman-8, Letter portrait.
text_job text_courier 50 3 612x792 "${ESC}&l2a0O" "${ESC}(8U${ESC}(s0p10h12v0s0b4099T"
# CG Times 12 pt proportional, PC-8, A4 portrait, PJL paper.
text_job text_cgtimes 55 2 595.28x841.89 "${ESC}&l26a0O" "${ESC}(10U${ESC}(s1p12v0s0b4101T" \
    "SET PAPER=A4" "SET RESOLUTION=300"
# Univers bold 10 pt, ISO 8859-1, Letter landscape.
text_job text_univers_landscape 30 2 792x612 "${ESC}&l2a1O${ESC}&l8D" "${ESC}(0N${ESC}(s1p10v0s3b4148T" \
    "SET ORIENTATION=LANDSCAPE"
# Line Printer 16.67 cpi 8.5 pt, Legal portrait, 8 lines per inch, a text length of 96 lines.
text_job text_lineprinter 80 2 612x1008 "${ESC}&l3a0o8d96F" "${ESC}(8U${ESC}(s0p16.67h8.5v0s0b0T"
# Courier by PJL defaults only (no PCL font selection), several jobs: each job its own pages.
{
    for j in 1 2; do
        printf '%s@PJL JOB NAME="part%d"\r\n@PJL SET PITCH=12\r\n@PJL SET FORMLINES=66\r\n@PJL ENTER LANGUAGE=PCL\r\n%sE' "$UEL" "$j" "$ESC"
        sed -n "$((j * 40 + 1)),$((j * 40 + 40))p" "$TEXT" | awk '{ sub(/\r$/, ""); printf "%s\r\n", $0 }'
        printf '%sE%s@PJL EOJ\r\n' "$ESC" "$UEL"
    done
    printf '%s' "$UEL"
} > "$OUT/pcl5/text_two_jobs.pcl"
printf '%s\t%s\t%s\t-\t%s\t%s\t%s\t%s\n' pcl5/text_two_jobs.pcl hand-wrapped 300 2 pcl5 ink 612x792 >> "$MANIFEST"
log "pcl5/text_two_jobs.pcl"

# ---------------------------------------------------------------------------------------------
# Further producers live in their own scripts beside this one, each called on one line below
# with the corpus folder, the sources folder and the manifest being written; a script puts its
# inputs under OUT/pcl5 or OUT/pclxl, its references under OUT/ref, and appends one manifest
# line per input in the format described at the top:
#   bash "$HERE/NAME.sh" "$OUT" "$SRC" "$MANIFEST"
# ---------------------------------------------------------------------------------------------
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export SOURCE_DATE_EPOCH LC_ALL

bash "$HERE/groff_corpus.sh" "$OUT" "$MANIFEST" # groff -Tlj4 man pages against groff's own layout
bash "$HERE/hpgl2_corpus.sh" "$OUT" # plotutils plots, PCL against their PostScript
bash "$HERE/mupdf_corpus.sh" "$OUT" "$SRC" "$MANIFEST" # mutool's PCL against its own bitmaps
bash "$HERE/hp2xx_corpus.sh" "$OUT" "$MANIFEST" "$HERE/../../tests/quarvex/hpgl2/data/shapes.pic" # hp2xx PCL against its PBM
bash "$HERE/cups_drivers_corpus.sh" "$OUT" "$SRC" "$MANIFEST" # Gutenprint and hpcups against Ghostscript
mv "$MANIFEST" "$OUT/manifest.tsv"
log "$(($(wc -l < "$OUT/manifest.tsv") - 1)) files in $OUT/manifest.tsv"
