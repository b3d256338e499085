"""The compatibility matrix: the same scenarios against every server of
servers.REGISTRY (pyftpdlib, vsftpd, ProFTPD, Pure-FTPd, vsftpd and
ProFTPD without chroot, Twisted, aioftp, GNU inetutils ftpd, ftpd-ssl,
GridFTP and the scripted server in its IIS mode), each in passive and in
active mode.

The servers without chroot log the account in to the temporary root by its
machine path: the scenarios' remote paths are relative to that login
directory, while the paths the server logs in DELE and RMD, or reaches
with an absolute CWD, are the machine's own.

Every server formats its listings its own way: owners as names or numbers,
days padded with a zero or a blank, sorted or in directory order, with or
without fifos, "." and "..", a "total N" line, links shown as links or as
what they point to.  The expectations are built from the files the server
really has (os.lstat, the directory's own order) through the model of each
server's format (its module's Dialect), so the tests say exactly what each
server sends and what brindle makes of it.

Where brindle fails on a server, the expected outcome is that exact
failure: a LIST line that the LIST pattern rejects ("total N", the empty
lines of GridFTP's CR CR LF), a command the server does not implement
(NLST without an argument, NOOP, PORT and EPRT), a file the server lists
but will not send.  What a server implements is asked of the server itself
when it starts (ftplib, not brindle), so that another release of it is
judged by what it does; the parts of brindle's messages that are
libcurl's own text are taken from the running libcurl, through the curl
program making the same request.  Server settings that make LIST lines
brindle rejects are the test_variant_* tests at the end.

Each test records what scripts/compatibility.py needs for
docs/compatibility.md as junit properties: the server and mode, the
server's name, version and format note, brindle's failure message and the
reason where one is expected, and sample LIST lines.
"""

import ftplib
import os
import posixpath
import re
import subprocess
import time
import urllib.parse

import pytest

import libcurl
import servers
from checks import (Commands, assert_failed, assert_ok, curl_says,
                    raw_answer, raw_list_lines, resolved, skip_line)
from ftptest import DIR, named, snapshot

SERVERS = servers.KINDS
MODES = ["passive", "active"]
TIMEOUT = 30

