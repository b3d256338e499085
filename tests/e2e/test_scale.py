"""Work too large for one request: removals of large trees, and uploads
below long chains of new directories.

One request's cost grows with its commands: libcurl walks its list of
pre-transfer commands from the head for each one (n*n/2 steps for n), and
libcurl 7.88.1 (Debian 12) counts the server's replies to them, and to the
"MKD"s of the directories it creates, against its 300 KiB limit on one
request's replies, which a removal of some nine thousand short entries (or
far fewer long ones) reaches, and so does an upload that creates 600 levels
of directories, whose "MKD" replies echo ever longer paths.  So brindle
sends deletions beyond a budget in batches, each its own request, and
creates such a chain in steps, on every libcurl.  batches.py says what the
server must receive.

The daemons' tests remove 20,000 entries with long names, so that the
replies are long (Pure-FTPd echoes the path in each).  The scripted server's
tests check the exact commands around the budget and what a retry resends.
Small trees with a small budget, set by brindle's test variable, show the
batches on the scripted server and on vsftpd, with and without chroot.
"""

import posixpath

import pytest

import batches
import libcurl
from checks import assert_failed, assert_ok
from ftptest import DIR, named, snapshot
from test_remove import deletion_runs, sessions_of
from test_upload import make_local


def remove(brindle, server, remote, *flags, budget=None, timeout=300):
    return brindle.run("--remove", "--remote-path", remote, *flags,
                       *server.args(), env=batches.env(budget),
                       timeout=timeout)


def url(server):
    return "ftp://127.0.0.1:%d" % server.port


# ------------------------------------------------- 20,000 entries, daemons

DIRECTORIES = 100
FILES_PER_DIRECTORY = 199       # 100 + 100 * 199 = 20,000 entries
DIR_NAME = "directory %03d " + "d" * 50
FILE_NAME = "file %03d " + "f" * 110


def make_large_tree(server):
    """/big with DIRECTORIES directories of FILES_PER_DIRECTORY files, all
    with long names; returns the paths of the directories and files."""
    dirs, files = [], []
    for d in range(DIRECTORIES):
        name = DIR_NAME % d
        server.make_dir("big/" + name)
        dirs.append("/big/" + name)
        for f in range(FILES_PER_DIRECTORY):
            path = "big/%s/%s" % (name, FILE_NAME % f)
            server.make_file(path)
            files.append("/" + path)
    return dirs, files


def assert_post_order(deletions, server, dirs, files):
    """Every entry deleted once, each directory after all it held."""
    paths = [server.server_path(p) for p in files]
    expected = sorted([("DELE", p) for p in paths] +
                      [("RMD", server.server_path(p)) for p in dirs])
    assert sorted(deletions) == expected
    position = {arg: i for i, (_, arg) in enumerate(deletions)}
    for (command, arg) in deletions:
        parent = posixpath.dirname(arg)
        if parent in position:
            assert position[arg] < position[parent], (command, arg)


@pytest.mark.parametrize("kind", ["vsftpd", "proftpd", "pureftpd"])
def test_remove_20000_entries_with_long_names(brindle, start_server, kind):
    server = start_server(kind)
    try:
        dirs, files = make_large_tree(server)
        server.make_file("big-sibling/kept.txt", b"kept")
        server.make_file("bigger.txt", b"also kept")

        result = remove(brindle, server, "/big", "--recursive")

        assert_ok(result)
        assert snapshot(server.root) == {
            "big-sibling": DIR, "big-sibling/kept.txt": b"kept",
            "bigger.txt": b"also kept"}
        server.wait_idle()
        commands = server.commands()
        deletions = named(commands, "DELE", "RMD")
        assert len(deletions) == 20001
        assert_post_order(deletions, server, dirs + ["/big"], files)
        # One login; one listing for the lookup, one per directory and one
        # per request of deletions, which are the batches of batches.py.
        expected = batches.split(deletions)
        assert deletion_runs(commands) == expected
        assert named(commands, "USER") == [("USER", server.user)]
        assert len(named(commands, "LIST")) == 1 + 101 + len(expected)
        # Long paths: at least as many requests as Pure-FTPd's replies,
        # which echo them, need to stay below libcurl 7.88's limit.
        replies = sum(len("250 Deleted " + arg) + 2 for _, arg in deletions)
        assert len(expected) > replies // 307200
    finally:
        server.stop()


# ------------------------------------------- the budget, exactly, scripted

