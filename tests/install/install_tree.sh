#!/usr/bin/env bash
# cmake --install into a fresh folder, then checks the bundle layout that the programs rely on
# (engine and front end side by side in lib/quarvel/bin, plugins one level up, fonts beside bin),
# the relative launchers in bin/, and runs the installed engine, through its launcher and with a
# bare environment, on a job that needs the resident fonts.
# Usage: install_tree.sh BUILD_DIR ROOT FRONTEND(0|1)
source "$(dirname "$0")/common.sh"
build=$1 root=$2 frontend=$3

rm -rf "$root"
mkdir -p "$root"
# The prefix must not contain a full stop: the front end finds the fonts folder from its own path
# by cutting at the last one (see the README's install section).
prefix=$root/usr
if [ "$frontend" = 1 ]; then
    cmake --install "$build" --prefix "$prefix" > "$root/install.log"
else
    cmake --install "$build" --prefix "$prefix" --component engine > "$root/install.log"
fi

bundle=$prefix/lib/quarvel
expect_files=(lib/quarvel/bin/quarvex lib/quarvel/bin/convert-tree share/man/man1/quarvex.1.gz)
expect_links=(bin/quarvex bin/quarvex-convert-tree)
if [ "$frontend" = 1 ]; then
    expect_files+=(lib/quarvel/bin/quarvel lib/quarvel/plugins/imageformats/libqico.so
                   share/applications/example.tarnbeck.Quarvel.desktop
                   share/metainfo/example.tarnbeck.Quarvel.metainfo.xml
                   share/icons/hicolor/scalable/apps/quarvel.svg share/man/man1/quarvel.1.gz)
    for s in 16 22 24 32 48 64 128 256; do
        expect_files+=(share/icons/hicolor/${s}x${s}/apps/quarvel.png)
    done
    expect_links+=(bin/quarvel)
fi
for f in "${expect_files[@]}"; do
    [ -f "$prefix/$f" ] || fail "not installed: $f"
done
for l in "${expect_links[@]}"; do
    [ -L "$prefix/$l" ] || fail "not a link: $l"
    target=$(readlink "$prefix/$l")
    case $target in /*) fail "$l is an absolute link ($target): the tree could not be moved";; esac
    [ "$(dirname "$(readlink -f "$prefix/$l")")" = "$(readlink -f "$bundle/bin")" ] ||
        fail "$l does not lead into the bundle"
done
for f in "$bundle"/bin/*; do
    [ -x "$f" ] || fail "not executable: $f"
done

# Every font file that the build staged is installed.
stage_fonts=$(cd "$build/stage/fonts" && ls | grep -E '\.(otf|ttf)$' | sort)
inst_fonts=$(cd "$bundle/fonts" && ls | sort)
[ -n "$stage_fonts" ] || fail "the build staged no fonts"
[ "$stage_fonts" = "$inst_fonts" ] || fail "installed fonts differ from the staged ones"

# The installed engine, started through its launcher in a bare environment, renders resident-font
# text from its own fonts folder, and gives the same bytes as the build's engine.
work=$root/run
check_engine_renders "$prefix/bin/quarvex" "$work" installed
rc=$(run_bare_engine "$build/stage/bin/quarvex" "$work" -b 1 -c 7 -o "$work/stage.tif" -i "$work/fonts.pcl")
[ "$rc" = 0 ] || fail "staged quarvex exited $rc"
cmp -s "$work/out.tif" "$work/stage.tif" || fail "installed and staged engines give different output"

# Control: the same tree without its fonts folder cannot render that text, so the run above
# really used the installed fonts.
cp -a "$prefix" "$work/nofonts"
rm -rf "$work/nofonts/lib/quarvel/fonts"
rc=$(run_bare_engine "$work/nofonts/bin/quarvex" "$work" -b 1 -c 7 -o "$work/nofonts.tif" -i "$work/fonts.pcl")
[ "$rc" = 3 ] || fail "without its fonts the engine exited $rc, expected 3 (text skipped)"
rm -rf "$work/nofonts"

# The installed convert-tree finds the engine beside it.
mkdir -p "$work/tree/in/sub"
cp "$work/fonts.pcl" "$work/tree/in/sub/letter.pcl"
env -i PATH=/usr/bin:/bin HOME="$work" FONTCONFIG_FILE="$work/empty-fonts.conf" \
    "$prefix/bin/quarvex-convert-tree" -j 1 "$work/tree/in" "$work/tree/out" 2> "$work/tree.log" ||
    fail "installed convert-tree: $(cat "$work/tree.log")"
rc=$(run_bare_engine "$build/stage/bin/quarvex" "$work" -o "$work/stage-24.tif" -i "$work/fonts.pcl")
[ "$rc" = 0 ] || fail "staged quarvex exited $rc"
cmp -s "$work/tree/out/sub/letter.tif" "$work/stage-24.tif" ||
    fail "installed convert-tree did not write the engine's output"

# A two-page PCL XL file from a real producer converts too.
data=$(dirname "$0")/../quarvex/data
rc=$(run_bare_engine "$prefix/bin/quarvex" "$work" -o "$work/pxl.tif" -i "$data/two_pages_pxlmono_75dpi.pxl")
[ "$rc" = 0 ] || fail "installed quarvex exited $rc on the PCL XL file"
[ "$(tiff_pages "$work/pxl.tif")" = 2 ] || fail "expected two pages from the PCL XL file"
echo "installed tree at $prefix is complete and its engine converts"
