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

Environment: BENCH_RUNS (rounds per workload, default 5), BENCH_SCALE (data
size factor, default 1 = the full sizes), BENCH_WARMUP (unmeasured rounds,
default 1), BENCH_ONLY (comma-separated workload keys to run), BENCH_TMPDIR
(where the data goes, default /var/tmp).

The work is done by the modules beside this file (bench/README.md lists
them): rig (account and vsftpd), dataset, workloads, runner, measure,
serverlog, report, targets and chart.
"""

import argparse
import os
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

# The modules below import the end-to-end tests' helpers (ftptest, servers).
from chart import write_chart  # noqa: E402
from dataset import Sizes, make_data  # noqa: E402
from report import machine_stamp, write_report  # noqa: E402
from rig import Rig  # noqa: E402
from runner import Runner  # noqa: E402
from targets import targets  # noqa: E402
from workloads import workloads  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--brindle", required=True)
    parser.add_argument("--output", default=str(REPO / "docs" /
                                                "benchmarks.md"))
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench.py: run as root (it creates a local account and "
                 "starts vsftpd)")
    runs = int(os.environ.get("BENCH_RUNS", "5"))
    warmup = int(os.environ.get("BENCH_WARMUP", "1"))
    scale = float(os.environ.get("BENCH_SCALE", "1"))
    only = [k for k in os.environ.get("BENCH_ONLY", "").split(",") if k]
    tmpdir = os.environ.get("BENCH_TMPDIR", "/var/tmp")
    md_path = Path(args.output).resolve()
    png_path = md_path.with_suffix(".png")

    brindle = str(Path(args.brindle).resolve())
    sizes = Sizes(scale)
    rig = Rig(tmpdir)
    runner = Runner(rig, runs, warmup, only)
    # Taken before the run, while the report files are still the checked-in
    # ones, so that the commit is not marked dirty by the run's own output.
    stamp = machine_stamp(brindle)
    started = time.strftime("%Y-%m-%d %H:%M", time.gmtime())
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
        for text, measured, met, note in targets(runner):
            print("  %-50s %-12s %-6s %s" % (text, measured,
                                             "met" if met else "MISSED", note))
    finally:
        rig.stop()


if __name__ == "__main__":
    main()
