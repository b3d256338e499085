#!/usr/bin/python3
"""How brindle's CPU time for a recursive remove grows with the tree, when
the deletions go out as one request and when they go out in batches.

libcurl sends the pre-transfer commands of a request (CURLOPT_QUOTE) one by
one, and finds the next one by walking its list from the head, so one
request of n commands costs it about n*n/2 steps; batches of b commands cost
about n*b/2. brindle sends a remove's deletions in batches once they pass a
budget; this probe removes trees of N files in N/100 directories from a
vsftpd on 127.0.0.1 both ways (as one request, with a budget that the whole
list fits set by BRINDLE_TEST_BATCH_BUDGET, and in brindle's own batches)
and prints brindle's user and system CPU time and wall time for each, so
that the growth can be read off: quadratic where user time grows fourfold
when N doubles. On libcurl 7.88 (Debian 12) the single request stops at the
first reply beyond its 300 KiB limit, so run it where libcurl is 8.14 or
later.

Run as root (it creates a local account and starts vsftpd), from a clone:

    /usr/bin/python3 bench/quote_walk.py --brindle build-bench/brindle \\
        [--entries 12500,25000,50000,100000]

Everything it creates (account, server, data) is removed again.
"""

import argparse
import os
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

from dataset import chown_tree, clear, fresh_copy, make_tree  # noqa: E402
from rig import Rig  # noqa: E402
from workloads import Commands  # noqa: E402

# The test variable's value for each way: a budget that any list fits, and
# none (brindle's own).
MODES = (("one request", str(10 ** 15)), ("batches", None))


class Failed(Exception):
    """brindle's remove failed; the message says how."""


def remove(commands, path, budget):
    """Runs brindle's recursive remove of `path` with the test variable at
    `budget` (None: unset); returns its wall time in seconds."""
    argv = commands.brindle_cmd("--remove", "--recursive",
                                "--remote-path", path)
    env = dict(os.environ)
    env.pop("BRINDLE_TEST_BATCH_BUDGET", None)
    if budget is not None:
        env["BRINDLE_TEST_BATCH_BUDGET"] = budget
    start = time.perf_counter()
    proc = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    out, err = proc.communicate()
    wall = time.perf_counter() - start
    if proc.returncode != 0:
        raise Failed("status %d after %.1f s: %s%s"
                     % (proc.returncode, wall, out.decode(errors="replace"),
                        err.decode(errors="replace").strip()))
    return wall


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--brindle", required=True)
    parser.add_argument("--entries", default="12500,25000,50000,100000")
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("quote_walk.py: run as root")
    brindle = str(Path(args.brindle).resolve())
    counts = [int(n) for n in args.entries.split(",") if n]
    rig = Rig(os.environ.get("BENCH_TMPDIR", "/var/tmp"))
    try:
        rig.start()
        root = rig.server.root
        account = rig.account
        commands = Commands(brindle, rig)
        print("%-12s %8s %9s %9s %9s %15s" % (
            "mode", "entries", "user (s)", "sys (s)", "wall (s)",
            "user/entry (us)"), flush=True)
        for n in counts:
            source = root / ("source-%d" % n)
            make_tree(source, n // 100, n, 0)
            chown_tree(source, account.uid, account.gid)
            entries = n + n // 100 + 1  # the files, their directories, /rm
            for mode, budget in MODES:
                fresh_copy(source, root / "rm")
                before = os.times()
                try:
                    wall = remove(commands, "/rm", budget)
                except Failed as failure:
                    # Reported, and the other way still measured.
                    print("%-12s %8d failed: %s" % (mode, entries, failure),
                          flush=True)
                    continue
                after = os.times()
                user = after.children_user - before.children_user
                system = after.children_system - before.children_system
                if (root / "rm").exists():
                    raise RuntimeError("/rm is still there after the remove")
                print("%-12s %8d %9.3f %9.3f %9.3f %15.1f" % (
                    mode, entries, user, system, wall,
                    user / entries * 1e6), flush=True)
            clear(source)
    finally:
        rig.stop()


if __name__ == "__main__":
    main()
