#!/bin/bash
# Makes the EMF test files and their references (run by hand; the results are committed under
# tests/quarvex/emf/data). Needs LibreOffice (Draw), Inkscape, Ghostscript and netpbm:
#   apt-get install libreoffice-draw inkscape ghostscript netpbm
#
# For each document written by documents.py:
#   - LibreOffice (soffice --headless --convert-to emf / pdf) or Inkscape (--export-type=emf / pdf)
#     makes an EMF metafile and a PDF of the same page;
#   - Ghostscript renders the PDF at 150 dpi in grey, and netpbm thresholds it at half grey and
#     stores it as a one-bit Group 4 TIFF: the reference ink of the page.
# The four metafiles are wrapped into one EMF spool file (make_spool.py, Letter paper; stored
# gzip-compressed, the test unpacks it), and one metafile is kept on its own to test plain EMF
# input. With EMF_KEEP_PDF=DIR the PDFs are kept there too (for bench/emf).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=${1:-$here/../../tests/quarvex/emf/data}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

python3 "$here/documents.py" "$work"
cd "$work"
export HOME="$work" # LibreOffice's profile goes here
for doc in emf_fonts emf_table emf_rotated; do
    soffice --headless --convert-to emf "$doc.fodg" >/dev/null 2>&1
    soffice --headless --convert-to pdf "$doc.fodg" >/dev/null 2>&1
done
inkscape --export-type=emf --export-filename=emf_inkscape.emf emf_inkscape.svg >/dev/null 2>&1
inkscape --export-type=pdf --export-filename=emf_inkscape.pdf emf_inkscape.svg >/dev/null 2>&1

pages=(emf_fonts emf_table emf_rotated emf_inkscape)
refs=()
for doc in "${pages[@]}"; do
    gs -q -dSAFER -dNOPAUSE -dBATCH -sDEVICE=pgmraw -r150 -dTextAlphaBits=1 -dGraphicsAlphaBits=1 \
       -sOutputFile="$doc.pgm" "$doc.pdf"
    pamthreshold -simple -threshold=0.5 "$doc.pgm" 2>/dev/null | pnmtotiff -g4 -rowsperstrip=4096 >"$doc.ref.tif" 2>/dev/null
    refs+=("$doc.ref.tif")
done
python3 "$here/make_spool.py" --paper letter lo_inkscape_4pages.spl "${pages[@]/%/.emf}"
gzip -9n <lo_inkscape_4pages.spl >"$out/lo_inkscape_4pages.spl.gz"
tiffcp -c g4 "${refs[@]}" "$out/lo_inkscape_4pages.ref.tif"
if [ -n "${EMF_KEEP_PDF:-}" ]; then
    mkdir -p "$EMF_KEEP_PDF"
    cp ./*.pdf "$EMF_KEEP_PDF/"
fi
cp emf_rotated.emf "$out/lo_rotated.emf"
cp emf_rotated.ref.tif "$out/lo_rotated.ref.tif"
ls -l "$out"
