"""Timing one run of a tool, and the statistics over a workload's runs.

measure() runs a command under GNU time and returns its Sample; median(),
paired_ratio(), per_entry_ms() and fmt_ratio() turn the samples of the
rounds into the figures of the reports and the targets.
"""

import os
import statistics
import subprocess
import time
from pathlib import Path

TOOLS = ("brindle", "curl", "lftp")


class Sample(object):
    """One measured run: wall seconds, CPU seconds, peak RSS in KiB."""

    def __init__(self, wall, cpu, rss_kib):
        self.wall, self.cpu, self.rss_kib = wall, cpu, rss_kib
        self.stalls = 0


def measure(argv, stdout_path, stderr_path, cwd):
    """Runs argv and returns its Sample. CPU time comes from wait4() on GNU
    time, which covers every process below it that was waited for (all the
    curl processes of a shell loop) plus time's own few milliseconds. Peak
    RSS is GNU time's %M, the largest resident set of a single process;
    taken from time rather than from this process's own wait4() because a
    child's high-water mark starts from that of its parent (this
    interpreter) until it calls exec."""
    rss_path = Path(str(stderr_path) + ".rss")
    timed = ["/usr/bin/time", "-f", "%M", "-o", str(rss_path)] + list(argv)
    with open(stdout_path, "wb") as out, open(stderr_path, "wb") as err:
        start = time.perf_counter()
        proc = subprocess.Popen(timed, stdin=subprocess.DEVNULL, stdout=out,
                                stderr=err, cwd=str(cwd))
        _, status, usage = os.wait4(proc.pid, 0)
        wall = time.perf_counter() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        raise RuntimeError("%s failed with status %d:\n%s\n%s" % (
            argv[0], proc.returncode,
            Path(stdout_path).read_text(errors="replace")[-2000:],
            Path(stderr_path).read_text(errors="replace")[-2000:]))
    rss_kib = int(rss_path.read_text().split()[-1])
    return Sample(wall, usage.ru_utime + usage.ru_stime, rss_kib)


def median(values):
    return statistics.median(values)


def paired_ratio(samples, peer, attr):
    """Median over the rounds of brindle's value / the peer's value of the
    same round."""
    mine = [getattr(s, attr) for s in samples["brindle"]]
    theirs = [getattr(s, attr) for s in samples[peer]]
    return median([a / b for a, b in zip(mine, theirs) if b > 0])


def per_entry_ms(samples, entries):
    """Median wall time of the samples divided by `entries`, in ms."""
    return median([s.wall for s in samples]) / entries * 1000.0


def fmt_ratio(value):
    return "%.2f" % value
