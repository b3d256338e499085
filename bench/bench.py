#!/usr/bin/python3
"""Benchmarks brindle against the curl command-line tool and lftp.

Run by bench/run.sh, as root, after it has built brindle with the Debian
package's compiler and linker flags (dpkg-buildflags, hardening included).
Creates a throwaway local account and a vsftpd on 127.0.0.1 serving a
temporary root, generates the data, runs every workload for every tool
(alternating the tools, several rounds), and writes the medians of wall time,
CPU time (user + sys) and peak RSS, with brindle's ratio to each peer, as a
Markdown report and a gnuplot chart. Everything it creates is removed again.

The "-loaded" workloads repeat the small-file tree transfers while a busy
loop, which the harness starts before the workload and stops after it (by
its pid), keeps one core of the machine busy.

BENCH_SUITE=scale runs the scale suite instead: trees and directories of
1,000, 10,000 and 100,000 entries (BENCH_ENTRIES), listed, downloaded,
uploaded and removed, reported by default in docs/benchmarks-scale.md after
each workload.

Environment: BENCH_SUITE (main or scale, default main), BENCH_RUNS (rounds
per workload, default 5, in the scale suite 1), BENCH_SCALE (data size
factor, default 1 = the full sizes), BENCH_WARMUP (unmeasured rounds,
default 1, in the scale suite 0), BENCH_ONLY (comma-separated workload keys
or families to run), BENCH_ENTRIES (the scale suite's entry counts, default
1000,10000,100000), BENCH_TMPDIR (where the data goes, default /var/tmp).

The work is done by the modules beside this file (bench/README.md lists
them): rig (account and vsftpd), dataset, workloads, scale_workloads,
runner, measure, serverlog, report, scale_report, targets and chart.
"""

import argparse
import os
import signal
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

# The modules below import the end-to-end tests' helpers (ftptest, servers).
from chart import write_chart, write_scale_chart  # noqa: E402
from dataset import ScaleSizes, Sizes, make_data, make_scale_data  # noqa
from report import machine_stamp, write_report  # noqa: E402
from rig import Rig  # noqa: E402
from runner import Runner  # noqa: E402
from scale_report import write_scale_report  # noqa: E402
from scale_workloads import scale_workloads  # noqa: E402
from targets import scale_targets, targets  # noqa: E402
from workloads import workloads  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--brindle", required=True)
    parser.add_argument("--output")
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench.py: run as root (it creates a local account and "
                 "starts vsftpd)")
    # Stopped by its pid, it still removes the account, server and data.
    signal.signal(signal.SIGTERM, lambda signum, frame: sys.exit(143))
    suite = os.environ.get("BENCH_SUITE", "main")
    if suite not in ("main", "scale"):
        sys.exit("bench.py: BENCH_SUITE is main or scale, not %r" % suite)
    scaled = suite == "scale"
    runs = int(os.environ.get("BENCH_RUNS", "1" if scaled else "5"))
    warmup = int(os.environ.get("BENCH_WARMUP", "0" if scaled else "1"))
    scale = float(os.environ.get("BENCH_SCALE", "1"))
    only = [k for k in os.environ.get("BENCH_ONLY", "").split(",") if k]
    tmpdir = os.environ.get("BENCH_TMPDIR", "/var/tmp")
    md_path = Path(args.output or REPO / "docs" / (
        "benchmarks-scale.md" if scaled else "benchmarks.md")).resolve()
    png_path = md_path.with_suffix(".png")

    brindle = str(Path(args.brindle).resolve())
    rig = Rig(tmpdir)
    runner = Runner(rig, runs, warmup, only)
    # Taken before the run, while the report files are still the checked-in
    # ones, so that the commit is not marked dirty by the run's own output.
    stamp = machine_stamp(brindle)
    started = time.strftime("%Y-%m-%d %H:%M", time.gmtime())
    if scaled:
        entries = [int(n) for n in os.environ.get(
            "BENCH_ENTRIES", ",".join(map(str, ScaleSizes.ENTRIES)))
            .split(",") if n]
        run_scale(brindle, rig, runner, ScaleSizes(scale, entries), stamp,
                  md_path, png_path, started)
        return
    sizes = Sizes(scale)
    try:
        rig.start()
        make_data(rig, sizes)
        runner.run(workloads(brindle, rig, sizes))
        finished = time.strftime("%H:%M", time.gmtime())
        md_path.parent.mkdir(parents=True, exist_ok=True)
        write_chart(runner, rig.work, png_path)
        write_report(runner, sizes, stamp, md_path, png_path, started,
                     finished)
        print("wrote %s and %s" % (md_path, png_path))
        print_targets(targets(runner))
    finally:
        rig.stop()


def run_scale(brindle, rig, runner, sizes, stamp, md_path, png_path,
              started):
    """The scale suite: the workloads of each entry count in turn, the
    report and chart written again after each workload and after a failure
    or SIGTERM, so that what was measured before it is kept."""
    try:
        rig.start()
        make_scale_data(rig, sizes)
        planned = [w for n in sizes.entries
                   for w in scale_workloads(brindle, rig, sizes, n)]
        if runner.only:
            planned = [w for w in planned
                       if {w.key, w.family} & set(runner.only)]
        md_path.parent.mkdir(parents=True, exist_ok=True)
        for w in planned:
            try:
                runner.run([w])
            finally:
                finished = time.strftime("%H:%M", time.gmtime())
                write_scale_chart(runner, planned, rig.work, png_path)
                write_scale_report(runner, planned, sizes, stamp, md_path,
                                   png_path, started, finished)
                print("wrote %s and %s" % (md_path, png_path), flush=True)
        print_targets(scale_targets(runner, planned))
    finally:
        rig.stop()


def print_targets(found):
    for text, measured, met, note in found:
        print("  %-50s %-12s %-6s %s" % (text, measured,
                                         "met" if met else "MISSED", note))


if __name__ == "__main__":
    main()
