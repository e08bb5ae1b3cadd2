#!/usr/bin/env bash
# Man pages set by groff for a LaserJet 4 (groff -Tlj4), with references of where every glyph
# belongs, for the corpus and for the PCL 5 text test.
#
#   tools/corpus/groff_corpus.sh OUTDIR [MANIFEST]
#
# Writes OUTDIR/pcl5/groff-NAME.pcl, OUTDIR/ref/groff-NAME.tif (300 dpi) and OUTDIR/src/groff-NAME.ps,
# and for ls(1) the reference at 75 and 600 dpi too (OUTDIR/src/groff-ls-atDPI.tif).
# The reference is groff's own layout of the LaserJet document (its intermediate output, placed
# with HP's metrics) drawn glyph by glyph by Ghostscript with the URW fonts: groff -Tps lays the
# same page out with Adobe's metrics, which puts words a pixel or two per space elsewhere (CG
# Times' space is 0.295 em, Times' 0.25), so the PostScript rendering (src/groff-NAME-ps.tif) is
# kept beside it for looking at, not for measuring.
# With MANIFEST, appends one line per document in make_corpus.sh's manifest format: 97 % of the
# pixels agree, with no shift (groff's commands place the text where the reference has it); every
# glyph edge that rounds differently counts there, so the PCL 5 groff test measures the ink
# F-score with a one-pixel tolerance, the measure for text.
# Both are made on Letter whatever /etc/papersize says. Needs groff, gs and python3.
set -euo pipefail

if [ $# -lt 1 ]; then
    echo "usage: $0 OUTDIR [MANIFEST]" >&2
    exit 2
fi
OUT=$1
MANIFEST=${2:-}
HERE=$(cd "$(dirname "$0")" && pwd)
PY=/usr/bin/python3
[ -x "$PY" ] || PY=python3
mkdir -p "$OUT/pcl5" "$OUT/ref" "$OUT/src"
export LC_ALL=C SOURCE_DATE_EPOCH=1700000000
GS=(gs -q -dNOPAUSE -dBATCH -dSAFER)
PAPER=(-dpaper=letter -P-pletter)

log() { echo "groff_corpus: $*" >&2; }

# NAME SECTION: the man page, when the system has it.
for page in ls:1 cp:1 groff_char:7; do
    name=${page%%:*}
    section=${page#*:}
    src=
    for f in "/usr/share/man/man$section/$name.$section.gz" "/usr/share/man/man$section/$name.$section"; do
        [ -r "$f" ] && src=$f && break
    done
    if [ -z "$src" ]; then
        log "skipped $name($section): not installed"
        continue
    fi
    base=groff-$name
    roff() { if [[ $src == *.gz ]]; then zcat "$src"; else cat "$src"; fi; }
    # groff_char uses tbl and eqn-free tables; -t is harmless for the others.
    roff | groff -t -man -Tlj4 "${PAPER[@]}" 2>/dev/null > "$OUT/pcl5/$base.pcl"
    roff | groff -t -man -Tlj4 "${PAPER[@]}" -Z 2>/dev/null | "$PY" "$HERE/groff_lj4_layout.py" > "$OUT/src/$base.ps"
    "${GS[@]}" -sDEVICE=tiffg4 -r300 -sOutputFile="$OUT/ref/$base.tif" "$OUT/src/$base.ps"
    if [ "$name" = ls ]; then # the same reference at the lowest and highest resolutions
        for dpi in 75 600; do
            "${GS[@]}" -sDEVICE=tiffg4 -r$dpi -sOutputFile="$OUT/src/$base-at$dpi.tif" "$OUT/src/$base.ps"
        done
    fi
    roff | groff -t -man -Tps "${PAPER[@]}" 2>/dev/null > "$OUT/src/$base-ps.ps"
    "${GS[@]}" -sDEVICE=tiffg4 -r300 -sOutputFile="$OUT/src/$base-ps.tif" "$OUT/src/$base-ps.ps"
    pages=$("$PY" -c 'import sys
from PIL import Image
print(getattr(Image.open(sys.argv[1]), "n_frames", 1))' "$OUT/ref/$base.tif")
    if [ -n "$MANIFEST" ]; then
        printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t-\n' "pcl5/$base.pcl" groff-lj4 300 "ref/$base.tif" "$pages" pcl5 0.97@sheet >> "$MANIFEST"
    fi
    log "$base.pcl ($pages pages)"
done
