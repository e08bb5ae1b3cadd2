#!/bin/sh
# Remakes the Ghostscript-made PCL jobs in ../data from the PostScript files here, and prints the
# ink boxes of Ghostscript's own renderings that the real-file tests expect.
set -e
cd "$(dirname "$0")"
D=../data
G="gs -q -dNOPAUSE -dBATCH -dFIXEDMEDIA"
$G -r300 -sPAPERSIZE=letter -sDEVICE=ljet4 -sOutputFile=$D/small-ljet4.pcl small.ps
$G -r300 -sPAPERSIZE=letter -sDEVICE=ljet4pjl -sOutputFile=$D/small-ljet4pjl.pcl small.ps
$G -r300 -sPAPERSIZE=a4 -sDEVICE=ljet4 -sOutputFile=$D/a4-ljet4.pcl small-a4.ps
$G -r600 -sPAPERSIZE=letter -sDEVICE=ljet4 -sOutputFile=$D/tiny-ljet4-600.pcl tiny.ps
$G -r300 -sPAPERSIZE=letter -sDEVICE=laserjet -sOutputFile=$D/corner-laserjet.pcl corner.ps
tmp=$(mktemp -d)
$G -r300 -sPAPERSIZE=letter -sDEVICE=pbmraw -sOutputFile=$tmp/small.pbm small.ps
$G -r300 -sPAPERSIZE=a4 -sDEVICE=pbmraw -sOutputFile=$tmp/a4-%d.pbm small-a4.ps
$G -r600 -sPAPERSIZE=letter -sDEVICE=pbmraw -sOutputFile=$tmp/tiny600.pbm tiny.ps
$G -r300 -sPAPERSIZE=letter -sDEVICE=pbmraw -sOutputFile=$tmp/corner.pbm corner.ps
/usr/bin/python3 - "$tmp"/*.pbm <<'PY'
import sys
from PIL import Image
for f in sys.argv[1:]:
    im = Image.open(f).convert("L")
    box = im.point(lambda v: 255 if v < 128 else 0).getbbox()
    ink = sum(1 for v in im.getdata() if v < 128)
    print(f.rsplit("/", 1)[1], im.size, "ink box (exclusive right/bottom):", box, "pixels:", ink)
PY
rm -rf "$tmp"