def make_flat_tree(server, total_cost):
    """/t holding files whose removal list ("NOOP", a DELE each, "RMD /t")
    costs exactly total_cost; returns that list without its NOOP."""
    name_length = 150
    fixed = batches.cost("NOOP") + batches.cost("RMD", "/t")
    each = batches.cost("DELE", "/t/" + "x" * name_length)
    count, extra = divmod(total_cost - fixed, each)
    names = []
    for i in range(count):
        # The remainder, spread over the first names (at most 255 bytes).
        longer = min(extra, 100)
        extra -= longer
        name = "%04d" % i + "x" * (name_length - 4) + "y" * longer
        server.make_file("t/" + name)
        names.append(name)
    deletions = [("DELE", "/t/" + n) for n in sorted(names)] + [("RMD", "/t")]
    assert sum(batches.cost(*c) for c in deletions) + \
        batches.cost("NOOP") == total_cost
    return deletions


@pytest.mark.parametrize("over", [0, 1], ids=["at-the-budget",
                                              "one-byte-over"])
def test_remove_around_the_budget(brindle, scripted, over):
    deletions = make_flat_tree(scripted, batches.BUDGET + over)
    scripted.make_file("keep.txt", b"k")

    result = remove(brindle, scripted, "/t", "--recursive")

    assert_ok(result)
    if over:
        # The last command that does not fit opens a second request, on
        # the same connection, after the first request's listing.
        requests = [[("NOOP", "")] + deletions[:-1],
                    [("NOOP", ""), ("RMD", "/t")]]
    else:
        requests = [[("NOOP", "")] + deletions]
    assert batches.split(deletions) == requests
    expected = [(1, "USER", scripted.user), (1, "LIST", ""),
                (1, "LIST", "")]
    for request in requests:
        expected += [(1,) + c for c in request] + [(1, "LIST", "")]
    assert sessions_of(scripted, {"USER", "LIST", "NOOP", "DELE",
                                  "RMD"}) == expected
    assert snapshot(scripted.root) == {"keep.txt": b"k"}


def test_remove_relative_path_in_batches(brindle, scripted):
    # Relative commands need a session that starts in the login directory:
    # each request logs in afresh, never on the walk's connection.
    deletions = make_flat_tree(scripted, batches.BUDGET + 1000)
    first, second = batches.split([(c, a[1:]) for c, a in deletions])

    result = remove(brindle, scripted, "t", "--recursive")

    assert_ok(result)
    assert sessions_of(scripted, {"USER", "NOOP", "DELE", "RMD"}) == [
        (1, "USER", scripted.user), (2, "USER", scripted.user)] + [
        (2,) + c for c in first] + [(3, "USER", scripted.user)] + [
        (3,) + c for c in second]
    assert snapshot(scripted.root) == {}


# ------------------------------- small trees, one request or in batches

# A budget of two or three deletions a request on the servers below.
SMALL_BUDGET = 300
BATCH_SERVERS = ["scripted", "vsftpd", "vsftpd-nochroot"]


def make_small_tree(server):
    """/s: six files in three levels, beside a folder that stays; returns
    the directories and files of /s."""
    files = ["/s/a.txt", "/s/b.txt", "/s/sub/c.txt", "/s/sub/d.txt",
             "/s/sub/deeper/e.txt", "/s/z.txt"]
    for path in files:
        server.make_file(path[1:], path.encode())
    server.make_file("s-sibling/kept.txt", b"kept")
    return ["/s", "/s/sub", "/s/sub/deeper"], files


def assert_only_the_sibling_is_left(server):
    assert snapshot(server.root) == {"s-sibling": DIR,
                                     "s-sibling/kept.txt": b"kept"}


@pytest.mark.parametrize("budget", [None, SMALL_BUDGET],
                         ids=["one-request", "batches"])
@pytest.mark.parametrize("kind", BATCH_SERVERS)
def test_remove_small_tree(brindle, start_server, kind, budget):
    server = start_server(kind)
    try:
        dirs, files = make_small_tree(server)

        result = remove(brindle, server, "/s", "--recursive", budget=budget)

        assert_ok(result)
        assert_only_the_sibling_is_left(server)
        server.wait_idle()
        commands = server.commands()
        deletions = named(commands, "DELE", "RMD")
        assert_post_order(deletions, server, dirs, files)
        # The whole list as one request; with the small budget, batches in
        # the same order, each behind a NOOP of its own.
        if budget is None:
            assert deletion_runs(commands) == [[("NOOP", "")] + deletions]
        else:
            runs = batches.split(deletions, budget)
            assert len(runs) >= 3
            assert deletion_runs(commands) == runs
        # Absolute paths: every request on the one login.
        assert named(commands, "USER") == [("USER", server.user)]
    finally:
        server.stop()


