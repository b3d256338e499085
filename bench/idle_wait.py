#!/usr/bin/python3
"""Measures the CPU time that brindle spends while a server keeps it waiting.

A scripted server (tests/e2e/servers/scripted_ftpd.py) holds back one reply
for --seconds: the answer to PWD (libcurl's connect phase) or to TYPE A (the
phase that prepares a listing's data connection). brindle lists the root
meanwhile, once on each wait path (forced with BRINDLE_TEST_WAIT_LOOP, the
variable that exists for brindle's tests): "easy" is curl_easy_perform(),
"multi" brindle's own wait loop over a multi handle (src/ftp/
transfer_runner.cc), which wakes up at least every 10 ms. Prints a Markdown
table of wall time and user + system CPU time, per run.

Usage: /usr/bin/python3 bench/idle_wait.py --brindle build-bench/brindle
       [--seconds 10] [--rounds 3]
"""

import argparse
import os
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

import ftptest  # noqa: E402  (the end-to-end tests' helpers)
from servers.scripted import ScriptedServer  # noqa: E402

# The held-back reply for each phase, and the command it answers.
PHASES = {
    "login (PWD)": ("PWD", '257 "/" is the current directory.'),
    "data set-up (TYPE A)": ("TYPE", "200 Type set to: ASCII."),
}


def idle_run(brindle, server, wait_path, command, reply, seconds):
    """(wall seconds, user seconds, system seconds) of one listing whose
    `command` is answered with `reply` after `seconds`."""
    server.script({"failures": [{"command": command, "reply": reply,
                                 "delay": seconds, "times": 1}]})
    env = {"PATH": os.environ.get("PATH", os.defpath),
           ftptest.WAIT_LOOP: wait_path}
    start = time.perf_counter()
    proc = subprocess.Popen(
        [brindle, "--list", *server.args(), "--remote-path", "/."],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.PIPE, env=env)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    out, err = proc.stdout.read(), proc.stderr.read()
    proc.stdout.close()
    proc.stderr.close()
    if os.waitstatus_to_exitcode(status) != 0 or out != b"f.txt\n":
        raise RuntimeError("brindle failed: %r %r" % (out, err))
    return wall, usage.ru_utime, usage.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--brindle", required=True)
    parser.add_argument("--seconds", type=float, default=10.0)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    brindle = str(Path(args.brindle).resolve())

    server = ScriptedServer().start()
    try:
        server.make_file("f.txt", b"data\n")
        print("| Held-back reply | Wait path | Wall (s) | User (s) | "
              "System (s) | User + system (s) |")
        print("|---|---|--:|--:|--:|--:|")
        for phase, (command, reply) in PHASES.items():
            for wait_path in ftptest.WAIT_PATHS:
                for _ in range(args.rounds):
                    wall, user, system = idle_run(brindle, server, wait_path,
                                                  command, reply,
                                                  args.seconds)
                    print("| %s | %s | %.2f | %.3f | %.3f | %.3f |" % (
                        phase, wait_path, wall, user, system, user + system),
                        flush=True)
    finally:
        server.stop()


if __name__ == "__main__":
    main()
