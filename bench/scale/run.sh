#!/usr/bin/env bash
# Pages per second of one machine converting an archive with tools/convert-tree.
#
#   bench/scale/run.sh [WORK_DIR [FILES [PAGES_PER_FILE [JOBS]]]]
#
# Makes a tree of FILES print files (default 200) of PAGES_PER_FILE pages each (default 15):
# a third PCL 5 raster from Ghostscript's ljet4 driver (300 dpi), a third PCL XL from its pxlmono
# driver (600 dpi), both of generated account statements (statement.ps), and a third plain PCL 5
# text in the printer's resident fonts. Converts it with JOBS engines (default: the processors)
# to black-and-white G4 TIFF, and reports wall-clock pages per second, and, since wall clock is
# worthless on a shared machine, the CPU seconds the engines used: pages per CPU second times the
# number of cores is what a machine of its own achieves. Also measures the cost of one engine
# start (a one-page text job, 20 times).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
work=${1:-/tmp/quarvel-scale}
files=${2:-200}
pages=${3:-15}
jobs=${4:-$(nproc)}
engine=${QUARVEX:-$root/build/stage/bin/quarvex}
[ -x "$engine" ] || { echo "build the engine first ($engine)" >&2; exit 2; }

mkdir -p "$work/src"
src=$work/src
if [ ! -f "$src/statements-$pages.pcl" ]; then
    gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=ljet4 -r300 -sOutputFile="$src/statements-$pages.pcl" \
       -c "/PAGES $pages def" -f "$here/statement.ps"
    gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pxlmono -r600 -sOutputFile="$src/statements-$pages.pxl" \
       -c "/PAGES $pages def" -f "$here/statement.ps"
    {
        printf '\033E\033&l0O\033(10U\033(s0p12h10v0s0b3T'
        for p in $(seq "$pages"); do
            printf '\033&a0R\033(s1p14v0s3b4148TTarnbeck Savings Bank\r\n\033(s0p12h10v0s0b3T'
            printf 'Account statement                                   page %d\r\n\r\n' "$p"
            for l in $(seq 50); do
                printf '2026-%02d-%02d   Transfer ref %07d %30d.%02d\r\n' $((l % 12 + 1)) $((l % 28 + 1)) $((p * 1000 + l)) $((l * 37 % 9000)) $((l % 100))
            done
            printf '\f'
        done
        printf '\033E'
    } > "$src/statements-$pages.prn"
    printf '\033E\033(10U\033(s0p12h10v0s0b3TOne page\f\033E' > "$src/one-page.prn"
fi

rm -rf "$work/in" "$work/out"
for i in $(seq "$files"); do
    dir=$work/in/batch$((i / 20))
    mkdir -p "$dir"
    case $((i % 3)) in
    0) cp "$src/statements-$pages.pcl" "$dir/doc$i.pcl" ;;
    1) cp "$src/statements-$pages.pxl" "$dir/doc$i.pxl" ;;
    2) cp "$src/statements-$pages.prn" "$dir/doc$i.prn" ;;
    esac
done

/usr/bin/python3 - "$root/tools/convert-tree" "$engine" "$work" "$jobs" "$src/one-page.prn" <<'PY'
import os, resource, subprocess, sys, time
tree, engine, work, jobs, one = sys.argv[1:]
def cpu():
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime + r.ru_stime
c0, t0 = cpu(), time.monotonic()
run = subprocess.run([tree, "--engine", engine, "-j", jobs, work + "/in", work + "/out",
                      "--", "-b", "1", "-c", "7"], stderr=subprocess.PIPE, text=True)
t1, c1 = time.monotonic(), cpu()
sys.stderr.write(run.stderr)
pages = 0
for line in run.stderr.splitlines():
    if line.startswith("convert-tree: pages"):
        pages = int(line.split()[2])
c2 = cpu()
for _ in range(20):
    subprocess.run([engine, "-b", "1", "-c", "7", "-o", work + "/one.tif", "-i", one], check=True)
c3 = cpu()
load = os.getloadavg()[0]
print(f"pages {pages}, wall {t1 - t0:.1f} s, {pages / (t1 - t0):.2f} pages/s with {jobs} jobs "
      f"(load average {load:.1f} on {os.cpu_count()} cores)")
print(f"CPU {c1 - c0:.1f} s: {pages / (c1 - c0):.2f} pages per CPU second; "
      f"{int(jobs)} cores of a machine of its own: {int(jobs) * pages / (c1 - c0):.1f} pages/s")
print(f"one engine start with a one-page job: {(c3 - c2) / 20 * 1000:.0f} ms CPU")
PY
