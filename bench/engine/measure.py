"""Runs quarvex as a child process and measures it: wall time from fork to exit, peak resident
memory, pages in the output TIFF. Called by run.sh.

The peak memory is taken from a separate run under GNU time (/usr/bin/time -f %M): a child that
Python starts inherits Python's own resident size in its ru_maxrss (the address space it runs in
before exec), which would add some 10 MB to every figure. Without GNU time, wait4's ru_maxrss of
the timed runs is reported, with that inflation."""

import argparse
import filecmp
import os
import statistics
import subprocess
import sys
import time

from PIL import Image


def run_once(quarvex, args):
    start = time.perf_counter()
    proc = subprocess.Popen([quarvex] + args, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    proc.returncode = os.waitstatus_to_exitcode(status)
    return wall, usage.ru_maxrss * 1024, proc.returncode, err


GNU_TIME = "/usr/bin/time"


def peak_under_time(quarvex, args, work):
    """quarvex's own peak resident size in bytes, as GNU time reports it; None without it."""
    if not os.access(GNU_TIME, os.X_OK):
        return None
    report = os.path.join(work, "time.txt")
    subprocess.run([GNU_TIME, "-f", "%M", "-o", report, quarvex] + args,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        with open(report) as f:
            return int(f.read().split()[-1]) * 1024
    except (OSError, ValueError, IndexError):
        return None


def tiff_pages(path):
    try:
        with Image.open(path) as im:
            return getattr(im, "n_frames", 1), im.size
    except Exception:
        return 0, (0, 0)


def measure(quarvex, work, label, inp, dpi, depth, comp, runs):
    out = os.path.join(work, "out.tif")
    args = ["-r", f"{dpi}x{dpi}", "-b", str(depth), "-c", str(comp), "-o", out, "-i", inp]
    walls, peaks, status, err = [], [], 0, ""
    for _ in range(runs):
        if os.path.exists(out):
            os.remove(out)
        wall, peak, status, err = run_once(quarvex, args)
        walls.append(wall)
        peaks.append(peak)
    pages, size = tiff_pages(out) if os.path.exists(out) else (0, (0, 0))
    exact_peak = peak_under_time(quarvex, args, work)
    if exact_peak is not None:
        peaks = [exact_peak]
    wall = statistics.median(walls)
    bpp = {1: 1 / 8, 8: 1, 24: 3}[depth]
    page_bytes = size[0] * size[1] * bpp
    row = {
        "file": label,
        "dpi": dpi,
        "mode": "1-bit G4" if comp == 7 else f"{depth}-bit Deflate",
        "exit": status,
        "pages": pages,
        "ms": wall * 1000,
        "pps": pages / wall if wall > 0 and pages else 0.0,
        "peak_mb": max(peaks) / 1e6,
        "aim_mb": (page_bytes + 32 * 1024 * 1024) / 1e6 if pages else 32 * 1024 * 1024 / 1e6,
    }
    row["mem_ok"] = row["peak_mb"] <= row["aim_mb"]
    if status not in (0, 3) and err.strip():
        # The engine's own words, without the "quarvex: INPUT: " prefix.
        row["note"] = err.strip().splitlines()[-1].split(": ", 2)[-1][:48] + ";"
    return row


def read_jobs(path):
    """(label, input, dpi, depth, compression) of each line of a job list; none without one."""
    jobs = []
    if path:
        base = os.path.dirname(os.path.abspath(path))
        with open(path) as f:
            for l in f:
                if l.strip() and not l.startswith("#"):
                    inp, dpi, depth, comp, label = l.rstrip("\n").split("\t")
                    jobs.append((label, os.path.join(base, inp), int(dpi), int(depth), int(comp)))
    return jobs


def compare(new, old, work, label, inp, dpi, depth, comp, runs):
    """Runs the new and the old engine alternately on one job (the order swapped every round, so
    that neither always runs on a warm or a cold machine) and reports both medians, the ratio
    old / new, both peaks and whether the outputs are the same bytes."""
    outs = {"new": os.path.join(work, "new.tif"), "old": os.path.join(work, "old.tif")}
    exe = {"new": new, "old": old}
    walls = {"new": [], "old": []}
    status = {}
    for i in range(runs):
        for who in (("new", "old") if i % 2 == 0 else ("old", "new")):
            if os.path.exists(outs[who]):
                os.remove(outs[who])
            args = ["-r", f"{dpi}x{dpi}", "-b", str(depth), "-c", str(comp), "-o", outs[who], "-i", inp]
            wall, _, status[who], _ = run_once(exe[who], args)
            walls[who].append(wall)
    peaks = {}
    for who in ("new", "old"):
        args = ["-r", f"{dpi}x{dpi}", "-b", str(depth), "-c", str(comp), "-o", os.path.join(work, "peak.tif"), "-i", inp]
        peaks[who] = peak_under_time(exe[who], args, work)
    same = all(os.path.exists(outs[w]) for w in outs) and filecmp.cmp(outs["new"], outs["old"], shallow=False)
    pages, _ = tiff_pages(outs["new"]) if os.path.exists(outs["new"]) else (0, None)
    new_ms = statistics.median(walls["new"]) * 1000
    old_ms = statistics.median(walls["old"]) * 1000
    return {
        "file": label, "dpi": dpi, "mode": f"{depth}-bit c{comp}", "pages": pages,
        "exit": f"{status['new']}/{status['old']}", "new_ms": new_ms, "old_ms": old_ms,
        "ratio": old_ms / new_ms if new_ms > 0 else 0.0,
        "new_mb": (peaks["new"] or 0) / 1e6, "old_mb": (peaks["old"] or 0) / 1e6,
        "same": "same" if same else "DIFFERENT",
    }


def selected(a, label, inp):
    """True when the job is one --only asks for (all jobs without it)."""
    return not a.only or a.only in label or a.only in os.path.basename(inp)


def main_compare(a):
    jobs = read_jobs(a.jobs)
    if not a.quick and a.corpus:
        with open(os.path.join(a.corpus, "manifest.tsv")) as f:
            entries = [l.rstrip("\n").split("\t") for l in f if l.strip() and not l.startswith("#")]
        for e in entries:
            for dpi in (300, 600):
                for depth, comp in ((1, 7), (24, 6)):
                    jobs.append((e[0], os.path.join(a.corpus, e[0]), dpi, depth, comp))
    jobs = [j for j in jobs if selected(a, j[0], j[1])]
    rows = []
    for label, inp, dpi, depth, comp in jobs:
        rows.append(compare(a.quarvex, a.baseline, a.work, label, inp, dpi, depth, comp, a.runs))
        print(".", end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)
    hdr = (f"{'job':<38} {'dpi':>4} {'mode':<10} {'pages':>5} {'new ms':>9} {'old ms':>9} {'old/new':>7} "
           f"{'new MB':>7} {'old MB':>7}  output")
    print(hdr)
    print("-" * len(hdr))
    for r in rows:
        print(f"{r['file'][:38]:<38} {r['dpi']:>4} {r['mode']:<10} {r['pages']:>5} {r['new_ms']:>9.1f} {r['old_ms']:>9.1f} "
              f"{r['ratio']:>7.2f} {r['new_mb']:>7.1f} {r['old_mb']:>7.1f}  {r['same']}")
    if rows:
        ratios = [r["ratio"] for r in rows]
        print(f"\n{len(rows)} jobs: old/new median {statistics.median(ratios):.2f}, lowest {min(ratios):.2f}, "
              f"highest {max(ratios):.2f}; outputs different: {sum(r['same'] != 'same' for r in rows)}; "
              f"peak memory higher than the old engine's by more than 0.5 MB: "
              f"{sum(r['new_mb'] > r['old_mb'] + 0.5 for r in rows)}")
    if a.tsv:
        with open(a.tsv, "w") as f:
            f.write("job\tdpi\tmode\tpages\tnew_ms\told_ms\tratio\tnew_mb\told_mb\toutput\n")
            for r in rows:
                f.write(f"{r['file']}\t{r['dpi']}\t{r['mode']}\t{r['pages']}\t{r['new_ms']:.2f}\t{r['old_ms']:.2f}\t"
                        f"{r['ratio']:.3f}\t{r['new_mb']:.1f}\t{r['old_mb']:.1f}\t{r['same']}\n")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--quarvex", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--quick", type=int, default=0)
    ap.add_argument("--tsv")
    ap.add_argument("--baseline", help="an older engine: run both alternately and report ratios")
    ap.add_argument("--jobs", help="a job list (heavy.tsv of make_heavy.sh) to run besides the corpus")
    ap.add_argument("--only", help="only the jobs whose label or file name contains this text")
    a = ap.parse_args()
    if a.baseline:
        main_compare(a)
        return

    rows = []
    fixed = [
        ("empty file", os.path.join(a.work, "empty.pcl"), 300, 1, 7, "aim < 10 ms"),
        ("PCL reset only", os.path.join(a.work, "reset_only.pcl"), 300, 1, 7, "aim < 10 ms"),
        ("Letter raster page", os.path.join(a.work, "letter_raster_600.pcl"), 600, 1, 7, "aim < 100 ms"),
    ]
    for label, inp, dpi, depth, comp, aim in fixed:
        if not selected(a, label, inp):
            continue
        r = measure(a.quarvex, a.work, label, inp, dpi, depth, comp, max(a.runs, 5))
        r["note"] = (r.get("note", "") + " " + aim).strip()
        rows.append(r)
    for label, inp, dpi, depth, comp in read_jobs(a.jobs):
        if not selected(a, label, inp):
            continue
        rows.append(measure(a.quarvex, a.work, label, inp, dpi, depth, comp, a.runs))
    if not a.quick:
        with open(os.path.join(a.corpus, "manifest.tsv")) as f:
            entries = [l.rstrip("\n").split("\t") for l in f if l.strip() and not l.startswith("#")]
        for e in entries:
            inp = os.path.join(a.corpus, e[0])
            if not selected(a, e[0], inp):
                continue
            for dpi in (300, 600):
                for depth, comp in ((1, 7), (24, 6)):
                    rows.append(measure(a.quarvex, a.work, e[0], inp, dpi, depth, comp, a.runs))
                    print(".", end="", file=sys.stderr, flush=True)
        print(file=sys.stderr)

    hdr = f"{'file':<36} {'dpi':>4} {'mode':<15} {'exit':>4} {'pages':>5} {'ms':>9} {'pages/s':>8} {'peak MB':>8} {'aim MB':>8}  note"
    print(hdr)
    print("-" * len(hdr))
    for r in rows:
        flag = "" if r["mem_ok"] else " MEM>AIM"
        print(f"{r['file']:<36} {r['dpi']:>4} {r['mode']:<15} {r['exit']:>4} {r['pages']:>5} {r['ms']:>9.1f} "
              f"{r['pps']:>8.2f} {r['peak_mb']:>8.1f} {r['aim_mb']:>8.1f}  {r.get('note', '')}{flag}")
    if a.tsv:
        with open(a.tsv, "w") as f:
            f.write("file\tdpi\tmode\texit\tpages\tms\tpages_per_s\tpeak_mb\taim_mb\tnote\n")
            for r in rows:
                f.write(f"{r['file']}\t{r['dpi']}\t{r['mode']}\t{r['exit']}\t{r['pages']}\t{r['ms']:.2f}\t"
                        f"{r['pps']:.3f}\t{r['peak_mb']:.1f}\t{r['aim_mb']:.1f}\t{r.get('note', '')}\n")


if __name__ == "__main__":
    main()
