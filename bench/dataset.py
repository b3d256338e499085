"""The data the workloads move, and the helpers that make, reset and check
it. Sizes holds the sizes, scaled by BENCH_SCALE for smoke runs; make_data()
writes them into the server's root and links them as the local upload
sources. ScaleSizes and make_scale_data() do the same for the scale suite
(BENCH_SUITE=scale): trees and directories of 1,000 to 100,000 entries.
"""

import os
import shutil
import subprocess

KiB = 1024
MiB = 1024 * KiB
GiB = 1024 * MiB


class Sizes(object):
    """How much data each workload gets at data scale `scale`."""

    def __init__(self, scale):
        self.scale = scale
        self.big_size = max(MiB, int(GiB * scale))
        self.small_files = max(40, int(2000 * scale))
        self.small_dirs = 40
        self.small_size = 4 * KiB
        self.medium_files = max(10, int(200 * scale))
        self.medium_dirs = 10
        self.medium_size = 4 * MiB
        self.huge_files = max(100, int(100000 * scale))
        self.huge_last = "f%06d" % (self.huge_files - 1)

    def big_text(self):
        """The big file's size as the workload titles give it."""
        if self.big_size < GiB:
            return "%d MiB" % (self.big_size // MiB)
        return "%g GiB" % (self.big_size / GiB)


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
    root/dNN/fNNNN; with `dirs` 0, all of them in root itself."""
    block = os.urandom(size) if size else b""
    root.mkdir(parents=True)
    for i in range(files):
        d = root / ("d%02d" % (i % dirs)) if dirs else root
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


def fresh_dir(path, account):
    """`path` as a new empty directory owned by `account`."""
    clear(path)
    path.mkdir()
    account.chown(path)


def fresh_copy(source, target):
    """`target` as a new copy of the tree `source` (cp -a)."""
    clear(target)
    subprocess.run(["cp", "-a", str(source), str(target)], check=True)


def make_data(rig, sizes):
    """Writes the server's data (big.bin, the small, medium and huge trees,
    the empty up/ and rm/), the local upload sources (src/, hard links to
    the same data) and the empty download target (out/) under rig.local."""
    root = rig.server.root
    uid, gid = rig.account.uid, rig.account.gid
    print("generating data in %s" % root, flush=True)
    write_file(root / "big.bin", sizes.big_size)
    make_tree(root / "small", sizes.small_dirs, sizes.small_files,
              sizes.small_size)
    make_tree(root / "medium", sizes.medium_dirs, sizes.medium_files,
              sizes.medium_size)
    huge = root / "huge"
    huge.mkdir()
    for i in range(sizes.huge_files):
        (huge / ("f%06d" % i)).touch()
    (root / "up").mkdir()
    (root / "rm").mkdir()
    chown_tree(root, uid, gid)
    make_local_side(rig, ["small", "big.bin"])


def make_local_side(rig, names):
    """The local upload sources, src/NAME for each of `names` in the
    server's root (hard links to the same data), and the empty download
    target out/, all owned by the account."""
    root = rig.server.root
    src = rig.local / "src"
    src.mkdir()
    for name in names:
        subprocess.run(["cp", "-al", str(root / name), str(src / name)],
                       check=True)
    chown_tree(src, rig.account.uid, rig.account.gid)
    out = rig.local / "out"
    out.mkdir()
    rig.account.chown(out)


class ScaleSizes(object):
    """The entry counts of the scale workloads: `entries` (each scaled by
    `scale`, at least 10), every count as a tree of files in one directory
    per FILES_PER_DIR files and as one directory holding them all."""

    ENTRIES = (1000, 10000, 100000)
    FILES_PER_DIR = 100

    def __init__(self, scale, entries=ENTRIES):
        self.scale = scale
        self.entries = sorted(set(max(10, int(n * scale)) for n in entries))
        self.file_size = KiB

    def tree_dirs(self, entries):
        return max(1, entries // self.FILES_PER_DIR)


def make_scale_data(rig, sizes):
    """Writes, for every entry count N, /sN/tree (N files in
    sizes.tree_dirs(N) directories) and /sN/flat (N files in one directory)
    into the server's root, the empty up/ and rm/ beside them, the local
    upload sources (src/sN, hard links to the same files) and the empty
    download target (out/)."""
    root = rig.server.root
    print("generating data in %s" % root, flush=True)
    for n in sizes.entries:
        top = root / ("s%d" % n)
        make_tree(top / "tree", sizes.tree_dirs(n), n, sizes.file_size)
        make_tree(top / "flat", 0, n, sizes.file_size)
    (root / "up").mkdir()
    (root / "rm").mkdir()
    chown_tree(root, rig.account.uid, rig.account.gid)
    make_local_side(rig, ["s%d" % n for n in sizes.entries])
