"""The scale suite's workloads (BENCH_SUITE=scale): for every entry count N
of dataset.ScaleSizes, on the tree /sN/tree (N files in N/100 directories)
and on the directory /sN/flat (N files in one directory), a listing of the
contents, a listing of one entry (found by looking it up in its parent's
listing), a recursive download, upload and remove. brindle and lftp run
them all; the curl loop (workloads.py) only up to CURL_LOOP_MAX entries.
"""

import shlex

from dataset import fresh_copy, fresh_dir
from workloads import (FETCH_DIR_LOOP, FETCH_TREE_LOOP, REMOVE_DIR_LOOP,
                       REMOVE_TREE_LOOP, SEND_TREE_LOOP, Commands, Workload,
                       check_gone, check_lines, check_tree)

# The largest entry count that the curl loop runs at. With libcurl 7.88
# (Debian 12) it waits a second before many of its data connections (see
# bench/README.md): 135 s for a tree of 1,000 files here, so 20 minutes or
# more a run at 10,000. At 100,000 entries its arguments (about 6 MiB) are
# beyond the 2 MiB that execve() accepts for a command line.
CURL_LOOP_MAX = 1000

# The workload families in the order they run at each entry count, with
# what they do for the report.
FAMILIES = [
    ("list-flat", "list the contents of a directory of N files"),
    ("list-flat-entry", "list one file of a directory of N files"),
    ("list-tree", "list the contents of a tree's top (N/100 directories)"),
    ("list-tree-entry", "list one directory of a tree's top (N/100 "
     "directories)"),
    ("download-tree", "recursive download, N files in N/100 directories"),
    ("upload-tree", "recursive upload, N files in N/100 directories"),
    ("remove-tree", "recursive remove, N files in N/100 directories"),
    ("download-flat", "recursive download, a directory of N files"),
    ("upload-flat", "recursive upload, a directory of N files"),
    ("remove-flat", "recursive remove, a directory of N files"),
]


def scale_key(family, entries):
    return "%s-%d" % (family, entries)


def scale_workloads(brindle, rig, sizes, entries):
    """The workloads at one entry count, in FAMILIES order, on the data
    that dataset.make_scale_data() wrote. Each carries .family, .size (the
    entry count N) and .entries: the number of entries the command lists,
    transfers or removes, by which the report divides its time."""
    c = Commands(brindle, rig)
    account = rig.account
    user = account.name
    out, src, root = rig.local / "out", rig.local / "src", rig.server.root
    top = "s%d" % entries
    dirs = sizes.tree_dirs(entries)
    last_file = "f%04d" % (entries - 1)
    last_dir = "d%02d" % (dirs - 1)
    size = sizes.file_size
    q = shlex.quote
    found = []

    def add(family, count, commands, prepare, check):
        if entries > CURL_LOOP_MAX:
            commands.pop("curl", None)
        title = dict(FAMILIES)[family].replace("N/100", "%d" % dirs) \
            .replace("N", "%d" % entries)
        w = Workload(scale_key(family, entries), title, commands, prepare,
                     check, logins=True)
        w.family, w.entries, w.size = family, count, entries
        found.append(w)

    def nothing(tool):
        pass

    def fresh_out(tool):
        fresh_dir(out, account)

    def fresh_up(tool):
        fresh_dir(root / "up", account)

    def fresh_rm(shape):
        return lambda tool: fresh_copy(root / top / shape,
                                       root / "rm" / shape)

    def listing(shape, count, last):
        """The contents of /sN/SHAPE by NLST, and the last of them by a
        lookup in the LIST of /sN/SHAPE."""
        path = "/%s/%s" % (top, shape)
        url = rig.base_url() + path + "/"
        add("list-" + shape, count,
            {"brindle": c.brindle_cmd("--list", "--remote-path", path + "/."),
             "curl": c.curl_cmd("--list-only", url),
             "lftp": c.lftp_cmd("nlist " + path)},
            nothing, check_lines(count, last.encode()))

        def check_entry(tool, stdout):
            # curl only fetches the LIST that the other two look it up in.
            check_lines(1 if tool != "curl" else count,
                        last.encode())(tool, stdout)
        add("list-%s-entry" % shape, count,
            {"brindle": c.brindle_cmd("--list", "--remote-path",
                                      "%s/%s" % (path, last)),
             "curl": c.curl_cmd(url),
             "lftp": c.lftp_cmd("cls -d %s/%s" % (path, last))},
            nothing, check_entry)

    def transfers(shape, fetch_loop, remove_loop):
        """Download, upload and remove of /sN/SHAPE."""
        path = "%s/%s" % (top, shape)

        def check_download(tool, stdout):
            # The curl loop writes below out/ under the remote path.
            local = out / (path if tool == "curl" else shape)
            check_tree(local, entries, size)(tool, stdout)
        add("download-" + shape, entries,
            {"brindle": c.brindle_cmd(
                "--download", "--recursive", "--local-user", user,
                "--remote-path", "/" + path,
                "--local-path", str(out / shape)),
             "curl": c.curl_loop(fetch_loop.format(tree=path,
                                                   out=q(str(out)))),
             "lftp": c.lftp_cmd("mirror /%s %s" % (path,
                                                   q(str(out / shape))))},
            fresh_out, check_download)
        add("upload-" + shape, entries,
            {"brindle": c.brindle_cmd(
                "--upload", "--recursive", "--local-user", user,
                "--local-path", str(src / top / shape),
                "--remote-path", "/up/" + shape),
             "curl": c.curl_loop(SEND_TREE_LOOP.format(
                 src=q(str(src / top)), tree=shape)),
             "lftp": c.lftp_cmd("mirror -R %s /up/%s"
                                % (q(str(src / top / shape)), shape))},
            fresh_up, check_tree(root / "up" / shape, entries, size))
        add("remove-" + shape, entries,
            {"brindle": c.brindle_cmd(
                "--remove", "--recursive", "--remote-path", "/rm/" + shape),
             "curl": c.curl_loop(remove_loop.format(tree="rm/" + shape)),
             "lftp": c.lftp_cmd("rm -r /rm/" + shape)},
            fresh_rm(shape), check_gone(root / "rm" / shape))

    listing("flat", entries, last_file)
    listing("tree", dirs, last_dir)
    transfers("tree", FETCH_TREE_LOOP, REMOVE_TREE_LOOP)
    transfers("flat", FETCH_DIR_LOOP, REMOVE_DIR_LOOP)
    order = [family for family, _ in FAMILIES]
    return sorted(found, key=lambda w: order.index(w.family))
