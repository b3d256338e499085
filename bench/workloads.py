"""The workloads: per tool the command to time, the preparation before each
run (not timed) and the check of its result after it, so that a tool that
did not do the work cannot win. workloads() lists them in the order they
run; the "-loaded" ones repeat the small-file trees while one core is kept
busy (runner.BusyLoop).
"""

import shlex
from pathlib import Path

import ftptest

from dataset import fresh_copy, fresh_dir, tree_summary


class Workload(object):
    """One benchmark: per tool the command to time; a preparation run
    before every timed run (not timed) and a check of the result after it."""

    def __init__(self, key, title, commands, prepare, check, logins=False,
                 loaded=False):
        self.key, self.title = key, title
        self.family = key             # BENCH_ONLY picks by key or family
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


class Commands(object):
    """The command lines of the three tools against the rig's server."""

    def __init__(self, brindle, rig):
        self.brindle = brindle
        self.rig = rig

    def brindle_cmd(self, *args):
        account = self.rig.account
        return [self.brindle, "--host", ftptest.HOST,
                "--port", str(self.rig.server.port),
                "--login", account.name,
                "--password", account.password] + list(args)

    def curl_cmd(self, *args):
        account = self.rig.account
        return ["curl", "-sS", "--user",
                "%s:%s" % (account.name, account.password)] + list(args)

    def lftp_cmd(self, command):
        account = self.rig.account
        script = "; ".join([
            "set net:connection-limit 1",
            "set mirror:parallel-transfer-count 1",
            "set ftp:ssl-allow no",
            "set cmd:fail-exit yes",
            "set xfer:clobber on",
            "set net:max-retries 1",
            "open -u %s,%s -p %d %s" % (account.name, account.password,
                                        self.rig.server.port, ftptest.HOST),
            command])
        return ["lftp", "-c", script]

    def curl_loop(self, body):
        """A bash script as a user would write it around the curl tool."""
        account = self.rig.account
        head = "set -euo pipefail\nbase=%s\ncred=%s\n" % (
            shlex.quote(self.rig.base_url()),
            shlex.quote("%s:%s" % (account.name, account.password)))
        return ["bash", "-c", head + body]


# The curl loops, as bash bodies for Commands.curl_loop(). A tree is a
# directory of directories of files; a directory (DIR loops) holds files.
FETCH_TREE_LOOP = """
args=()
for d in $(curl -sS --user "$cred" --list-only "$base/{tree}/"); do
  for f in $(curl -sS --user "$cred" --list-only "$base/{tree}/$d/"); do
    args+=(-o "{tree}/$d/$f" "$base/{tree}/$d/$f")
  done
done
cd {out} && curl -sS --user "$cred" --create-dirs "${{args[@]}}"
"""
FETCH_DIR_LOOP = """
args=()
for f in $(curl -sS --user "$cred" --list-only "$base/{tree}/"); do
  args+=(-o "{tree}/$f" "$base/{tree}/$f")
done
cd {out} && curl -sS --user "$cred" --create-dirs "${{args[@]}}"
"""
# A tree or a directory, uploaded to /up.
SEND_TREE_LOOP = """
args=()
cd {src}
for f in $(find {tree} -type f); do args+=(-T "$f" "$base/up/$f"); done
curl -sS --user "$cred" --ftp-create-dirs "${{args[@]}}"
"""
REMOVE_TREE_LOOP = """
quote=()
for d in $(curl -sS --user "$cred" --list-only "$base/{tree}/"); do
  for f in $(curl -sS --user "$cred" --list-only "$base/{tree}/$d/"); do
    quote+=(-Q "DELE /{tree}/$d/$f")
  done
  quote+=(-Q "RMD /{tree}/$d")
done
curl -sS --user "$cred" "${{quote[@]}}" -Q "RMD /{tree}" -o /dev/null "$base/"
"""
REMOVE_DIR_LOOP = """
quote=()
for f in $(curl -sS --user "$cred" --list-only "$base/{tree}/"); do
  quote+=(-Q "DELE /{tree}/$f")
done
curl -sS --user "$cred" "${{quote[@]}}" -Q "RMD /{tree}" -o /dev/null "$base/"
"""


# -- checks of a run's result: each returns a (tool, stdout path) -> None
# that raises RuntimeError when the run did not do its work.

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


