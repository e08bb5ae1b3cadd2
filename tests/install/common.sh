# Helpers shared by the install and package tests (sourced, not run).
set -euo pipefail

fail() { echo "FAIL: $*" >&2; exit 1; }

# A one-page PCL 5 job that prints with three resident typefaces (fixed pitch, proportional
# sans, italic serif), so that it renders only when the engine finds its font files.
make_resident_font_job() {
    printf '\033E\033&l0O\033(10U\033(s0p10h12v0s0b3T\033&a10R\033&a10C%s\r\n%s%s\r\n%s%s\f\033E' \
        'Hello from the installed engine 0123456789' \
        $'\033(s1p14v0s3b4148T' 'Proportional sans text' \
        $'\033(s1p12v1s0b4101T' 'Italic serif text' > "$1"
}

# A fontconfig set-up that knows no fonts at all: the engine can then only use its own folder.
make_empty_fontconfig() {
    cat > "$1" <<'XML'
<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig></fontconfig>
XML
}

# Runs an engine the way a fresh login would: a bare environment, no fontconfig fonts.
# run_engine ENGINE WORKDIR ARGS... ; prints the exit status
run_bare_engine() {
    local engine=$1 work=$2
    shift 2
    local rc=0
    env -i PATH=/usr/bin:/bin HOME="$work" FONTCONFIG_FILE="$work/empty-fonts.conf" \
        "$engine" "$@" 2> "$work/engine.err" || rc=$?
    echo "$rc"
}

# tiff_pages FILE: the number of pages in a TIFF, and that it has ink on its first page.
tiff_pages() {
    /usr/bin/python3 - "$1" <<'PY'
import sys
from PIL import Image, ImageOps
im = Image.open(sys.argv[1])
first = ImageOps.invert(im.convert("L")).getbbox()
print(getattr(im, "n_frames", 1) if first else 0)
PY
}

# check_engine_renders ENGINE WORK LABEL: in a fresh WORK folder, the engine (started as given,
# in a bare environment without fontconfig fonts) converts the resident-font job into an inked
# one-page G4 TIFF, WORK/out.tif. Leaves WORK/fonts.pcl and WORK/empty-fonts.conf for more runs.
check_engine_renders() {
    local engine=$1 work=$2 label=$3 rc
    mkdir -p "$work"
    make_empty_fontconfig "$work/empty-fonts.conf"
    make_resident_font_job "$work/fonts.pcl"
    rc=$(run_bare_engine "$engine" "$work" -b 1 -c 7 -o "$work/out.tif" -i "$work/fonts.pcl")
    [ "$rc" = 0 ] || fail "$label quarvex exited $rc: $(cat "$work/engine.err")"
    [ "$(tiff_pages "$work/out.tif")" = 1 ] || fail "$label quarvex wrote no inked page"
}
