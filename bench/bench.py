#!/usr/bin/python3
"""Benchmarks brindle against the curl command-line tool and lftp.

Run by bench/run.sh, as root, after it has built brindle in Release mode.
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
"""

import argparse
import os
import platform
import re
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

import ftptest  # noqa: E402  (the end-to-end tests' account and helpers)
from servers.vsftpd import VsftpdServer  # noqa: E402

KiB = 1024
MiB = 1024 * KiB
GiB = 1024 * MiB
TOOLS = ("brindle", "curl", "lftp")


# ------------------------------------------------------------ measuring

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


# vsftpd's protocol log: "Sun Nov 22 03:20:31 2026 [pid 3919] [user] FTP
# command: Client "127.0.0.1", "EPSV"", likewise "FTP response".
LOG_EVENT = re.compile(r'^(\w{3} \w{3} +\d+ [\d:]+ \d{4}) \[pid \d+\] '
                       r'(?:\[[^]]*\] )?FTP (command|response): '
                       r'Client "[^"]*", "(.*)"$')


# A client that waits this long after a passive-mode reply before its next
# command is stalled: libcurl 7.88 waits about one second there (see
# bench/README.md); on loopback the next command otherwise follows within
# milliseconds, even on a busy machine.
STALL_SECONDS = 0.5


def count_stalls(events):
    """Passive-mode (227/229) replies after which the client took
    STALL_SECONDS or more to send its next command, from (time, "command"
    or "response", text) events."""
    stalls = 0
    for i, (stamp, kind, text) in enumerate(events):
        if kind != "response" or not text.startswith(("227 ", "229 ")):
            continue
        for later_stamp, later_kind, _ in events[i + 1:]:
            if later_kind == "command":
                stalls += later_stamp - stamp >= STALL_SECONDS
                break
    return stalls


class LogClock(object):
    """Stamps each line of vsftpd's log with the time it was first seen, as
    vsftpd's own stamps have whole seconds only: a thread reads what was
    appended every 2 ms. A line is stamped at most a few milliseconds late
    (more while the machine is busy), far below STALL_SECONDS."""

    def __init__(self, path):
        self.path = path
        self.lines = []        # (byte offset, monotonic time, text)
        self.offset = 0        # bytes read so far
        self.partial = b""     # an unfinished last line
        self.file = None
        self.lock = threading.Lock()
        self.done = threading.Event()
        self.thread = threading.Thread(target=self.watch, daemon=True)
        self.thread.start()

    def watch(self):
        while not self.done.wait(0.002):
            self.read()

    def read(self):
        with self.lock:
            if self.file is None:
                try:
                    self.file = open(str(self.path), "rb")
                except FileNotFoundError:
                    return
            data = self.file.read()
            if not data:
                return
            now = time.monotonic()
            start = self.offset - len(self.partial)
            self.offset += len(data)
            *complete, self.partial = (self.partial + data).split(b"\n")
            for line in complete:
                text = line.rstrip(b"\r").decode("utf-8", "replace")
                self.lines.append((start, now, text))
                start += len(line) + 1

    def events_since(self, offset):
        """(time, "command" or "response", text) for every FTP command and
        response logged from byte offset on."""
        self.read()
        with self.lock:
            lines = [(t, text) for at, t, text in self.lines if at >= offset]
        events = []
        for stamp, line in lines:
            m = LOG_EVENT.match(line)
            if m:
                events.append((stamp, m.group(2), m.group(3)))
        return events

    def stop(self):
        self.done.set()
        self.thread.join()
        if self.file is not None:
            self.file.close()


# ------------------------------------------------------------ data

def write_file(path, size, chunk=None):
    """A file of `size` pseudo-random bytes (one random block repeated)."""
    block = chunk if chunk is not None else os.urandom(min(size, 4 * MiB))
    with open(str(path), "wb") as f:
        left = size
        while left > 0:
            piece = block[:left]
            f.write(piece)
            left -= len(piece)


def make_tree(root, dirs, files, size):
    """`files` files of `size` bytes spread evenly over `dirs` directories:
    root/dNN/fNNNN."""
    block = os.urandom(size) if size else b""
    root.mkdir(parents=True)
    for i in range(files):
        d = root / ("d%02d" % (i % dirs))
        d.mkdir(exist_ok=True)
        (d / ("f%04d" % i)).write_bytes(block)


def chown_tree(path, uid, gid):
    subprocess.run(["chown", "-R", "%d:%d" % (uid, gid), str(path)],
                   check=True)