def workloads(brindle, rig, sizes):
    """Every workload, in the order they run, on the data that
    dataset.make_data() wrote."""
    c = Commands(brindle, rig)
    account = rig.account
    user = account.name
    out, src, root = rig.local / "out", rig.local / "src", rig.server.root
    big = sizes.big_text()
    huge_last = sizes.huge_last

    def fresh_out(tool):
        fresh_dir(out, account)

    def fresh_up(tool):
        fresh_dir(root / "up", account)

    def fresh_rm(tool):
        fresh_copy(root / "small", root / "rm" / "small")

    q = shlex.quote

    def download_tree(tree, file_size, files, dirs, size):
        """download-TREE: the tree /TREE of `files` files of `size` bytes
        (`file_size` in the title) in `dirs` directories."""
        return Workload(
            "download-" + tree, "recursive download, %d x %s in %d dirs"
            % (files, file_size, dirs),
            {"brindle": c.brindle_cmd(
                "--download", "--recursive", "--local-user", user,
                "--remote-path", "/" + tree,
                "--local-path", str(out / tree)),
             "curl": c.curl_loop(FETCH_TREE_LOOP.format(
                 tree=tree, out=q(str(out)))),
             "lftp": c.lftp_cmd("mirror /%s %s" % (tree, q(str(out / tree))))},
            fresh_out, check_tree(out / tree, files, size), logins=True)

    found = [
        Workload(
            "download-big", "download one %s file" % big,
            {"brindle": c.brindle_cmd(
                "--download", "--local-user", user,
                "--remote-path", "/big.bin",
                "--local-path", str(out / "big.bin")),
             "curl": c.curl_cmd("-o", str(out / "big.bin"),
                                rig.base_url() + "/big.bin"),
             "lftp": c.lftp_cmd("get /big.bin -o %s"
                                % q(str(out / "big.bin")))},
            fresh_out, check_size(out / "big.bin", sizes.big_size)),
        Workload(
            "upload-big", "upload one %s file" % big,
            {"brindle": c.brindle_cmd(
                "--upload", "--local-user", user,
                "--local-path", str(src / "big.bin"),
                "--remote-path", "/up/big.bin"),
             "curl": c.curl_cmd("-T", str(src / "big.bin"),
                                rig.base_url() + "/up/big.bin"),
             "lftp": c.lftp_cmd("put %s -o /up/big.bin"
                                % q(str(src / "big.bin")))},
            fresh_up, check_size(root / "up" / "big.bin", sizes.big_size)),
        download_tree("small", "4 KiB", sizes.small_files, sizes.small_dirs,
                      sizes.small_size),
        Workload(
            "upload-small", "recursive upload, %d x 4 KiB in %d dirs"
            % (sizes.small_files, sizes.small_dirs),
            {"brindle": c.brindle_cmd(
                "--upload", "--recursive", "--local-user", user,
                "--local-path", str(src / "small"),
                "--remote-path", "/up/small"),
             "curl": c.curl_loop(SEND_TREE_LOOP.format(src=q(str(src)),
                                                       tree="small")),
             "lftp": c.lftp_cmd("mirror -R %s /up/small"
                                % q(str(src / "small")))},
            fresh_up,
            check_tree(root / "up" / "small", sizes.small_files,
                       sizes.small_size),
            logins=True),
        download_tree("medium", "4 MiB", sizes.medium_files,
                      sizes.medium_dirs, sizes.medium_size),
        Workload(
            "list-entry", "list one entry of a %d-file directory"
            % sizes.huge_files,
            {"brindle": c.brindle_cmd(
                "--list", "--remote-path", "/huge/" + huge_last),
             # The LIST bytes that brindle fetches and parses, fetched only.
             "curl": c.curl_cmd(rig.base_url() + "/huge/"),
             "lftp": c.lftp_cmd("cls -l /huge/" + huge_last)},
            lambda tool: None,
            lambda tool, stdout: check_lines(
                1 if tool != "curl" else sizes.huge_files,
                huge_last.encode())(tool, stdout)),
        Workload(
            "list-long", "list --long-listing of a %d-file directory"
            % sizes.huge_files,
            {"brindle": c.brindle_cmd(
                "--list", "--long-listing", "--remote-path", "/huge/."),
             "curl": c.curl_cmd(rig.base_url() + "/huge/"),
             "lftp": c.lftp_cmd("ls /huge/")},
            lambda tool: None,
            check_lines(sizes.huge_files, huge_last.encode())),
        Workload(
            "remove-small", "recursive remove, %d x 4 KiB in %d dirs"
            % (sizes.small_files, sizes.small_dirs),
            {"brindle": c.brindle_cmd(
                "--remove", "--recursive", "--remote-path", "/rm/small"),
             "curl": c.curl_loop(REMOVE_TREE_LOOP.format(tree="rm/small")),
             "lftp": c.lftp_cmd("rm -r /rm/small")},
            fresh_rm, check_gone(root / "rm" / "small"), logins=True),
    ]
    # The small-file trees again, with one core busy: libcurl 7.88's
    # one-second waits grow with the load (see bench/README.md).
    by_key = {w.key: w for w in found}
    return found + [by_key[key].under_load()
                    for key in ("download-small", "upload-small")]
