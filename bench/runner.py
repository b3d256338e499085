"""Runs the workloads: one warm-up round and then the measured rounds, the
order of the tools rotating from round to round, each run prepared, synced,
measured, checked and matched with its lines of vsftpd's log. A "-loaded"
workload runs while a BusyLoop keeps one core busy.
"""

import os
import signal
import subprocess
import time

from measure import TOOLS, measure
from serverlog import count_stalls, log_size, logins_and_data


class BusyLoop(object):
    """A process that keeps one core busy until it is stopped, by its pid."""

    def __init__(self):
        self.proc = subprocess.Popen(
            ["bash", "-c", "while :; do :; done"], stdin=subprocess.DEVNULL)

    def stop(self):
        os.kill(self.proc.pid, signal.SIGKILL)
        self.proc.wait()


class Runner(object):
    """Runs workloads on a started rig and keeps what they measured."""

    def __init__(self, rig, runs, warmup, only):
        self.rig = rig
        self.runs, self.warmup = runs, warmup
        self.only = only     # workload keys or families to run; empty: all
        self.results = {}    # key -> tool -> [Sample]
        self.logins = {}     # key -> tool -> (USER count, data connections)
        self.titles = {}     # key -> title
        self.loads = []      # load averages, at the start, per workload, end

    def run(self, workloads):
        self.loads.append(os.getloadavg())
        for w in workloads:
            if self.only and not {w.key, w.family} & set(self.only):
                continue
            print("%s: %s" % (w.key, w.title), flush=True)
            self.loads.append(os.getloadavg())
            self.run_workload(w)
            self.titles[w.key] = w.title
        self.loads.append(os.getloadavg())

    def run_workload(self, w):
        busy = BusyLoop() if w.loaded else None
        try:
            self.run_rounds(w)
        finally:
            if busy is not None:
                busy.stop()

    def run_rounds(self, w):
        log_path = self.rig.server.log_path
        # The tools that have a command for this workload (the scale
        # suite's largest sizes have no curl loop), in TOOLS order.
        tools = [tool for tool in TOOLS if tool in w.commands]
        samples = {tool: [] for tool in tools}
        stdout = self.rig.work / "stdout"
        stderr = self.rig.work / "stderr"
        rounds = self.warmup + self.runs
        for r in range(rounds):
            order = tools[r % len(tools):] + tools[:r % len(tools)]
            for tool in order:
                for attempt in (1, 2):
                    w.prepare(tool)
                    # Write back what earlier runs left dirty, so that no
                    # run pays for its predecessor's data.
                    os.sync()
                    offset = log_size(log_path)
                    try:
                        s = measure(w.commands[tool], stdout, stderr,
                                    self.rig.local)
                        w.check(tool, stdout)
                        break
                    except RuntimeError as e:
                        # One failed run (a port taken, a connection
                        # dropped) is repeated once; a second one ends the
                        # benchmark.
                        if attempt == 2:
                            raise
                        print("  %s %s failed, repeating: %s"
                              % (w.key, tool, e), flush=True)
                if r == 0:
                    time.sleep(0.5)   # let vsftpd finish writing its log
                    self.logins.setdefault(w.key, {})[tool] = \
                        logins_and_data(log_path, offset)
                s.stalls = count_stalls(self.rig.clock.events_since(offset))
                if r >= self.warmup:
                    samples[tool].append(s)
                print("  %-16s round %d %-8s wall %8.3f s  cpu %8.3f s  "
                      "rss %7.1f MiB  stalls %d" % (
                          w.key, r, tool, s.wall, s.cpu, s.rss_kib / 1024.0,
                          s.stalls), flush=True)
        self.results[w.key] = samples
