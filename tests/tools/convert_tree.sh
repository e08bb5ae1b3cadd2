#!/usr/bin/env bash
# tools/convert-tree on a generated tree: mirrored outputs equal to single engine runs, the summary
# and exit status for converted / with warnings / failed, skipping of up-to-date outputs, and a
# run stopped half-way that continues without converting anything twice.
# Usage: convert_tree.sh SOURCE_DIR ENGINE WORK_DIR
set -euo pipefail
src=$1 engine=$(readlink -f "$2") work=$3
tree=$src/tools/convert-tree
data=$src/tests/quarvex/data
fail() { echo "FAIL: $*" >&2; exit 1; }
source "$src/tests/install/common.sh"

rm -rf "$work"
mkdir -p "$work"
in=$work/in out=$work/out
mkdir -p "$in/2024/jan" "$in/2024/feb reports" "$in/fax"
cp "$data/two_pages_ljet4_300dpi.pcl" "$in/2024/jan/statement.pcl"
cp "$data/two_pages_pxlmono_75dpi.pxl" "$in/2024/feb reports/invoice 17.PXL"
make_resident_font_job "$in/fax/cover.prn"
head -c 3000 "$data/two_pages_ljet4_300dpi.pcl" > "$in/fax/truncated.pcl"   # exit 3
: > "$in/fax/empty.spl"                                                    # exit 1
echo "not a print file" > "$in/2024/notes.txt"                            # not taken

# run_tree ARGS...: runs convert-tree, keeps its exit status in $rc and its messages in $log.
run_tree() {
    rc=0
    "$tree" --engine "$engine" -j 2 "$@" 2> "$work/log" || rc=$?
    log=$(cat "$work/log")
}
summary_has() { grep -qF "$1" <<< "$log" || fail "summary lacks '$1':"$'\n'"$log"; }

# First run: 5 print files, 3 converted, 1 with warnings, 1 failed -> exit 1.
run_tree "$in" "$out" -- -b 1 -c 7
[ $rc = 1 ] || fail "first run exited $rc, expected 1 (a file failed):"$'\n'"$log"
summary_has "5 print files, 0 up to date, 5 to convert"
summary_has "converted 3, with warnings 1, failed 1"
for rel in "2024/jan/statement" "2024/feb reports/invoice 17" "fax/cover" "fax/truncated"; do
    [ -f "$out/$rel.tif" ] || fail "no output $rel.tif"
done
[ ! -e "$out/fax/empty.tif" ] || fail "a failed input left an output"
[ ! -e "$out/2024/notes.tif" ] || fail "a text file was converted"
# Every output is the engine's own output for that file.
for pair in "2024/jan/statement.pcl" "2024/feb reports/invoice 17.PXL" "fax/cover.prn"; do
    "$engine" -b 1 -c 7 -o "$work/single.tif" -i "$in/$pair"
    cmp -s "$work/single.tif" "$out/${pair%.*}.tif" || fail "$pair: output differs from a single run"
done
pages_expected=$(( $(tiff_pages "$out/2024/jan/statement.tif") + $(tiff_pages "$out/2024/feb reports/invoice 17.tif")
                   + $(tiff_pages "$out/fax/cover.tif") + $(tiff_pages "$out/fax/truncated.tif") ))
summary_has "pages $pages_expected in"
grep -q "fax/truncated.pcl" "$out/.convert-tree/messages" || fail "the engine's warning is not kept"
[ "$(wc -l < "$out/.convert-tree/joblog")" = 5 ] || fail "the job log does not hold five jobs"

# Second run: everything but the failed file is up to date; nothing is converted again.
stamp() { find "$out" -name '*.tif' -printf '%p %T@\n' | sort; }
before=$(stamp)
run_tree "$in" "$out" -- -b 1 -c 7
[ $rc = 1 ] || fail "second run exited $rc, expected 1 (the empty file fails again)"
summary_has "5 print files, 4 up to date, 1 to convert"
[ "$(stamp)" = "$before" ] || fail "up-to-date outputs were written again"
[ "$(wc -l < "$out/.convert-tree/joblog")" = 6 ] || fail "the job log is not appended to"

# A changed input is converted again; with the failing file gone the run is clean.
rm "$in/fax/empty.spl"
touch "$in/2024/jan/statement.pcl"
run_tree "$in" "$out" -- -b 1 -c 7
[ $rc = 0 ] || fail "third run exited $rc, expected 0:"$'\n'"$log"
summary_has "converted 1, with warnings 0, failed 0"
summary_has "pages 2 in"

