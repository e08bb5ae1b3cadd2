#!/bin/sh
# Regenerates the small print-file fixtures of the engine tests from fixtures.ps with Ghostscript.
set -e
cd "$(dirname "$0")"
gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=ljet4 -r300 -sOutputFile=two_pages_ljet4_300dpi.pcl fixtures.ps
gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pxlmono -r75 -sOutputFile=two_pages_pxlmono_75dpi.pxl fixtures.ps