@pytest.mark.parametrize("kind", BATCH_SERVERS)
def test_remove_small_tree_by_relative_path_in_batches(brindle,
                                                        start_server, kind):
    server = start_server(kind)
    try:
        dirs, files = make_small_tree(server)

        result = remove(brindle, server, "s", "--recursive",
                        budget=SMALL_BUDGET)

        assert_ok(result)
        assert_only_the_sibling_is_left(server)
        server.wait_idle()
        commands = server.commands()
        deletions = named(commands, "DELE", "RMD")
        # Relative paths, resolved by the server against the login
        # directory.
        assert sorted(deletions) == sorted(
            [("DELE", f[1:]) for f in files] + [("RMD", d[1:]) for d in dirs])
        runs = batches.split(deletions, SMALL_BUDGET)
        assert len(runs) >= 3
        # The walk's login, then a new login before every batch.
        expected = [("USER", server.user)]
        for run in runs:
            expected += [("USER", server.user)] + run
        assert named(commands, "USER", "NOOP", "DELE", "RMD") == expected
    finally:
        server.stop()


# ------------------------------------------------ retries of one request

# A budget of four deletions of make_flat_tree's names a request: its tree
# of 1,750 bytes goes out in two requests of five commands each.
SPLIT_BUDGET = 1200


def split_tree(server):
    """A /t of two requests with SPLIT_BUDGET; the deletions of the first
    and of the second."""
    deletions = make_flat_tree(server, 1750)
    first, second = batches.split(deletions, SPLIT_BUDGET)
    assert len(first) == len(second) == 5
    return first[1:], second[1:]


def remove_dropped_at(brindle, server, command):
    """Removes /t with one retry, while the server, once, drops the
    connection instead of running `command` (a (command, argument) pair)."""
    server.script({"failures": [
        {"command": command[0], "arg": command[1],
         "reply": "421 Scripted shutdown", "close": True, "times": 1}]})
    return remove(brindle, server, "/t", "--recursive", "--retry", "1",
                  "--retry-delay", "0", budget=SPLIT_BUDGET)


def test_retry_resends_only_the_failed_request(brindle, scripted):
    first, second = split_tree(scripted)

    # Dropped at the second request's first deletion: nothing of that
    # request took effect.
    result = remove_dropped_at(brindle, scripted, second[0])

    assert_ok(result)
    # The first request once; the second once up to its failure, then
    # whole, on a new login.
    commands = scripted.commands()
    assert named(commands, "NOOP", "DELE", "RMD") == (
        [("NOOP", "")] + first + [("NOOP", ""), second[0]] +
        [("NOOP", "")] + second)
    assert len(named(commands, "USER")) == 2
    assert snapshot(scripted.root) == {}


def test_retry_meets_what_the_failed_attempt_deleted(brindle, scripted):
    first, second = split_tree(scripted)

    # Dropped after the second request's first two deletions took effect:
    # the retry resends them from its NOOP, and the server refuses the
    # first, which no longer exists.
    result = remove_dropped_at(brindle, scripted, second[2])

    assert_failed(result, "Unable to perform request for '%s': "
                  "QUOT command failed with 550" % url(scripted))
    assert named(scripted.commands(), "NOOP", "DELE", "RMD") == (
        [("NOOP", "")] + first + [("NOOP", "")] + second[:3] +
        [("NOOP", ""), second[0]])
    # Everything from the dropped command on is still there.
    left = {"t": DIR}
    for _, arg in second[2:-1]:
        left[arg[1:]] = b""
    assert snapshot(scripted.root) == left


# ------------------------------------- uploads below deep new directories

# 180 levels of nine bytes (1,800 bytes): the scripted server (pyftpdlib)
# echoes the new path in its replies to both "MKD" and "CWD", so creating
# them all in one request overruns libcurl 7.88's limit, while every server
# copes with the depth itself.
CHAIN = ["abcdefghi"] * 180
# 1,333 levels of "ab": 3,999 bytes, as deep as a path of 4,000 bytes gets
# with names of two bytes. vsftpd's "MKD" replies echo the path (its "CWD"
# replies do not), which libcurl 7.88 takes in steps of some 170 levels.
DEEP_CHAIN = ["ab"] * 1333
# libcurl 8.23 (Debian unstable) refuses a URL whose path holds this many
# directories or more: after the login it ends the request with
# CURLE_URL_MALFORMAT, before any command of the request and with nothing in
# its error buffer. 7.88 (Debian 12) and 8.14 (Debian 13) take any depth.
# brindle leaves directory creation to libcurl, one URL a request, so there
# the upload stops at the first request that goes this deep.
LIBCURL_DEPTH_LIMIT = 1000


def upload_deep(brindle, server, account, chain, budget=None):
    make_local(brindle.workdir, "f.txt", b"deep")
    return brindle.run("--upload", "--local-user", account.name,
                       "--local-path", "f.txt",
                       "--remote-path", "/" + "/".join(chain) + "/f.txt",
                       *server.args(), env=batches.env(budget), timeout=120)


