#!/usr/bin/env bash
# The batch-system recipes of docs/scale.md, run here without the batch systems: the Slurm array
# script once for every task number, and the Kubernetes Job's container command once for every
# completion index, with the variables those systems set. Checked: the manifest is a valid
# indexed Job whose share count equals its completions; all tasks together convert every file
# exactly once; a task started again converts nothing.
# Usage: scale_recipes.sh SOURCE_DIR ENGINE WORK_DIR
set -euo pipefail
src=$1 engine=$(readlink -f "$2") work=$3
data=$src/tests/quarvex/data
fail() { echo "FAIL: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work/bin"
# What the image and the package put on PATH.
ln -s "$engine" "$work/bin/quarvex"
ln -s "$src/tools/convert-tree" "$work/bin/quarvex-convert-tree"
export PATH=$work/bin:$PATH
make_archive() {
    for i in $(seq -f %02g 1 10); do
        mkdir -p "$1/in/branch$((10#$i % 4))"
        cp "$data/two_pages_pxlmono_75dpi.pxl" "$1/in/branch$((10#$i % 4))/statement$i.pxl"
    done
}
# every_file_once OUT: ten outputs, and the job log holds ten jobs (none converted twice).
every_file_once() {
    [ "$(find "$1" -name '*.tif' | wc -l)" = 10 ] || fail "$(find "$1" -name '*.tif' | wc -l) outputs for 10 files"
    [ "$(wc -l < "$1/.convert-tree/joblog")" = 10 ] || fail "$(wc -l < "$1/.convert-tree/joblog") jobs for 10 files"
}

# Slurm: sbatch --array=0-2 gives three tasks, SLURM_ARRAY_TASK_COUNT=3.
make_archive "$work/slurm"
for task in 0 1 2; do
    SLURM_ARRAY_TASK_ID=$task SLURM_ARRAY_TASK_COUNT=3 SLURM_CPUS_PER_TASK=2 \
        bash "$src/packaging/slurm/convert-array.sbatch" "$work/slurm/in" "$work/slurm/out" \
        2> "$work/slurm-$task.log" || fail "Slurm task $task: $(cat "$work/slurm-$task.log")"
done
every_file_once "$work/slurm/out"
SLURM_ARRAY_TASK_ID=1 SLURM_ARRAY_TASK_COUNT=3 \
    bash "$src/packaging/slurm/convert-array.sbatch" "$work/slurm/in" "$work/slurm/out" 2> "$work/again.log"
grep -q "converted 0," "$work/again.log" || fail "a Slurm task run again converted something"
every_file_once "$work/slurm/out"

# Kubernetes: the manifest, and its container command with the archive volume at $work/k8s.
manifest=$src/packaging/kubernetes/quarvex-job.yaml
/usr/bin/python3 - "$manifest" > "$work/k8s-command.sh" <<'PY'
import re, sys, yaml
job = yaml.safe_load(open(sys.argv[1]))
assert job["apiVersion"] == "batch/v1" and job["kind"] == "Job", "not a Job"
spec = job["spec"]
assert spec["completionMode"] == "Indexed", "not an indexed Job"
pod = spec["template"]["spec"]
assert pod["restartPolicy"] == "Never"
(container,) = pod["containers"]
assert container["command"] == ["/bin/sh", "-c"]
script = container["args"][0]
shares = re.search(r'--shard "\$JOB_COMPLETION_INDEX/(\d+)"', script)
assert shares and int(shares.group(1)) == spec["completions"], "share count is not the completions"
mounts = {m["name"]: m["mountPath"] for m in container["volumeMounts"]}
assert mounts["archive"] == "/archive"
print(spec["completions"])
print(script)
PY
completions=$(head -1 "$work/k8s-command.sh")
tail -n +2 "$work/k8s-command.sh" | sed "s#/archive/#$work/k8s/#g" > "$work/k8s-script.sh"
make_archive "$work/k8s"
for index in $(seq 0 $((completions - 1))); do
    JOB_COMPLETION_INDEX=$index /bin/sh "$work/k8s-script.sh" 2> "$work/k8s-$index.log" ||
        fail "pod $index: $(cat "$work/k8s-$index.log")"
done
every_file_once "$work/k8s/out"
echo "Slurm array and Kubernetes indexed Job recipes: every file converted once"
