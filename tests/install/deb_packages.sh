#!/usr/bin/env bash
# Makes the Debian packages with CPack and checks them as a fresh machine would see them: their
# control fields, their file lists, that every shared library their programs load belongs to a
# package they depend on, that those dependencies are satisfied by Debian's packages here, and
# that the engine unpacked into a throw-away root converts a real file with its own fonts.
# Usage: deb_packages.sh BUILD_DIR OUT_DIR FRONTEND(0|1) VERSION
source "$(dirname "$0")/common.sh"
build=$1 out=$2 frontend=$3 version=$4

rm -rf "$out"
mkdir -p "$out"
(cd "$build" && cpack --config CPackConfig.cmake -B "$out" > "$out/cpack.log" 2>&1) ||
    { cat "$out/cpack.log"; fail "cpack"; }
arch=$(dpkg --print-architecture)
engine_deb=$out/quarvex_${version}_${arch}.deb
frontend_deb=$out/quarvel_${version}_${arch}.deb
[ -f "$engine_deb" ] || fail "no engine package $(basename "$engine_deb"): $(ls "$out")"
debs=("$engine_deb")
if [ "$frontend" = 1 ]; then
    [ -f "$frontend_deb" ] || fail "no front-end package $(basename "$frontend_deb")"
    debs+=("$frontend_deb")
fi

field() { dpkg-deb -f "$1" "$2"; }

# depends_on DEB PACKAGE: the Depends field names PACKAGE (possibly with a version).
depends_on() {
    field "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -x "$2" > /dev/null
}

# dependencies_installed DEB: every dependency (or one of its alternatives) is an installed
# Debian package of a version that satisfies the relation.
dependencies_installed() {
    local deb=$1 group alt name rel ver installed ok
    while IFS= read -r group; do
        [ -n "$group" ] || continue
        ok=0
        IFS='|' read -ra alts <<< "$group"
        for alt in "${alts[@]}"; do
            alt=$(sed 's/^ *//; s/ *$//' <<< "$alt")
            name=${alt%% *}
            [ "$name" = quarvex ] && { ok=1; break; }   # the sibling package, checked above
            installed=$(dpkg-query -W -f='${Version}' "$name" 2>/dev/null) || continue
            if [[ $alt =~ \((.*)\ (.*)\) ]]; then
                rel=${BASH_REMATCH[1]} ver=${BASH_REMATCH[2]}
                case $rel in '>=') rel=ge;; '<=') rel=le;; '=') rel=eq;; '>>') rel=gt;; '<<') rel=lt;; esac
                dpkg --compare-versions "$installed" "$rel" "$ver" || continue
            fi
            ok=1
            break
        done
        [ "$ok" = 1 ] || fail "$(basename "$deb"): dependency not satisfied here: $group"
    done < <(field "$deb" Depends | tr ',' '\n')
}