def tree_summary(root):
    """(number of files, total bytes) below root."""
    count = total = 0
    for dirpath, _, filenames in os.walk(str(root)):
        for name in filenames:
            count += 1
            total += os.lstat(os.path.join(dirpath, name)).st_size
    return count, total


def clear(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(str(path))
    elif path.exists() or path.is_symlink():
        path.unlink()


# ------------------------------------------------------------ workloads

class Workload(object):
    """One benchmark: per tool the command to time; a preparation run
    before every timed run (not timed) and a check of the result after it."""

    def __init__(self, key, title, commands, prepare, check, logins=False,
                 loaded=False):
        self.key, self.title = key, title
        self.commands = commands      # tool -> argv
        self.prepare = prepare        # tool -> None
        self.check = check            # (tool, stdout path) -> None
        self.count_logins = logins
        self.loaded = loaded          # run while one core is kept busy

    def under_load(self):
        """The same workload, run while a busy loop keeps one core busy."""
        return Workload(self.key + "-loaded", self.title + ", one core busy",
                        self.commands, self.prepare, self.check,
                        self.count_logins, loaded=True)


class BusyLoop(object):
    """A process that keeps one core busy until it is stopped, by its pid."""

    def __init__(self):
        self.proc = subprocess.Popen(
            ["bash", "-c", "while :; do :; done"], stdin=subprocess.DEVNULL)

    def stop(self):
        os.kill(self.proc.pid, signal.SIGKILL)
        self.proc.wait()


class Bench(object):

    def __init__(self, brindle, runs, warmup, scale, only, tmpdir):
        self.brindle = str(brindle)
        self.runs, self.warmup, self.scale = runs, warmup, scale
        self.only = only
        self.tmpdir = tmpdir
        self.account = self.server = self.clock = None
        self.work = None
        # Sizes, scaled for smoke runs.
        self.big_size = max(MiB, int(GiB * scale))
        self.small_files = max(40, int(2000 * scale))
        self.small_dirs = 40
        self.small_size = 4 * KiB
        self.medium_files = max(10, int(200 * scale))
        self.medium_dirs = 10
        self.medium_size = 4 * MiB
        self.huge_files = max(100, int(100000 * scale))
        self.results = {}    # key -> tool -> [Sample]
        self.logins = {}     # key -> tool -> (USER count, data connections)
        self.loads = []

    # -- set-up and tear-down

    def start(self):
        tempfile.tempdir = self.tmpdir
        ftptest.TEMP_PREFIX = "brindle-bench-"
        self.account = ftptest.LocalAccount().create()
        self.server = VsftpdServer(self.account).start()
        self.clock = LogClock(self.server.log_path)
        self.work = ftptest.make_temp_dir("bench")
        self.local = self.work / "local"
        self.local.mkdir()
        self.account.chown(self.local)

    def stop(self):
        if self.clock is not None:
            self.clock.stop()
        if self.server is not None:
            self.server.stop()
        ftptest.remove_tree(self.work)
        if self.account is not None:
            self.account.remove()

    def make_data(self):
        root, uid, gid = self.server.root, self.account.uid, self.account.gid
        print("generating data in %s" % root, flush=True)
        write_file(root / "big.bin", self.big_size)
        make_tree(root / "small", self.small_dirs, self.small_files,
                  self.small_size)
        make_tree(root / "medium", self.medium_dirs, self.medium_files,
                  self.medium_size)
        huge = root / "huge"
        huge.mkdir()
        for i in range(self.huge_files):
            (huge / ("f%06d" % i)).touch()
        self.huge_last = "f%06d" % (self.huge_files - 1)
        (root / "up").mkdir()
        (root / "rm").mkdir()
        chown_tree(root, uid, gid)
        # The upload sources: hard links to the same data on the local side.
        src = self.local / "src"
        src.mkdir()
        subprocess.run(["cp", "-al", str(root / "small"), str(src / "small")],
                       check=True)
        os.link(str(root / "big.bin"), str(src / "big.bin"))
        chown_tree(src, uid, gid)
        self.out = self.local / "out"
        self.out.mkdir()
        self.account.chown(self.out)

    # -- commands

    def brindle_cmd(self, *args):
        return [self.brindle, "--host", ftptest.HOST,
                "--port", str(self.server.port),
                "--login", self.account.name,
                "--password", self.account.password] + list(args)

    def curl_cmd(self, *args):
        return ["curl", "-sS", "--user",
                "%s:%s" % (self.account.name, self.account.password)] + \
            list(args)

    def base_url(self):
        return "ftp://%s:%d" % (ftptest.HOST, self.server.port)

    def lftp_cmd(self, command):
        script = "; ".join([
            "set net:connection-limit 1",
            "set mirror:parallel-transfer-count 1",
            "set ftp:ssl-allow no",
            "set cmd:fail-exit yes",
            "set xfer:clobber on",
            "set net:max-retries 1",
            "open -u %s,%s -p %d %s" % (self.account.name,
                                        self.account.password,
                                        self.server.port, ftptest.HOST),
            command])
        return ["lftp", "-c", script]

    def curl_loop(self, body):
        """A bash script as a user would write it around the curl tool."""
        head = "set -euo pipefail\nbase=%s\ncred=%s\n" % (
            shlex.quote(self.base_url()),
            shlex.quote("%s:%s" % (self.account.name, self.account.password)))
        return ["bash", "-c", head + body]

    # -- the workloads

    def workloads(self):
        user = self.account.name
        out, src, root = self.out, self.local / "src", self.server.root
        big = "%d MiB" % (self.big_size // MiB) if self.big_size < GiB \
            else "%g GiB" % (self.big_size / GiB)

        def fresh_out(tool):
            clear(out)
            out.mkdir()
            self.account.chown(out)

        def fresh_up(tool):
            clear(root / "up")
            (root / "up").mkdir()
            self.account.chown(root / "up")

        def fresh_rm(tool):
            clear(root / "rm" / "small")
            subprocess.run(["cp", "-a", str(root / "small"),
                            str(root / "rm" / "small")], check=True)

        def check_size(path, size):
            def check(tool, stdout):
                got = path.stat().st_size
                if got != size:
                    raise RuntimeError("%s: %s has %d bytes, not %d"
                                       % (tool, path, got, size))
            return check

        def check_tree(path, files, size):
            def check(tool, stdout):
                got = tree_summary(path)
                if got != (files, files * size):
                    raise RuntimeError("%s: %s holds %r, not %r" % (
                        tool, path, got, (files, files * size)))
            return check

        def check_gone(path):
            def check(tool, stdout):
                if path.exists():
                    raise RuntimeError("%s: %s still exists" % (tool, path))
            return check

        def check_lines(count, last=None):
            def check(tool, stdout):
                lines = Path(stdout).read_bytes().splitlines()
                if len(lines) != count or (last and last not in lines[-1]):
                    raise RuntimeError("%s: %d lines of output, not %d"
                                       % (tool, len(lines), count))
            return check

        fetch_tree_loop = """
args=()
for d in $(curl -sS --user "$cred" --list-only "$base/{tree}/"); do
  for f in $(curl -sS --user "$cred" --list-only "$base/{tree}/$d/"); do
    args+=(-o "{tree}/$d/$f" "$base/{tree}/$d/$f")
  done
done
cd {out} && curl -sS --user "$cred" --create-dirs "${{args[@]}}"
"""
        send_tree_loop = """
args=()
cd {src}
for f in $(find small -type f); do args+=(-T "$f" "$base/up/$f"); done
curl -sS --user "$cred" --ftp-create-dirs "${{args[@]}}"
"""
        remove_tree_loop = """
quote=()
for d in $(curl -sS --user "$cred" --list-only "$base/rm/small/"); do
  for f in $(curl -sS --user "$cred" --list-only "$base/rm/small/$d/"); do
    quote+=(-Q "DELE /rm/small/$d/$f")
  done
  quote+=(-Q "RMD /rm/small/$d")
done
curl -sS --user "$cred" "${{quote[@]}}" -Q "RMD /rm/small" -o /dev/null "$base/"
"""
        q = shlex.quote
        found = [
            Workload(
                "download-big", "download one %s file" % big,
                {"brindle": self.brindle_cmd(
                    "--download", "--local-user", user,
                    "--remote-path", "/big.bin",
                    "--local-path", str(out / "big.bin")),
                 "curl": self.curl_cmd("-o", str(out / "big.bin"),
                                       self.base_url() + "/big.bin"),
                 "lftp": self.lftp_cmd("get /big.bin -o %s"
                                       % q(str(out / "big.bin")))},
                fresh_out, check_size(out / "big.bin", self.big_size)),
            Workload(
                "upload-big", "upload one %s file" % big,
                {"brindle": self.brindle_cmd(
                    "--upload", "--local-user", user,
                    "--local-path", str(src / "big.bin"),
                    "--remote-path", "/up/big.bin"),
                 "curl": self.curl_cmd("-T", str(src / "big.bin"),
                                       self.base_url() + "/up/big.bin"),
                 "lftp": self.lftp_cmd("put %s -o /up/big.bin"
                                       % q(str(src / "big.bin")))},
                fresh_up, check_size(root / "up" / "big.bin", self.big_size)),
            Workload(
                "download-small", "recursive download, %d x 4 KiB in %d dirs"
                % (self.small_files, self.small_dirs),
                {"brindle": self.brindle_cmd(
                    "--download", "--recursive", "--local-user", user,
                    "--remote-path", "/small",
                    "--local-path", str(out / "small")),
                 "curl": self.curl_loop(fetch_tree_loop.format(
                     tree="small", out=q(str(out)))),
                 "lftp": self.lftp_cmd("mirror /small %s"
                                       % q(str(out / "small")))},
                fresh_out,
                check_tree(out / "small", self.small_files, self.small_size),
                logins=True),
            Workload(
                "upload-small", "recursive upload, %d x 4 KiB in %d dirs"
                % (self.small_files, self.small_dirs),
                {"brindle": self.brindle_cmd(
                    "--upload", "--recursive", "--local-user", user,
                    "--local-path", str(src / "small"),
                    "--remote-path", "/up/small"),
                 "curl": self.curl_loop(send_tree_loop.format(
                     src=q(str(src)))),
                 "lftp": self.lftp_cmd("mirror -R %s /up/small"
                                       % q(str(src / "small")))},
                fresh_up,
                check_tree(root / "up" / "small", self.small_files,
                           self.small_size),
                logins=True),
            Workload(
                "download-medium", "recursive download, %d x 4 MiB in %d dirs"
                % (self.medium_files, self.medium_dirs),
                {"brindle": self.brindle_cmd(
                    "--download", "--recursive", "--local-user", user,
                    "--remote-path", "/medium",
                    "--local-path", str(out / "medium")),
                 "curl": self.curl_loop(fetch_tree_loop.format(
                     tree="medium", out=q(str(out)))),
                 "lftp": self.lftp_cmd("mirror /medium %s"
                                       % q(str(out / "medium")))},
                fresh_out,
                check_tree(out / "medium", self.medium_files,
                           self.medium_size),
                logins=True),
            Workload(
                "list-entry", "list one entry of a %d-file directory"
                % self.huge_files,
                {"brindle": self.brindle_cmd(
                    "--list", "--remote-path", "/huge/" + self.huge_last),
                 # The LIST bytes that brindle fetches and parses, fetched
                 # only.
                 "curl": self.curl_cmd(self.base_url() + "/huge/"),
                 "lftp": self.lftp_cmd("cls -l /huge/" + self.huge_last)},
                lambda tool: None,
                lambda tool, stdout: check_lines(
                    1 if tool != "curl" else self.huge_files,
                    self.huge_last.encode())(tool, stdout)),
            Workload(
                "list-long", "list --long-listing of a %d-file directory"
                % self.huge_files,
                {"brindle": self.brindle_cmd(
                    "--list", "--long-listing", "--remote-path", "/huge/."),
                 "curl": self.curl_cmd(self.base_url() + "/huge/"),
                 "lftp": self.lftp_cmd("ls /huge/")},
                lambda tool: None,
                check_lines(self.huge_files, self.huge_last.encode())),
            Workload(
                "remove-small", "recursive remove, %d x 4 KiB in %d dirs"
                % (self.small_files, self.small_dirs),
                {"brindle": self.brindle_cmd(
                    "--remove", "--recursive", "--remote-path", "/rm/small"),
                 "curl": self.curl_loop(remove_tree_loop.format()),
                 "lftp": self.lftp_cmd("rm -r /rm/small")},
                fresh_rm, check_gone(root / "rm" / "small"), logins=True),
        ]
        # The small-file trees again, with one core busy: libcurl 7.88's
        # one-second waits grow with the load (see bench/README.md).
        by_key = {w.key: w for w in found}
        return found + [by_key[key].under_load()
                        for key in ("download-small", "upload-small")]

    # -- running

    def log_size(self):
        try:
            return self.server.log_path.stat().st_size
        except FileNotFoundError:
            return 0

    def log_since(self, offset):
        with open(str(self.server.log_path), "rb") as f:
            f.seek(offset)
            text = f.read().decode("utf-8", errors="replace")
        result = []
        for line in text.splitlines():
            m = VsftpdServer.command_pattern.search(line)
            if m:
                cmd, _, arg = m.group(1).partition(" ")
                result.append((cmd.upper(), arg))
        return result

    def run_workload(self, w):
        busy = BusyLoop() if w.loaded else None
        try:
            self.run_rounds(w)
        finally:
            if busy is not None:
                busy.stop()

    def run_rounds(self, w):
        samples = {tool: [] for tool in TOOLS}
        stdout = self.work / "stdout"
        stderr = self.work / "stderr"
        rounds = self.warmup + self.runs
        for r in range(rounds):
            order = TOOLS[r % len(TOOLS):] + TOOLS[:r % len(TOOLS)]
            for tool in order:
                for attempt in (1, 2):
                    w.prepare(tool)
                    # Write back what earlier runs left dirty, so that no
                    # run pays for its predecessor's data.
                    os.sync()
                    offset = self.log_size()
                    try:
                        s = measure(w.commands[tool], stdout, stderr,
                                    self.local)
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
                    commands = self.log_since(offset)
                    users = sum(1 for c, _ in commands if c == "USER")
                    data = sum(1 for c, _ in commands
                               if c in ("PASV", "EPSV", "PORT", "EPRT"))
                    self.logins.setdefault(w.key, {})[tool] = (users, data)
                s.stalls = count_stalls(self.clock.events_since(offset))
                if r >= self.warmup:
                    samples[tool].append(s)
                print("  %-16s round %d %-8s wall %8.3f s  cpu %8.3f s  "
                      "rss %7.1f MiB  stalls %d" % (
                          w.key, r, tool, s.wall, s.cpu, s.rss_kib / 1024.0,
                          s.stalls), flush=True)
        self.results[w.key] = samples

    def run(self):
        self.loads.append(os.getloadavg())
        for w in self.workloads():
            if self.only and w.key not in self.only:
                continue
            print("%s: %s" % (w.key, w.title), flush=True)
            self.loads.append(os.getloadavg())
            self.run_workload(w)
            self.titles = getattr(self, "titles", {})
            self.titles[w.key] = w.title
        self.loads.append(os.getloadavg())


# ------------------------------------------------------------ reporting

def median(values):
    return statistics.median(values)


def paired_ratio(samples, peer, attr):
    """Median over the rounds of brindle's value / the peer's value of the
    same round."""
    mine = [getattr(s, attr) for s in samples["brindle"]]
    theirs = [getattr(s, attr) for s in samples[peer]]
    return median([a / b for a, b in zip(mine, theirs) if b > 0])


def command_output(argv):
    try:
        done = subprocess.run(argv, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.stdout.decode(errors="replace").strip()
    except OSError:
        return "unknown"


def machine_stamp(brindle):
    cpu = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    with open("/proc/meminfo") as f:
        mem_kib = int(f.readline().split()[1])
    git = command_output(["git", "-C", str(REPO), "describe", "--always",
                          "--dirty"])
    return [
        ("Machine", "%d cores (%s), %.1f GiB memory, Linux %s"
         % (os.cpu_count(), cpu, mem_kib / 1024.0 / 1024.0,
            platform.release())),
        ("brindle", "%s, Release build (commit %s)" % (
            os.path.relpath(brindle, str(REPO)), git)),
        ("curl", command_output(["curl", "--version"]).splitlines()[0]),
        ("lftp", command_output(["lftp", "--version"]).splitlines()[0]
         .replace("|", "")),
        ("vsftpd", command_output(["bash", "-c", "vsftpd -v 0>&1"])),
        ("gnuplot", command_output(["gnuplot", "--version"])),
        ("Command", "`%s` (what `bash bench/run.sh` runs, after its build)"
         % command_line()),
    ]


def command_line():
    """The command that started this run, with its BENCH_* settings."""
    settings = ["%s=%s" % (k, shlex.quote(v))
                for k, v in sorted(os.environ.items())
                if k.startswith("BENCH_")]
    script = os.path.relpath(os.path.abspath(sys.argv[0]), str(REPO))
    return " ".join(settings + ["/usr/bin/python3", script] +
                    [shlex.quote(a) for a in sys.argv[1:]])


# Everything from this line on in an existing report is kept when the report
# is written again: notes written by hand, such as earlier runs to compare.
KEPT_MARKER = ("<!-- Kept by bench.py: the notes below survive when "
               "bench/run.sh writes this report again. -->")


def kept_notes(md_path):
    """The kept part of the report that md_path holds now ("" if none)."""
    try:
        text = md_path.read_text()
    except FileNotFoundError:
        return ""
    at = text.find(KEPT_MARKER)
    return "" if at < 0 else text[at:]


def fmt_ratio(value):
    return "%.2f" % value


def write_report(bench, stamp, md_path, png_path, started, finished):
    keys = [k for k in bench.results]
    lines = []
    add = lines.append
    add("# Benchmarks")
    add("")
    add("brindle against the tools a user would reach for instead: the curl "
        "command-line tool (one process per request, or a small bash loop "
        "where a workload needs several requests) and lftp on a single "
        "connection (`set net:connection-limit 1`, "
        "`set mirror:parallel-transfer-count 1`). All three talk to the "
        "same vsftpd on 127.0.0.1, which serves a temporary directory to a "
        "throwaway local account. Generated by `bench/run.sh`; see "
        "\"How to run\" below.")
    add("")
    for name, value in stamp:
        add("- **%s**: %s" % (name, value))
    add("- **Run**: %s to %s UTC, %d measured rounds per tool and workload "
        "after %d warm-up round(s), tools alternating in rotating order; "
        "data scale %g" % (started, finished, bench.runs, bench.warmup,
                            bench.scale))
    add("- **Load average** (1, 5, 15 min) at the start, before each "
        "workload and at the end: %s"
        % "; ".join("%.2f %.2f %.2f" % l for l in bench.loads))
    add("")
    add("Each figure is the median over the rounds. Wall is elapsed time; "
        "CPU is user + system time of the process and every process it "
        "waited for (all curl processes of a loop); peak RSS is the largest "
        "resident set of a single process. A ratio is brindle's value "
        "divided by the peer's in the same round, median over the rounds "
        "(below 1.00: brindle is better).")
    add("")
    add("## Results")
    add("")
    add("| Workload | Tool | Wall (s) | CPU (s) | Peak RSS (MiB) "
        "| brindle/peer wall | brindle/peer CPU | brindle/peer RSS "
        "| Logins | Data conns | 1 s stalls |")
    add("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|")
    for key in keys:
        samples = bench.results[key]
        for tool in TOOLS:
            ss = samples[tool]
            row = [bench.titles[key] if tool == "brindle" else "", tool,
                   "%.3f" % median([s.wall for s in ss]),
                   "%.3f" % median([s.cpu for s in ss]),
                   "%.1f" % (median([s.rss_kib for s in ss]) / 1024.0)]
            if tool == "brindle":
                row += ["", "", ""]
            else:
                row += [fmt_ratio(paired_ratio(samples, tool, a))
                        for a in ("wall", "cpu", "rss_kib")]
            users, data = bench.logins.get(key, {}).get(tool, ("", ""))
            row += [str(users), str(data),
                    "%g" % median([s.stalls for s in ss])]
            add("| " + " | ".join(row) + " |")
    add("")
    add("Logins are the `USER` commands and data connections the `PASV`/"
        "`EPSV`/`PORT`/`EPRT` commands in vsftpd's log for one run of each "
        "tool. 1 s stalls counts, per run (median), the passive-mode "
        "replies after which the client waited %g s or more before its "
        "next command, timed as `bench.py` saw vsftpd log them: libcurl "
        "before 8.4.0 sometimes waits one second before it opens a data "
        "connection, which brindle avoids (see `bench/README.md`); lftp "
        "does not use libcurl." % STALL_SECONDS)
    add("")
    if "list-entry" in bench.results:
        b = bench.results["list-entry"]["brindle"]
        wall = median([s.wall for s in b])
        cpu = median([s.cpu for s in b])
        add("Listing throughput of brindle's single-entry `list` (%d "
            "`LIST` lines fetched and parsed to find one entry): %.0f lines "
            "per second of wall time, %.0f lines per second of CPU time."
            % (bench.huge_files, bench.huge_files / wall,
               bench.huge_files / cpu))
        add("")
    add("![Median wall time and peak RSS per workload and tool](%s)"
        % png_path.name)
    add("")
    add("## Targets")
    add("")
    add("| Target | Measured | Met | Note |")
    add("|---|---|---|---|")
    for text, measured, met, note in targets(bench):
        add("| %s | %s | %s | %s |" % (text, measured,
                                       "yes" if met else "**no**", note))
    add("")
    add("Why a target is missed, with the profiles behind it: "
        "[bench/README.md](../bench/README.md).")
    add("")
    add("## Workloads")
    add("")
    add("| Key | brindle | curl | lftp |")
    add("|---|---|---|---|")
    for w in WORKLOAD_DOC:
        add("| %s |" % " | ".join(w))
    add("")
    add("## How to run")
    add("")
    add("As root on Debian 12, from a clone: `bash bench/run.sh`. It installs "
        "what is missing (`BENCH_PACKAGES` in `scripts/packages.sh`), builds "
        "`build-bench/brindle` in Release mode, creates a throwaway account, "
        "starts vsftpd on 127.0.0.1, generates about 3 GiB of data under "
        "`/var/tmp`, runs the workloads, rewrites this file and "
        "`docs/benchmarks.png`, and removes the account, server and data. "
        "A full run takes about an hour on a 2-core machine with "
        "Debian 12's libcurl 7.88, most of it the curl loop's one-second "
        "waits in the `-loaded` workloads (brindle no longer waits). "
        "`BENCH_RUNS` (default 5) sets the measured rounds, `BENCH_SCALE` "
        "(default 1) scales the data (`BENCH_SCALE=0.01 BENCH_RUNS=1` is a "
        "quick smoke run), `BENCH_ONLY` picks workloads by key, "
        "`BENCH_OUTPUT` names another report file.")
    add("")
    kept = kept_notes(md_path)
    md_path.write_text("\n".join(lines) + ("\n" + kept if kept else ""))


WORKLOAD_DOC = [
    ("download-big", "`--download`", "`curl -o FILE URL`", "`get`"),
    ("upload-big", "`--upload`", "`curl -T FILE URL`", "`put`"),
    ("download-small, download-medium", "`--download --recursive`",
     "bash loop: `curl --list-only` of the tree and of each directory, then "
     "one `curl --create-dirs` with an `-o FILE URL` pair per file (one "
     "connection for all files)", "`mirror`"),
    ("upload-small", "`--upload --recursive`",
     "bash loop over `find`, then one `curl --ftp-create-dirs` with a "
     "`-T FILE URL` pair per file", "`mirror -R`"),
    ("download-small-loaded, upload-small-loaded",
     "as download-small and upload-small, while a busy loop (`bash -c "
     "'while :; do :; done'`, started before the workload and killed by pid "
     "after it) keeps one core busy", "the same, under the same load",
     "the same, under the same load"),
    ("list-entry", "`--list --remote-path /huge/NAME` (fetches and parses the "
     "whole parent listing)", "`curl URL/huge/`: only fetches the same "
     "`LIST` bytes", "`cls -l /huge/NAME`"),
    ("list-long", "`--list --long-listing --remote-path /huge/.`",
     "`curl URL/huge/`", "`ls /huge/`"),
    ("remove-small", "`--remove --recursive`",
     "bash loop: `curl --list-only` of the tree and each directory, then one "
     "`curl` with a `-Q 'DELE ...'`/`-Q 'RMD ...'` per entry",
     "`rm -r`"),
]


def targets(bench):
    """(target, measured, met, note) for every target of the workloads that
    ran."""
    r = bench.results
    found = []

    def med(key, tool, attr):
        return median([getattr(s, attr) for s in r[key][tool]])

    for key in ("download-big", "upload-big"):
        if key not in r:
            continue
        wall = paired_ratio(r[key], "curl", "wall")
        cpu = paired_ratio(r[key], "curl", "cpu")
        rss = med(key, "brindle", "rss_kib") / 1024.0
        found.append(("%s: wall <= 1.05x curl" % key, fmt_ratio(wall),
                      wall <= 1.05, "brindle %.2f s, curl %.2f s" % (
                          med(key, "brindle", "wall"),
                          med(key, "curl", "wall"))))
        found.append(("%s: CPU <= 1.10x curl" % key, fmt_ratio(cpu),
                      cpu <= 1.10, "brindle %.2f s, curl %.2f s" % (
                          med(key, "brindle", "cpu"),
                          med(key, "curl", "cpu"))))
        found.append(("%s: peak RSS < 16 MiB" % key, "%.1f MiB" % rss,
                      rss < 16, ""))
    for key in ("download-small", "upload-small", "download-medium",
                "remove-small", "download-small-loaded",
                "upload-small-loaded"):
        if key not in r:
            continue
        # With one core busy, lftp is allowed a small lead.
        lftp_limit = 1.10 if key.endswith("-loaded") else 1.00
        lftp = paired_ratio(r[key], "lftp", "wall")
        curl = paired_ratio(r[key], "curl", "wall")
        users = bench.logins.get(key, {}).get("brindle", (None,))[0]
        stalls = "1 s stalls per run: brindle %g, curl %g, lftp %g" % tuple(
            med(key, tool, "stalls") for tool in TOOLS)
        if med(key, "brindle", "stalls"):
            stalls += ("; brindle's wall less 1 s per stall: %.2f s, lftp's "
                       "%.2f s" % (
                           median([s.wall - s.stalls
                                   for s in r[key]["brindle"]]),
                           med(key, "lftp", "wall")))
        found.append(("%s: wall <= %.2fx lftp" % (key, lftp_limit),
                      fmt_ratio(lftp), lftp <= lftp_limit, stalls))
        found.append(("%s: wall < 1.00x curl loop" % key, fmt_ratio(curl),
                      curl < 1.00, ""))
        found.append(("%s: one login per run" % key, "%s" % users,
                      users == 1, ""))
        if key.startswith(("download-small", "upload-small")):
            worst = max(s.stalls for s in r[key]["brindle"])
            found.append(("%s: no 1 s stall in any run" % key,
                          "at most %d per run" % worst, worst == 0,
                          "brindle's stalls per run: %s" % ", ".join(
                              str(s.stalls) for s in r[key]["brindle"])))
    if "list-entry" in r:
        ratio = paired_ratio(r["list-entry"], "curl", "wall")
        rss = med("list-entry", "brindle", "rss_kib") / 1024.0
        found.append(("list-entry: wall <= 1.5x curl fetching the LIST",
                      fmt_ratio(ratio), ratio <= 1.5,
                      "brindle %.3f s (CPU %.3f s), curl %.3f s" % (
                          med("list-entry", "brindle", "wall"),
                          med("list-entry", "brindle", "cpu"),
                          med("list-entry", "curl", "wall"))))
        found.append(("list-entry: peak RSS < 64 MiB", "%.1f MiB" % rss,
                      rss < 64, ""))
    return found


def write_chart(bench, png_path):
    keys = list(bench.results)
    data = bench.work / "chart.dat"
    with open(str(data), "w") as f:
        for key in keys:
            walls = [median([s.wall for s in bench.results[key][t]])
                     for t in TOOLS]
            rss = [median([s.rss_kib for s in bench.results[key][t]]) / 1024.0
                   for t in TOOLS]
            f.write('"%s" %s %s\n' % (key, " ".join("%.4f" % w for w in walls),
                                      " ".join("%.2f" % m for m in rss)))
    script = """
set terminal pngcairo size 1200,900 font ",10"
set output '{png}'
set multiplot layout 2,1 title "brindle, curl and lftp against vsftpd on 127.0.0.1 (median of {runs} runs)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set grid ytics
set key top left
set logscale y
set xtics rotate by -20 nomirror
set ylabel "wall time (s, log scale)"
plot '{data}' using 2:xtic(1) title 'brindle' lc rgb '#1f77b4', \\
     '' using 3 title 'curl' lc rgb '#ff7f0e', \\
     '' using 4 title 'lftp' lc rgb '#2ca02c'
set ylabel "peak RSS (MiB, log scale)"
plot '{data}' using 5:xtic(1) title 'brindle' lc rgb '#1f77b4', \\
     '' using 6 title 'curl' lc rgb '#ff7f0e', \\
     '' using 7 title 'lftp' lc rgb '#2ca02c'
unset multiplot
""".format(png=png_path, data=data, runs=bench.runs)
    subprocess.run(["gnuplot"], input=script.encode(), check=True)


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

    bench = Bench(Path(args.brindle).resolve(), runs, warmup, scale, only,
                  tmpdir)
    # Taken before the run, while the report files are still the checked-in
    # ones, so that the commit is not marked dirty by the run's own output.
    stamp = machine_stamp(bench.brindle)
    started = time.strftime("%Y-%m-%d %H:%M", time.gmtime())
    try:
        bench.start()
        bench.make_data()
        bench.run()
        finished = time.strftime("%H:%M", time.gmtime())
        md_path.parent.mkdir(parents=True, exist_ok=True)
        write_chart(bench, png_path)
        write_report(bench, stamp, md_path, png_path, started, finished)
        print("wrote %s and %s" % (md_path, png_path))
        for text, measured, met, note in targets(bench):
            print("  %-50s %-12s %-6s %s" % (text, measured,
                                             "met" if met else "MISSED", note))
    finally:
        bench.stop()


if __name__ == "__main__":
    main()