# Only warnings -> exit 3.
run_tree "$in" "$work/out-warn" -- -b 1 -c 7
[ $rc = 3 ] || fail "a run with only warnings exited $rc, expected 3"
# Two inputs that would give the same output: the second is refused, not overwritten.
cp "$in/fax/cover.prn" "$in/fax/cover.pcl"
run_tree "$in" "$work/out-clash" -- -b 1 -c 7
[ $rc = 1 ] || fail "a clash exited $rc, expected 1"
summary_has "would overwrite the output of fax/cover.pcl"
rm "$in/fax/cover.pcl"
# Usage errors -> exit 2.
run_tree "$in"
[ $rc = 2 ] || fail "a missing output folder exited $rc, expected 2"
run_tree --bogus "$in" "$out"
[ $rc = 2 ] || fail "an unknown option exited $rc, expected 2"

# Two shares (as two tasks of a job array): together every file once, and the clash is seen
# even when its two inputs fall into different shares.
cp "$in/fax/cover.prn" "$in/fax/cover.pcl"
rc0=0 rc1=0
"$tree" --engine "$engine" --shard 0/2 "$in" "$work/out-shard" 2> "$work/log0" || rc0=$?
"$tree" --engine "$engine" --shard 1/2 "$in" "$work/out-shard" 2> "$work/log1" || rc1=$?
[ "$(find "$work/out-shard" -name '*.tif' | wc -l)" = 4 ] || fail "two shares did not convert the four files"
grep -h "print files" "$work/log0" "$work/log1" | grep "3 print files" > /dev/null || fail "shares are not 3 and 2 files"
grep -h "fax/cover.prn: refused" "$work/log0" "$work/log1" > /dev/null || fail "the clash across shares was missed"
# One share holds the clash (1), the other the truncated file (3).
[ "$rc0 $rc1" = "1 3" ] || [ "$rc0 $rc1" = "3 1" ] || fail "shares exited $rc0 and $rc1, expected 1 and 3"
rm "$in/fax/cover.pcl"

# Stopped and started again: a tree of 16 files, an engine that notes each input it starts and
# takes a moment. SIGTERM after a few have started: the run ends with 4, running engines finish,
# and the second run converts exactly the rest.
big=$work/big
for i in $(seq -w 1 16); do
    mkdir -p "$big/box$((10#$i % 3))"
    cp "$data/two_pages_pxlmono_75dpi.pxl" "$big/box$((10#$i % 3))/job$i.pxl"
done
cat > "$work/slow-engine" <<SH
#!/usr/bin/env bash
echo "\${@: -1}" >> "$work/started"
sleep 0.5
exec "$engine" "\$@"
SH
chmod +x "$work/slow-engine"
: > "$work/started"
rc=0
"$tree" --engine "$work/slow-engine" -j 2 "$big" "$work/big-out" 2> "$work/log" &
pid=$!
for _ in $(seq 100); do
    [ "$(wc -l < "$work/started")" -ge 4 ] && break
    sleep 0.1
done
kill -TERM $pid
wait $pid || rc=$?
log=$(cat "$work/log")
[ $rc = 4 ] || fail "a stopped run exited $rc, expected 4:"$'\n'"$log"
summary_has "stopped before the end"
first=$(wc -l < "$work/started")
[ "$first" -lt 16 ] || fail "the stop came too late to test anything"
done_first=$(find "$work/big-out" -name '*.tif' | wc -l)
[ "$done_first" = "$first" ] || fail "$first engines started but $done_first outputs: running engines were not let finish"
for t in $(find "$work/big-out" -name '*.tif'); do
    [ "$(tiff_pages "$t")" = 2 ] || fail "incomplete output $t after the stop"
done
rc=0
"$tree" --engine "$work/slow-engine" -j 2 "$big" "$work/big-out" 2> "$work/log" || rc=$?
log=$(cat "$work/log")
[ $rc = 0 ] || fail "the continued run exited $rc:"$'\n'"$log"
summary_has "16 print files, $first up to date, $((16 - first)) to convert"
[ "$(wc -l < "$work/started")" = 16 ] || fail "$(wc -l < "$work/started") engine starts for 16 files"
[ -z "$(sort "$work/started" | uniq -d)" ] || fail "converted twice: $(sort "$work/started" | uniq -d)"
[ "$(find "$work/big-out" -name '*.tif' | wc -l)" = 16 ] || fail "not every file converted"
echo "convert-tree: all checks passed"