for deb in "${debs[@]}"; do
    name=$(field "$deb" Package)
    [ "$(field "$deb" Version)" = "$version" ] || fail "$name: version $(field "$deb" Version)"
    [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$name: architecture"
    [ -n "$(field "$deb" Depends)" ] || fail "$name: no dependencies"
    [ -n "$(field "$deb" Description)" ] || fail "$name: no description"
    dependencies_installed "$deb"
done
field "$engine_deb" Recommends | grep parallel > /dev/null || fail "quarvex does not recommend parallel"
depends_on "$engine_deb" libtiff6 || fail "quarvex does not depend on libtiff6: $(field "$engine_deb" Depends)"
# Loaded at run time for PostScript and PDF jobs, so named by hand rather than found by the scan.
depends_on "$engine_deb" libgs10 || fail "quarvex does not depend on libgs10: $(field "$engine_deb" Depends)"
if [ "$frontend" = 1 ]; then
    depends_on "$frontend_deb" quarvex || fail "quarvel does not depend on quarvex"
    field "$frontend_deb" Depends | grep -F "quarvex (= $version)" > /dev/null || fail "quarvel: quarvex not pinned to $version"
    depends_on "$frontend_deb" libqt6widgets6 || fail "quarvel does not depend on libqt6widgets6"
fi

# apt resolves the packages' dependencies from Debian's archive (as "apt install ./*.deb" on a
# fresh machine would), and refuses the front end without its engine.
apt-get install --simulate --no-install-recommends "${debs[@]}" > "$out/apt.log" 2>&1 ||
    { cat "$out/apt.log"; fail "apt cannot install the packages"; }
if [ "$frontend" = 1 ] && apt-get install --simulate --no-install-recommends "$frontend_deb" > "$out/apt-alone.log" 2>&1; then
    fail "apt would install quarvel without quarvex"
fi

# The file lists.
contents() { dpkg-deb -c "$1" | awk '{ print $6 }' | sed 's#^\./#/#'; }
contents "$engine_deb" > "$out/engine.list"
for f in /usr/lib/quarvel/bin/quarvex /usr/bin/quarvex /usr/share/man/man1/quarvex.1.gz \
         /usr/lib/quarvel/bin/convert-tree /usr/bin/quarvex-convert-tree \
         /usr/lib/quarvel/fonts/NimbusSans-Regular.otf /usr/lib/quarvel/fonts/LiberationMono-Regular.ttf; do
    grep -qx "$f" "$out/engine.list" || fail "quarvex package lacks $f"
done
if grep -E 'quarvel/bin/quarvel$|plugins|share/applications' "$out/engine.list"; then
    fail "the engine package carries front-end files"
fi
if [ "$frontend" = 1 ]; then
    contents "$frontend_deb" > "$out/frontend.list"
    for f in /usr/lib/quarvel/bin/quarvel /usr/bin/quarvel \
             /usr/lib/quarvel/plugins/imageformats/libqico.so \
             /usr/share/applications/example.tarnbeck.Quarvel.desktop \
             /usr/share/metainfo/example.tarnbeck.Quarvel.metainfo.xml \
             /usr/share/icons/hicolor/48x48/apps/quarvel.png \
             /usr/share/icons/hicolor/scalable/apps/quarvel.svg /usr/share/man/man1/quarvel.1.gz; do
        grep -qx "$f" "$out/frontend.list" || fail "quarvel package lacks $f"
    done
    dups=$(sort "$out/engine.list" "$out/frontend.list" | grep -v '/$' | uniq -d)
    [ -z "$dups" ] || fail "files in both packages: $dups"
fi

# package_of PATH: the installed Debian package that holds a library, trying the path as given,
# its real path, and both with and without the /usr of a merged-/usr system.
package_of() {
    local p candidates=("$1" "$(readlink -f "$1")")
    for p in "${candidates[@]}"; do
        candidates+=("${p#/usr}" "/usr${p#/usr}")
    done
    for p in "${candidates[@]}"; do
        p=$(dpkg -S "$p" 2> /dev/null | sed -n '1s/:.*//p')
        [ -z "$p" ] || { echo "$p"; return 0; }
    done
    return 0
}

# Unpack into a throw-away root.
root=$out/root
for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$root"
done

# Every shared library that a program or plug-in in the packages loads comes from a package
# that the package depends on (or from libc, which every system has).
declare -A owner_of
for deb in "${debs[@]}"; do
    while IFS= read -r path; do
        elf=$root$path
        file -b "$elf" | grep '^ELF' > /dev/null || continue
        while IFS= read -r lib; do
            if [ -z "${owner_of[$lib]:-}" ]; then
                libpath=$(ldconfig -p | awk -v l="$lib" '$1 == l && !found { print $NF; found = 1 }')
                [ -n "$libpath" ] || fail "$path needs $lib, which this system does not have"
                owner_of[$lib]=$(package_of "$libpath")
                [ -n "${owner_of[$lib]}" ] || fail "$path needs $lib ($libpath), which no Debian package holds"
            fi
            owner=${owner_of[$lib]}
            [ "$owner" = libc6 ] && continue
            depends_on "$deb" "$owner" || fail "$(field "$deb" Package): $path needs $lib from $owner, not in Depends"
        done < <(objdump -p "$elf" | awk '$1 == "NEEDED" { print $2 }')
    done < <(contents "$deb" | grep -v '/$')
done

# The unpacked engine converts a real file with its own fonts, through its launcher.
work=$out/run
check_engine_renders "$root/usr/bin/quarvex" "$work" packaged
file -b "$root/usr/lib/quarvel/bin/quarvex" | grep ', stripped' > /dev/null || fail "engine not stripped"
echo "packages: $(cd "$out" && ls *.deb | tr '\n' ' ')"
for deb in "${debs[@]}"; do echo "$(field "$deb" Package) Depends: $(field "$deb" Depends)"; done
