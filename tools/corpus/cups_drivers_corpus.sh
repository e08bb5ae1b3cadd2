#!/usr/bin/env bash
# CUPS printer drivers as a Linux user prints through them: Gutenprint's HP LaserJet 4 driver
# (rastertogutenprint) and HPLIP's hpcups driver for the HP LaserJet 1015, each with the PPD its
# own package generates, fed the CUPS raster that cupsfilter renders from a PDF for that PPD.
# The reference is Ghostscript's rendering of the same PDF at the same resolution, clipped to
# the PPD's imageable area (CUPS renders the PDF through Ghostscript too): bit for bit.
#
#   tools/corpus/cups_drivers_corpus.sh OUTDIR SRCDIR MANIFEST
#
# SRCDIR holds the corpus's PostScript sources (text.ps). Writes OUTDIR/pcl5/cups-*.pcl and
# OUTDIR/ref/cups-*.tif and appends one line per job to MANIFEST (make_corpus.sh's format).
# Does nothing for a driver that is not installed.
#
# Where the pages land, from the jobs' commands: both drivers send the imageable area only and
# start it at the logical page's left edge (Gutenprint ESC&a0H, hpcups ESC*p0x), a quarter inch
# in on Letter, which is where the PPDs' imageable area starts; "@DX,0" takes back the logical
# page inset the test adds for a page whose origin is the sheet's corner. Vertically Gutenprint
# starts at 120 decipoints (ESC&a120V), the imageable area's 12-point top. hpcups starts at row
# 116 at 600 dpi (ESC*p116Y: the 14-point top, 116.7 rows, cut down) while the rows it sends
# begin with the page's row 117, so its page lands one row above the PDF's: "@150,1".
# hpcups sends the next page's rows after a form feed inside raster graphics; the form feed ends
# raster graphics, the Y offset that follows is then ignored and the rows start again at the
# cursor, so its pages after the first land elsewhere than the PDF's: it is given one page.
set -euo pipefail
if [ $# -ne 3 ]; then
    echo "usage: $0 OUTDIR SRCDIR MANIFEST" >&2
    exit 2
fi
OUT=$1 SRC=$2 MANIFEST=$3
log() { echo "cups_drivers_corpus: $*" >&2; }
command -v cupsfilter > /dev/null && [ -s "$SRC/text.ps" ] || { log "skipped: no cupsfilter or source"; exit 0; }
WORK=$SRC/cups-drivers
rm -rf "$WORK"
mkdir -p "$WORK" "$OUT/pcl5" "$OUT/ref"
GS=(gs -q -dNOPAUSE -dBATCH -dSAFER -sPAPERSIZE=letter -dFIXEDMEDIA)

# pair NAME PPD FILTER DPI PAGES MEASURE IMAGEABLE-LEFT IMAGEABLE-BOTTOM IMAGEABLE-TOP
pair() {
    local name=$1 ppd=$2 filter=$3 dpi=$4 pages=$5 measure=$6 left=$7 bottom=$8 top=$9
    [ -s "$ppd" ] && [ -x "$filter" ] || { log "skipped $name: no driver"; return 0; }
    local pdf=$WORK/$name.pdf in="pcl5/cups-$name.pcl" ref="ref/cups-$name.tif"
    "${GS[@]}" -dLastPage="$pages" -sDEVICE=pdfwrite -sOutputFile="$pdf" "$SRC/text.ps"
    cupsfilter -p "$ppd" -m application/vnd.cups-raster -o Resolution="${dpi}dpi" "$pdf" \
        > "$WORK/$name.ras" 2> /dev/null || { log "skipped $name: cupsfilter failed"; return 0; }
    PPD=$ppd "$filter" 1 user "$name" 1 "Resolution=${dpi}dpi" < "$WORK/$name.ras" > "$OUT/$in" 2> /dev/null ||
        { rm -f "$OUT/$in"; log "skipped $name: the driver failed"; return 0; }
    rm -f "$WORK/$name.ras"
    "${GS[@]}" -sDEVICE=tiffg4 -r"$dpi" -sOutputFile="$OUT/$ref" \
        -c "<< /.HWMargins [$left $bottom $left $top] >> setpagedevice" -f "$pdf"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "$in" "$(basename "$filter")" "$dpi" "$ref" "$pages" pcl5 "$measure" >> "$MANIFEST"
    log "$in"
}

# Gutenprint: the PPD its CUPS driver program writes for the LaserJet 4 (imageable area
# 18 12 594 780 on Letter).
GUTENPRINT=$(ls /usr/lib/cups/driver/gutenprint.* 2> /dev/null | head -1 || true)
if [ -n "$GUTENPRINT" ]; then
    "$GUTENPRINT" cat "$(basename "$GUTENPRINT")://pcl-4/expert" > "$WORK/gutenprint-lj4.ppd" 2> /dev/null || true
    filter=$(ls /usr/lib/cups/filter/rastertogutenprint.* 2> /dev/null | head -1 || true)
    pair gutenprint-lj4-300 "$WORK/gutenprint-lj4.ppd" "${filter:-/nonexistent}" 300 2 "0.999@75,0" 18 12 12
fi
# hpcups: the LaserJet 1015's PPD compiled from HPLIP's driver file (imageable area 18 14 594 778).
if [ -r /usr/share/cups/drv/hpcups.drv ] && command -v ppdc > /dev/null; then
    ppdc -d "$WORK/hpcups" /usr/share/cups/drv/hpcups.drv > /dev/null 2>&1 || true
    pair hpcups-lj1015-600 "$WORK/hpcups/hp-laserjet_1015.ppd" /usr/lib/cups/filter/hpcups 600 1 "0.999@150,1" 18 14 14
    rm -rf "$WORK/hpcups"
fi