def assert_deep_file(server, chain):
    assert (server.path("/".join(chain)) / "f.txt").read_bytes() == b"deep"
    assert [p.name for p in server.root.iterdir()] == [chain[0]]


def assert_refused_by_libcurl(server, chain, result):
    """The upload of a file below `chain` ended at the first request whose
    URL holds LIBCURL_DEPTH_LIMIT directories or more, as a failure of that
    request (whatever libcurl's text), after the requests before it had
    created their directories."""
    steps = batches.directory_steps(chain)
    refused = next((s for s in steps if s >= LIBCURL_DEPTH_LIMIT), None)
    done = max([s for s in steps if s < LIBCURL_DEPTH_LIMIT], default=0)
    if refused is None:
        path = "/".join(chain) + "/f.txt"
    else:
        path = "/".join(chain[:refused]) + "/"
    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr.startswith(
        b"Unable to perform request for '%s/%s': " %
        (url(server).encode(), path.encode())), result
    assert result.stderr.endswith(b"\n") and result.stderr.count(b"\n") == 1
    server.wait_idle()
    commands = server.commands()
    assert len(named(commands, "MKD")) == done
    assert named(commands, "STOR") == []
    assert server.path("/".join(chain[:done])).is_dir()
    assert not server.path("/".join(chain[:done + 1])).exists()


def requests_of(commands):
    """The commands split into requests: each request on the kept
    connection starts by returning to the login directory, "CWD /"."""
    requests = [[]]
    for command in commands:
        if command == ("CWD", "/"):
            requests.append([])
        requests[-1].append(command)
    return requests


# A budget that the whole chain fits: one request creates it all.
WHOLE_CHAIN = 10 ** 9


@pytest.mark.parametrize("budget", [None, WHOLE_CHAIN],
                         ids=["in-steps", "in-one-request"])
def test_upload_below_a_deep_new_chain(brindle, scripted, local_account,
                                       budget):
    result = upload_deep(brindle, scripted, local_account, CHAIN, budget)

    commands = scripted.commands()
    if budget == WHOLE_CHAIN and not libcurl.at_least(8, 14):
        # libcurl 7.88 counts the replies: without the steps the one
        # request overruns its limit, after creating part of the chain.
        assert result.status == 1, result
        assert result.stdout == b""
        assert result.stderr.startswith(
            b"Unable to perform request for '%s/abcdefghi/" %
            url(scripted).encode()), result
        assert 0 < len(named(commands, "MKD")) < len(CHAIN)
        assert named(commands, "STOR") == []
        return
    assert_ok(result)
    assert_deep_file(scripted, CHAIN)
    # Every directory created once, the file stored once, on one login.
    assert named(commands, "MKD") == [("MKD", "abcdefghi")] * len(CHAIN)
    assert named(commands, "STOR") == [("STOR", "f.txt")]
    assert named(commands, "USER") == [("USER", scripted.user)]
    # Each step is a request of its own that enters the chain, creates the
    # next levels and transfers nothing; the last request creates the rest
    # and stores the file.
    steps = batches.directory_steps(CHAIN, budget=budget or batches.BUDGET)
    assert bool(steps) == (budget is None)
    requests = requests_of(commands)
    assert [len(named(r, "MKD")) for r in requests] == [
        b - a for a, b in zip([0] + steps, steps + [len(CHAIN)])]
    assert [len(named(r, "STOR", "LIST", "RETR", "SIZE")) for r in
            requests] == [0] * len(steps) + [1]


@pytest.mark.parametrize("kind, chain", [
    ("vsftpd", CHAIN), ("proftpd", CHAIN), ("pureftpd", CHAIN),
    ("vsftpd", DEEP_CHAIN)], ids=["vsftpd", "proftpd", "pureftpd",
                                  "vsftpd-4000-bytes"])
def test_upload_below_a_deep_new_chain_on_daemons(brindle, start_server,
                                                  local_account, kind,
                                                  chain):
    server = start_server(kind)
    try:
        result = upload_deep(brindle, server, local_account, chain)

        if result.status != 0 and len(chain) >= LIBCURL_DEPTH_LIMIT:
            assert libcurl.at_least(8, 15), result
            assert_refused_by_libcurl(server, chain, result)
            return
        assert_ok(result)
        assert_deep_file(server, chain)
        server.wait_idle()
        commands = server.commands()
        assert len(named(commands, "MKD")) == len(chain)
        assert len(named(commands, "STOR")) == 1
        assert named(commands, "USER") == [("USER", server.user)]
        # The requests: the steps of batches.py.
        steps = batches.directory_steps(chain)
        assert len(requests_of(commands)) == len(steps) + 1
    finally:
        server.stop()
