#!/usr/bin/env python3
"""Times EMF pages through quarvex against Ghostscript rendering the PDFs of the same pages.

Each round converts the spool file with quarvex and then renders the PDFs with Ghostscript, in
turn, so that both see the same load on a shared machine; the median of the rounds and the
largest peak memory (maximum resident set of the child) are reported, with the ratio.

usage: measure.py --quarvex EXE --spool FILE [--pdf FILE...] [--runs N] [--dpi N]
"""
import argparse
import os
import statistics
import subprocess
import tempfile
import time


def timed(argv):
    start = time.monotonic()
    proc = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    elapsed = time.monotonic() - start
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    code = os.waitstatus_to_exitcode(status)
    if code not in (0, 3):
        raise SystemExit(f"{argv[0]} failed ({code}): {err}")
    return elapsed, usage.ru_maxrss / 1024.0  # MB


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--quarvex", required=True)
    ap.add_argument("--spool", required=True)
    ap.add_argument("--pages", type=int, required=True)
    ap.add_argument("--pdf", nargs="*", default=[])
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--dpi", type=int, default=300)
    a = ap.parse_args()
    with tempfile.TemporaryDirectory() as work:
        modes = [("1-bit G4", ["-b", "1", "-c", "7"], "tiffg4"), ("24-bit Deflate", ["-b", "24", "-c", "6"], "tiff24nc")]
        print(f"{'job':32} {'pages/s':>9} {'ms/page':>9} {'peak MB':>9}")
        for name, opts, gsdev in modes:
            qt, qm, gt, gm = [], 0.0, [], 0.0
            for _ in range(a.runs):
                t, m = timed([a.quarvex, "-r", f"{a.dpi}x{a.dpi}", *opts, "-o", os.path.join(work, "q.tif"), "-i", a.spool])
                qt.append(t)
                qm = max(qm, m)
                if a.pdf:
                    t, m = timed(["gs", "-q", "-dSAFER", "-dNOPAUSE", "-dBATCH", f"-sDEVICE={gsdev}", f"-r{a.dpi}",
                                  "-dTextAlphaBits=1", "-dGraphicsAlphaBits=1", f"-sOutputFile={os.path.join(work, 'g.tif')}",
                                  *a.pdf])
                    gt.append(t)
                    gm = max(gm, m)
            q = statistics.median(qt)
            print(f"{'quarvex EMF spool, ' + name:32} {a.pages / q:9.2f} {1000 * q / a.pages:9.1f} {qm:9.1f}")
            if gt:
                g = statistics.median(gt)
                print(f"{'gs on the PDFs, ' + name:32} {len(a.pdf) / g:9.2f} {1000 * g / len(a.pdf):9.1f} {gm:9.1f}")
                print(f"{'  time ratio quarvex / gs':32} {q / g:9.2f}")


if __name__ == "__main__":
    main()