# An mtime that every server shows with its year, and one that every
# server shows with its time of day.
OLD = 1262304000            # 2010-01-01 00:00:00 UTC
RECENT_AGE = 86400          # a day ago
BINARY = bytes(range(256))
# A few MiB that a text-mode transfer, a short read or a lost block would
# change.
BIG = b"".join(i.to_bytes(4, "big") + bytes([i % 251]) * 60
               for i in range(3 * 1024 * 1024 // 64))
ODD_NAME = "my file#1"

# The LIST pattern brindle parses lines with, for the test's own check of
# which line a server sends that it rejects (Python has no repeated group
# names, so the groups are plain here).
LIST_PATTERN = re.compile(
    r"([-bcCdDlMnpPs?])([-r][-w][-xsS][-r][-w][-xsS][-r][-w][-xsStT])\s+"
    r"(\d+)\s+(\S+)\s+(\S+)\s+(\d+)\s+((\w{3}\s+\d{1,2}\s+\d{1,2}:\d{2})|"
    r"(\w{3}\s+\d{1,2}\s+\d{4}))\s+(.+)"
    r"|(\d{1,4}[\.-]\d{2}[\.-]\d{1,4}\s+\d{1,2}:\d{2}([AP]M)?)\s+"
    r"(([^0-9\s]+)|(\d+))\s+(.+)", re.ASCII | re.DOTALL)


# ------------------------------------------------------ servers and modes

@pytest.fixture(scope="module", params=[(s, m) for s in SERVERS
                                        for m in MODES],
                ids=lambda p: "%s-%s" % p)
def server(request, start_server):
    """One server per server kind and mode for all the scenarios; each
    scenario works below a folder of its own."""
    kind, mode = request.param
    started = start_server(kind)
    started.passive = (mode == "passive")
    started.variant = kind
    try:
        started.traits = Traits(started)
        yield started
    finally:
        started.stop()


class Traits(object):
    """What the server does with the commands of brindle's that some
    servers do not implement, asked with ftplib when it starts: the reply
    to NOOP, to NLST without an argument, and to PORT (active mode); None
    where the server accepts the command."""

    def __init__(self, server):
        # NLST of an empty folder is refused by some servers: not empty.
        server.make_file("traits/file", b"x")
        with ftplib.FTP() as ftp:
            ftp.connect(server.host, server.port, timeout=10)
            ftp.login(server.user, server.password)
            ftp.cwd("traits")
            self.noop = _refusal(lambda: ftp.voidcmd("NOOP"))
            self.nlst = _refusal(lambda: ftp.nlst())
            ftp.set_pasv(False)
            self.port = _refusal(lambda: ftp.retrlines("LIST", lambda _: 0))
        server.wait_idle()


def _refusal(call):
    try:
        call()
    except ftplib.error_perm as e:
        return str(e)
    return None


@pytest.fixture
def report(server, record_property):
    """Records the server, the mode and the server's version for the
    compatibility document; returns record_property."""
    record_server(server, record_property)
    return record_property


def record_server(server, record_property):
    record_property("server", server.variant)
    record_property("mode", server.mode)
    record_property("title", server.title)
    record_property("column", server.column)
    record_property("format_note", server.format_note)
    record_property("expect", server.expect)
    record_property("version", server_version(server))
    record_property("machine", machine())


_machine = []


def commit():
    """The commit of the checkout that the tests come from, "plus changes"
    when its src/ or tests/ differ from it; "unknown" outside git. A copy
    of the checkout without git (a Debian root) is told it by
    $BRINDLE_COMMIT."""
    if os.environ.get("BRINDLE_COMMIT"):
        return os.environ["BRINDLE_COMMIT"]
    here = os.path.dirname(os.path.abspath(__file__))
    try:
        head = subprocess.run(
            ["git", "-C", here, "rev-parse", "--short=12", "HEAD"],
            capture_output=True, text=True, check=True).stdout.strip()
        changed = subprocess.run(
            ["git", "-C", here, "status", "--porcelain", "--", "../../src",
             "../../tests"],
            capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"
    return head + (" plus changes" if changed else "")


def machine():
    """What the run ran on, one fact a line."""
    if not _machine:
        uname = os.uname()
        try:
            with open("/etc/debian_version") as f:
                debian = "Debian " + f.read().strip()
        except OSError:
            debian = "not Debian"
        _machine.append("\n".join([
            "System: %s %s %s, %s, %d CPUs" % (
                uname.sysname, uname.release, uname.machine, debian,
                os.cpu_count()),
            "libcurl: %s (Debian package %s)" % (libcurl.VERSION_TEXT,
                                                  libcurl.package()),
            "Commit: %s" % commit(),
        ]))
    return _machine[0]


_versions = {}


def server_version(server):
    if server.kind not in _versions:
        _versions[server.kind] = server.version()
    return _versions[server.kind]


# ------------------------------------------------------------------ helpers

def dialect(server):
    return server.dialect(server)


def run(brindle, server, *args):
    return brindle.run(*args, *server.args(), timeout=TIMEOUT)


def ok(result, stdout=b""):
    assert_ok(result, stdout)


def failed(result, message, record_property=None, stdout=b"", why=None):
    """brindle failed with exactly this message and status 1; the message
    and the reason are recorded for the compatibility document."""
    if record_property is not None:
        record_property("brindle_failure", message)
        if why is not None:
            record_property("why", why)
    assert_failed(result, message, stdout)


class Failure(Exception):
    """An expected failure of brindle: its message and why it happens."""

    def __init__(self, message, why, sent=False):
        Exception.__init__(self, message)
        self.message = message
        self.why = why
        # Whether the failing request reached the server (a listing whose
        # answer brindle rejects) or failed before it was sent.
        self.sent = sent


def expect(result, expected, record_property, stdout=b""):
    """Asserts the outcome: success with stdout when expected is None,
    else the Failure's message (and whatever stdout brindle printed
    before it)."""
    if expected is None:
        ok(result, stdout)
    else:
        failed(result, expected.message, record_property, stdout,
               expected.why)


def served_tree(server, base):
    """snapshot() of one folder of the server, keyed below that folder."""
    return snapshot(server.path(base.strip("/")))


def served_path(server, remote):
    return server.path(remote.strip("/"))


def request_url(server, remote):
    """The URL of brindle's request for a remote path, as its failure
    messages show it: each path element percent-encoded but for the
    unreserved characters."""
    return server.url("/".join(urllib.parse.quote(element, safe="~")
                               for element in remote.split("/")))


def active_failure(server, remote, curl_args, probe=None):
    """The Failure of a request for a remote path that needs a data
    connection, in active mode, on a server that refuses PORT; None
    otherwise.  libcurl's text comes from curl making the same request
    (or a listing of probe instead, for an upload)."""
    if server.passive or server.traits.port is None:
        return None
    if probe is None:
        text = curl_says(server, remote, *curl_args)
    else:
        text = curl_says(server, probe, "-X", "LIST")
    return Failure("Unable to perform request for '%s': %s" % (
        request_url(server, remote), text),
        "the server does not implement active mode (it answers PORT with "
        "`%s`, and EPRT likewise), so every transfer and listing fails; "
        "use passive mode (the default)" % server.traits.port)


def listing_failure(server, directory):
    """The Failure of brindle's listing of a remote directory (LIST of
    DIR/.), or None: active mode refused, or a line the LIST pattern
    rejects."""
    remote = directory.rstrip("/") + "/."
    refused = active_failure(server, remote, ["-X", "LIST"])
    if refused is not None:
        return refused
    for line in dialect(server).list_lines(served_path(server, directory)):
        if not LIST_PATTERN.fullmatch(line):
            return Failure("Unable to parse FTP LIST output '%s'" % line,
                           server.why_rejected, sent=True)
    return None


def make_sample(server, base):
    """The sample tree below base: nested directories, binary, empty and
    big files, a name with a blank and a "#", a symbolic link and a fifo.
    Old and recent mtimes, so that both date forms are listed."""
    recent = time.time() - RECENT_AGE
    server.make_file(base + "/a.txt", b"alpha\n", mtime=OLD)
    server.make_file(base + "/all-bytes.bin", BINARY, mtime=OLD)
    server.make_file(base + "/empty", b"", mtime=recent)
    server.make_file(base + "/big.bin", BIG, mtime=OLD)
    server.make_file(base + "/" + ODD_NAME, b"blank and hash\n",
                     mtime=recent)
    server.make_file(base + "/nested/deeper/z.txt", b"zed", mtime=OLD)
    server.make_dir(base + "/nested/hollow", mtime=OLD)
    server.make_symlink(base + "/link", "a.txt", mtime=OLD)
    server.make_fifo(base.strip("/") + "/fifo", mtime=OLD)
    os.utime(str(server.path(base + "/nested/deeper")), (OLD, OLD))
    os.utime(str(server.path(base + "/nested")), (OLD, OLD))
    os.utime(str(server.path(base)), (OLD, OLD))


def record_samples(record_property, server, directory):
    """Sample LIST lines exactly as the server sent them in ASCII mode, as
    libcurl asks for them (raw bytes, line ends included), for the
    compatibility document."""
    # Lines end at LF only: a CR before it is part of the line end shown.
    for line in re.findall(rb"[^\n]*\n|[^\n]+$", raw_answer(server,
                                                            directory)):
        record_property("list_line", repr(line)[1:])


def test_server_refuses_what_its_module_says(server, report):
    # The module's notes and the expected outcomes below rest on this.
    refused = {name for name, reply in [("NOOP", server.traits.noop),
                                        ("NLST", server.traits.nlst),
                                        ("PORT", server.traits.port)]
               if reply is not None}
    assert refused == server.refuses, vars(server.traits)


# ---------------------------------------------------------------- list

@pytest.fixture(scope="module")
def listed(server):
    """The served folder that the list scenarios look at."""
    make_sample(server, "list")
    return server.path("list")


def test_list_contents_short(brindle, server, listed, report):
    log = Commands(server)
    result = run(brindle, server, "--list", "--remote-path", "/list/.")
    sent = log.since()

    expected = active_failure(server, "/list/.", ["--list-only", "-X",
                                                  "NLST"])
    if expected is None and server.traits.nlst is not None:
        expected = Failure(
            "Unable to perform request for '%s': %s" % (
                request_url(server, "/list/."), curl_says(
                    server, "/list/.", "--list-only", "-X", "NLST")),
            "the server answers NLST without an argument with `%s`; "
            "`--long-listing` (LIST) works" % server.traits.nlst)
    model = dialect(server)
    expect(result, expected, report, model.nlst_text(listed).encode(
        "utf-8", "surrogateescape") if expected is None else b"")
    assert [c for c, _ in sent if c in ("LIST", "NLST")] == (
        ["NLST"] if server.traits.port is None or server.passive else [])


def test_list_contents_long(brindle, server, listed, report):
    model = dialect(server)
    # The model of the server's own answer: the exact bytes it sends.
    assert raw_answer(server, "/list") == model.list_body(listed)
    log = Commands(server)
    result = run(brindle, server, "--list", "--remote-path", "/list/.",
                 "--long-listing")
    sent = log.since()

    expected = active_failure(server, "/list/.", ["-X", "LIST"])
    expect(result, expected, report, model.list_text(listed).encode(
        "utf-8", "surrogateescape") if expected is None else b"")
    assert [c for c, _ in sent if c in ("LIST", "NLST")] == (
        ["LIST"] if expected is None else [])
    record_samples(report, server, "/list")


ENTRIES = ["a.txt", "nested", "link", ODD_NAME, "fifo"]


def test_list_entry_short(brindle, server, listed, report):
    model = dialect(server)
    for name in ENTRIES:
        result = run(brindle, server, "--list", "--remote-path",
                     "/list/" + name)
        expected = listing_failure(server, "/list")
        if expected is None and not model.visible(listed / name):
            expected = Failure("Unable to find remote path '/list/%s'" % name,
                               server.why_unlisted)
        expect(result, expected, report,
               name.encode() + b"\n" if expected is None else b"")


def test_list_entry_long(brindle, server, listed, report):
    model = dialect(server)
    for name in ["a.txt", "nested", "link", ODD_NAME, "empty"]:
        result = run(brindle, server, "--list", "--remote-path",
                     "/list/" + name, "--long-listing")
        expected = listing_failure(server, "/list")
        line = b""
        if expected is None:
            line = model.line(listed / name).encode() + b"\n"
        expect(result, expected, report, line)


# ------------------------------------------------------------ download

def expected_download(server, remote_dir, local_rel, follow):
    """Walks the served tree as brindle must: (stdout, local snapshot,
    LIST and RETR requests in order, the expected Failure or None)."""
    model = dialect(server)
    out, tree, requests = [], {}, []

    def listing(remote):
        failure = listing_failure(server, remote)
        if failure is not None and failure.sent:
            requests.append(("LIST", remote))
        if failure is not None:
            raise failure
        requests.append(("LIST", remote))

    def walk(served, remote, local):
        listing(remote)
        for path in model.list_entries(served):
            if path.name in (".", ".."):
                # brindle passes over a listing's own "." and "..".
                continue
            r, l = remote + "/" + path.name, local + "/" + path.name
            walk_entry(path, r, l)

    def walk_entry(path, remote, local):
        kind = model.kind_of(path)
        if kind == "link":
            if not follow:
                out.append(skip_line(remote, "symbolic links aren't allowed"))
                return
            target = posixpath.join(posixpath.dirname(remote),
                                    os.readlink(str(path)))
            listing(posixpath.dirname(target))
            walk_entry(path.parent / os.readlink(str(path)), target, local)
        elif kind == "dir":
            tree[local] = DIR
            walk(path, remote, local)
        elif kind == "file":
            # brindle makes the local file before it asks for the data.
            tree[local] = b""
            refused = model.refuses_retr(path)
            if refused:
                raise Failure(
                    "Unable to perform request for '%s': %s" % (
                        request_url(server, remote),
                        curl_says(server, remote)), refused)
            refused = active_failure(server, remote, [])
            if refused is not None:
                raise refused
            tree[local] = path.read_bytes()
            requests.append(("RETR", remote))
        else:
            out.append(skip_line(remote, "unsupported file type"))

    try:
        listing(posixpath.dirname(remote_dir))
        tree[local_rel] = DIR
        walk(served_path(server, remote_dir), remote_dir, local_rel)
    except Failure as failure:
        return b"".join(out), tree, requests, failure
    return b"".join(out), tree, requests, None


@pytest.fixture(scope="module")
def download_source(server):
    make_sample(server, "dl/tree")
    return "/dl/tree"


@pytest.mark.parametrize("follow", [False, True],
                         ids=["links-skipped", "links-followed"])
def test_download_tree(brindle, server, download_source, local_account,
                       report, follow):
    local_account.chown(brindle.workdir)
    flags = ["--follow-symlinks"] if follow else []
    log = Commands(server)
    result = run(brindle, server, "--download", "--local-user",
                 local_account.name, "--remote-path", download_source,
                 "--local-path", "out", "--recursive", *flags)
    sent = log.since()

    stdout, tree, requests, failure = expected_download(
        server, download_source, "out", follow)
    expect(result, failure, report, stdout)
    assert snapshot(brindle.workdir) == tree
    assert resolved(sent, "LIST", "RETR",
                    login_dir=server.login_dir) == requests
    if failure is None:
        # The expectation comes from the served files: make sure they are
        # the sample's bytes, so the comparison above is about them.
        assert (tree["out/all-bytes.bin"], tree["out/big.bin"]) == (BINARY,
                                                                    BIG)


# -------------------------------------------------------------- upload

def make_local_sample(brindle, account):
    """The local tree to upload: like the served sample, without a fifo
    (reading one would wait for a writer)."""
    base = brindle.workdir / "up"
    files = {"a.txt": b"alpha\n", "all-bytes.bin": BINARY, "empty": b"",
             "big.bin": BIG, ODD_NAME: b"blank and hash\n",
             "nested/deeper/z.txt": b"zed"}
    for rel, data in files.items():
        path = base / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
    (base / "nested/hollow").mkdir()
    os.symlink("a.txt", str(base / "link"))
    for dirpath, dirnames, filenames in os.walk(str(base)):
        account.chown(dirpath)
        for name in dirnames + filenames:
            account.chown(os.path.join(dirpath, name))
    return base


def expected_upload(server, local, remote, follow):
    """Walks the local tree as brindle must, in the file system's order:
    (stdout, served snapshot, STOR requests in order, MKD requests, the
    expected Failure or None).  A server without active mode makes the
    missing folders of the first file (libcurl makes them before the
    data connection) and refuses its data connection."""
    out, tree, stores, made = [], {}, [], []

    def walk(path, remote_path, rel):
        if path.is_symlink():
            if not follow:
                out.append(skip_line(str(path),
                                     "symbolic links aren't allowed"))
                return
            path = path.resolve()
        if path.is_dir():
            for entry in os.scandir(str(path)):
                walk(path / entry.name, remote_path + "/" + entry.name,
                     rel + "/" + entry.name)
        else:
            parent = posixpath.dirname(rel)
            while parent and parent not in tree:
                tree[parent] = DIR
                made.append(("MKD", "/" + parent))
                parent = posixpath.dirname(parent)
            # libcurl fails on the data connection's PORT as it does for a
            # listing.
            refused = active_failure(server, remote_path, [], probe="/")
            if refused is not None:
                raise refused
            tree[rel] = path.read_bytes()
            stores.append(("STOR", remote_path))

    try:
        walk(local, remote, remote.strip("/"))
    except Failure as failure:
        return b"".join(out), tree, stores, made, failure
    return b"".join(out), tree, stores, made, None


@pytest.mark.parametrize("follow", [False, True],
                         ids=["links-skipped", "links-followed"])
def test_upload_tree(brindle, server, local_account, report, follow):
    local = make_local_sample(brindle, local_account)
    remote = "/ul-%s" % ("followed" if follow else "skipped")
    flags = ["--follow-symlinks"] if follow else []
    log = Commands(server)
    result = run(brindle, server, "--upload", "--local-user",
                 local_account.name, "--local-path", str(local),
                 "--remote-path", remote, "--recursive", *flags)
    commands = log.since()

    stdout, tree, stores, made, failure = expected_upload(server, local,
                                                          remote, follow)
    expect(result, failure, report, stdout)
    served = {k: v for k, v in snapshot(server.root).items()
              if k == remote[1:] or k.startswith(remote[1:] + "/")}
    assert served == tree
    assert resolved(commands, "STOR", login_dir=server.login_dir) == (
        stores if failure is None else [])
    # Every missing directory is made once, by the first file inside it.
    assert sorted(resolved(commands, "MKD",
                           login_dir=server.login_dir)) == sorted(made)
    # Stored as the account the server works as.
    owners = {os.lstat(str(server.path(k))).st_uid for k in served}
    assert owners == {server.writes_as}


# -------------------------------------------------------------- remove

REFUSAL_WHY = ("the server leaves the fifo out of LIST, so brindle sends "
               "no DELE for it and the server refuses the RMD of the "
               "directory that still holds it; the DELEs before that RMD "
               "took effect")


def refusal(server, code=550):
    """brindle's message when the server refuses one of the removal's
    commands (the request addresses the login directory)."""
    return ("Unable to perform request for '%s': QUOT command failed with %d"
            % (server.url("/")[:-1], code))


def expected_removal(server, remote):
    """The NOOP, DELE and RMD commands brindle must send for a served
    tree, and the commands the server accepts before it refuses one: a
    directory holding something its LIST does not show (Pure-FTPd's
    fifos) cannot be removed."""
    model = dialect(server)
    commands = [("NOOP", "")]

    def walk(path, remote_path):
        if model.kind_of(path) == "dir":
            for child in model.list_entries(path):
                if model.entry_name(child) in (".", ".."):
                    continue
                walk(child, remote_path + "/" + child.name)
            commands.append(("RMD", remote_path))
        else:
            commands.append(("DELE", remote_path))

    walk(server.path(remote.strip("/")), remote)
    # The first RMD of a directory that still holds an unlisted entry
    # fails; libcurl sends nothing after it.
    accepted = []
    for command, path in commands:
        accepted.append((command, path))
        if command == "RMD":
            served = server.path(path.strip("/"))
            hidden = [n for n in os.listdir(str(served))
                      if not model.visible(served / n)]
            if hidden:
                return commands, accepted, path
    return commands, accepted, None


def removal_lookup_failure(server, remote):
    """The Failure of the walk before anything is deleted, or None."""
    model = dialect(server)

    def walk(directory):
        failure = listing_failure(server, directory)
        if failure is not None:
            return failure
        for child in model.list_entries(served_path(server, directory)):
            if model.entry_name(child) in (".", ".."):
                continue
            if model.kind_of(child) == "dir":
                failure = walk(directory + "/" + child.name)
                if failure is not None:
                    return failure
        return None

    return listing_failure(server, posixpath.dirname(remote)) or walk(remote)


@pytest.fixture(scope="module")
def removal_source(server):
    make_sample(server, "rm/tree")
    server.make_file("rm/keep.txt", b"link target\n", mtime=OLD)
    # A link out of the tree: removing the link leaves its target alone.
    server.make_symlink("rm/tree/nested/out", "../../keep.txt", mtime=OLD)
    return "/rm/tree"


def test_remove_tree(brindle, server, removal_source, report):
    before = served_tree(server, "/rm")
    lookup = removal_lookup_failure(server, removal_source)
    commands, accepted, refused = expected_removal(server, removal_source)
    log = Commands(server)
    result = run(brindle, server, "--remove", "--remote-path",
                 removal_source, "--recursive")
    sent = named(log.since(), "NOOP", "DELE", "RMD")

    if lookup is not None:
        # Nothing is deleted when a listing fails during the walk.
        failed(result, lookup.message, report, why=lookup.why)
        assert sent == []
        assert served_tree(server, "/rm") == before
    elif server.traits.noop is not None:
        # The server refuses the NOOP in front of the commands: nothing
        # after it is sent.
        failed(result, "Unable to perform request for '%s': %s" % (
            server.url("/")[:-1], curl_says(server, "/", "-Q",
                                                  "NOOP")),
            report, why="the server does not implement NOOP (it answers "
            "`%s`), which brindle sends before the removal's DELE and RMD "
            "commands; nothing is deleted. No setting avoids it"
            % server.traits.noop)
        assert sent == [("NOOP", "")]
        assert served_tree(server, "/rm") == before
    elif refused is None:
        # The server's own names for the entries below the login
        # directory.
        assert sent == [(c, server.server_path(p)) for c, p in accepted]
        ok(result)
        assert served_tree(server, "/rm") == {"keep.txt": b"link target\n"}
    else:
        assert sent == [(c, server.server_path(p)) for c, p in accepted]
        # The server refuses to remove a directory that is not empty.
        failed(result, refusal(server), report, why=REFUSAL_WHY)
        left = served_tree(server, "/rm")
        assert left["keep.txt"] == b"link target\n"
        deleted = {p.strip("/")[3:] for c, p in accepted[:-1]}
        assert all(rel not in left for rel in deleted)
        assert refused.strip("/")[3:] in left


# -------------------------------------- configurations with rejected lines

# Server settings that change LIST answers: (server, settings, what they
# do).  The first two produce lines brindle rejects.
VARIANTS = [
    ("proftpd", ('ListOptions "-R" LISTOnly',),
     "recursive LIST: blank lines and \"<dir>:\" headings"),
    ("proftpd", ('ListOptions "-h"',),
     "human-readable sizes such as \"4.0k\""),
    ("proftpd", ('ListOptions "-a"',),
     "LIST shows \".\" and \"..\""),
    ("pureftpd", ("-D",),
     "LIST shows dot files, \".\" and \"..\""),
    ("vsftpd", ("hide_ids=YES", "force_dot_files=YES"),
     "owner and group shown as \"ftp\", dot files listed"),
]


def variant_id(variant):
    kind, options, _ = variant
    text = " ".join(options).replace('"', "").replace("ListOptions ", "")
    return "%s[%s]" % (kind, text.replace(" LISTOnly", "").strip())


def make_variant_sample(server):
    """The sample tree, and a dot file that some settings bring into
    LIST (every setting here shows dot files or fails before they
    matter)."""
    make_sample(server, "v/tree")
    server.make_file("v/tree/.hidden", b"dot file\n", mtime=OLD)
    os.utime(str(server.path("v/tree")), (OLD, OLD))


@pytest.fixture(scope="module",
                params=[(v, m) for v in VARIANTS for m in MODES],
                ids=lambda p: "%s-%s" % (variant_id(p[0]), p[1]))
def variant(request, start_server):
    (kind, options, effect), mode = request.param
    started = start_server(kind, options)
    started.passive = (mode == "passive")
    started.traits = Traits(started)
    started.variant = variant_id(request.param[0])
    started.effect = effect
    started.options = options
    make_variant_sample(started)
    try:
        yield started
    finally:
        started.stop()


@pytest.fixture
def variant_report(variant, record_property):
    record_server(variant, record_property)
    record_property("setting", variant.effect)
    record_property("options", " ".join(variant.options))
    return record_property


def first_rejected(server, directories):
    """The first line that the pattern rejects in the LIST answers of
    these directories, taken in order, as brindle sees it (libcurl turns
    CRLF into LF); None if all lines parse."""
    for directory in directories:
        lines = [l.rstrip(b"\r\n").decode("utf-8", "surrogateescape")
                 for l in raw_list_lines(server, directory)]
        for line in lines:
            if not LIST_PATTERN.fullmatch(line):
                return line
    return None


def rejected_or_ok(result, server, directories, record_property, stdout=b""):
    """Asserts the outcome the server's LIST answers call for; True if
    brindle was expected to succeed."""
    line = first_rejected(server, directories)
    if line is None:
        ok(result, stdout)
        return True
    record_property("rejected_line", line)
    failed(result, "Unable to parse FTP LIST output '%s'" % line,
           record_property, why="the LIST pattern rejects this line")
    return False


def test_variant_list_contents_long(brindle, variant, variant_report):
    # Listing a directory's contents passes any answer through unparsed.
    result = run(brindle, variant, "--list", "--remote-path", "/v/tree/.",
                 "--long-listing")
    expected = b"".join(l.rstrip(b"\r\n") + b"\n"
                        for l in raw_list_lines(variant, "/v/tree"))
    ok(result, expected)
    record_samples(variant_report, variant, "/v/tree")


def test_variant_list_entry_long(brindle, variant, variant_report):
    result = run(brindle, variant, "--list", "--remote-path", "/v/tree/a.txt",
                 "--long-listing")
    # The line as this configuration writes it.
    lines = [l.rstrip(b"\r\n") for l in raw_list_lines(variant, "/v/tree")]
    line = [l for l in lines
            if l.endswith(b" a.txt") and not l.startswith(b"l")]
    assert len(line) == 1, lines
    rejected_or_ok(result, variant, ["/v/tree"], variant_report,
                   line[0] + b"\n")


def test_variant_download_tree(brindle, variant, local_account,
                               variant_report):
    local_account.chown(brindle.workdir)
    result = run(brindle, variant, "--download", "--local-user",
                 local_account.name, "--remote-path", "/v/tree",
                 "--local-path", "out", "--recursive")
    # brindle lists the parent first, then the tree, depth first.
    directories = ["/v", "/v/tree", "/v/tree/nested",
                   "/v/tree/nested/deeper", "/v/tree/nested/hollow"]
    stdout, tree, _, _ = expected_download(variant, "/v/tree", "out", False)
    if rejected_or_ok(result, variant, directories, variant_report, stdout):
        assert snapshot(brindle.workdir) == tree
    else:
        # The top entry is looked up in /v: nothing was made locally.
        assert snapshot(brindle.workdir) == {}


def test_variant_remove_tree(brindle, variant, variant_report):
    before = served_tree(variant, "/v")
    directories = ["/v", "/v/tree", "/v/tree/nested",
                   "/v/tree/nested/deeper", "/v/tree/nested/hollow"]
    line = first_rejected(variant, directories)
    commands, accepted, refused = expected_removal(variant, "/v/tree")
    log = Commands(variant)
    result = run(brindle, variant, "--remove", "--remote-path", "/v/tree",
                 "--recursive")
    sent = named(log.since(), "NOOP", "DELE", "RMD")
    if line is not None:
        rejected_or_ok(result, variant, directories, variant_report)
        # Nothing is deleted when a listing fails during the walk.
        assert sent == []
        assert served_tree(variant, "/v") == before
        return
    # "." and ".." are passed over, the rest goes as without the setting.
    assert sent == accepted
    if refused is None:
        ok(result)
        assert served_tree(variant, "/v") == {}
    else:
        failed(result, refusal(variant), variant_report, why=REFUSAL_WHY)
