#!/usr/bin/env bash
# Validates one kind of installed desktop file with Debian's tools; any message at all fails.
# Usage: validate.sh desktop_entry|metainfo|icons|man_pages ROOT FRONTEND(0|1)
source "$(dirname "$0")/common.sh"
check=$1 prefix=$2/usr frontend=$3
share=$prefix/share
[ -d "$share" ] || fail "no installed tree at $prefix"

case $check in
desktop_entry)
    [ "$frontend" = 1 ] || { echo "front end not built: no desktop entry"; exit 0; }
    entry=$share/applications/example.tarnbeck.Quarvel.desktop
    out=$(desktop-file-validate "$entry" 2>&1) || fail "desktop-file-validate: $out"
    [ -z "$out" ] || fail "desktop-file-validate: $out"
    # The entry starts the program through the launcher that the package puts on PATH, and
    # names the installed icon.
    grep -qx 'Exec=quarvel' "$entry" || fail "Exec is not the quarvel launcher"
    [ -L "$prefix/bin/quarvel" ] || fail "no quarvel launcher in bin/"
    grep -qx 'Icon=quarvel' "$entry" || fail "Icon is not quarvel"
    ;;
metainfo)
    [ "$frontend" = 1 ] || { echo "front end not built: no metainfo"; exit 0; }
    file=$share/metainfo/example.tarnbeck.Quarvel.metainfo.xml
    out=$(appstreamcli validate --no-net --no-color "$file" 2>&1) || fail "appstreamcli: $out"
    # Infos are allowed (the .example domain is not a known top-level domain); warnings are not.
    if grep -E '^[EW]:' <<< "$out"; then fail "appstreamcli reported problems"; fi
    grep -q '<launchable type="desktop-id">example.tarnbeck.Quarvel.desktop</launchable>' "$file" ||
        fail "metainfo does not name the desktop entry"
    ;;
icons)
    [ "$frontend" = 1 ] || { echo "front end not built: no icons"; exit 0; }
    /usr/bin/python3 - "$share/icons/hicolor" <<'PY' || fail "icon check"
import os, sys, xml.etree.ElementTree as ET
from PIL import Image
theme = sys.argv[1]
sizes = [d for d in os.listdir(theme) if "x" in d]
assert len(sizes) >= 6, sizes
for d in sizes:
    w, h = (int(v) for v in d.split("x"))
    im = Image.open(os.path.join(theme, d, "apps", "quarvel.png"))
    assert im.size == (w, h), (d, im.size)
    assert im.mode == "RGBA", (d, im.mode)
    assert im.getchannel("A").getextrema()[0] == 0, d + ": no transparent pixel"
root = ET.parse(os.path.join(theme, "scalable", "apps", "quarvel.svg")).getroot()
assert root.tag == "{http://www.w3.org/2000/svg}svg", root.tag
assert root.get("viewBox") == "0 0 64 64", root.get("viewBox")
print("icons:", sorted(sizes, key=lambda s: int(s.split("x")[0])), "and scalable")
PY
    ;;
man_pages)
    pages=(quarvex)
    [ "$frontend" = 1 ] && pages+=(quarvel)
    for page in "${pages[@]}"; do
        file=$share/man/man1/$page.1.gz
        [ -f "$file" ] || fail "no manual page $page.1"
        warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$file" 2>&1 >/dev/null) || fail "man $page: $warnings"
        [ -z "$warnings" ] || fail "man --warnings $page: $warnings"
    done
    # The engine's page is written from its --help: every option of the help is in it.
    text=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$share/man/man1/quarvex.1.gz" 2>/dev/null | col -b)
    opts=$("$prefix/bin/quarvex" --help | grep -oE '^  -[a-z-]+' | tr -d ' ')
    [ -n "$opts" ] || fail "no options in quarvex --help"
    for o in $opts; do
        grep -q -- "$o" <<< "$text" || fail "quarvex.1 lacks the option $o"
    done
    grep -q "PCLFONTSOURCE" <<< "$text" || fail "quarvex.1 lacks its ENVIRONMENT section"
    ;;
*) fail "unknown check $check" ;;
esac
echo "$check: valid"
