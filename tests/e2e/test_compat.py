"""The compatibility matrix: the same scenarios against every server that
brindle is tested with (the scripted pyftpdlib server, vsftpd, ProFTPD and
Pure-FTPd, and vsftpd and ProFTPD without chroot), each in passive and in
active mode.

The servers without chroot log the account in to the temporary root by its
machine path: the scenarios' remote paths are relative to that login
directory, while the paths the server logs in DELE and RMD, or reaches
with an absolute CWD, are the machine's own.

Every server formats its listings its own way: owners as names or numbers,
days padded with a zero or a blank, sorted or in directory order, with or
without fifos, "." and "..".  The expectations are built from the files
the server really has (os.lstat, the directory's own order) through a
small model of each server's format (Dialect), so the tests say exactly
what each server sends and what brindle makes of it.

Some server settings make LIST lines that brindle's LIST pattern rejects;
for those configurations the expected outcome is the exact "Unable to
parse FTP LIST output '<line>'" failure (see the test_variant_* tests at
the end).

Each test records what scripts/compatibility.py needs for
docs/compatibility.md as junit properties: the server and mode, the
server's version, brindle's failure message where one is expected, and
sample LIST lines.
"""

import ftplib
import grp
import os
import posixpath
import pwd
import re
import stat
import subprocess
import time

import pytest

import ftptest
import libcurl
from ftptest import DIR, named, snapshot

SERVERS = ["scripted", "vsftpd", "proftpd", "pureftpd", "vsftpd-nochroot",
           "proftpd-nochroot"]
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
        yield started
    finally:
        started.stop()


@pytest.fixture
def report(server, record_property):
    """Records the server, the mode and the server's version for the
    compatibility document; returns record_property."""
    record_server(server, record_property)
    return record_property


def record_server(server, record_property):
    record_property("server", server.variant)
    record_property("mode", server.mode)
    record_property("version", server_version(server))
    record_property("machine", machine())


_machine = []


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
        ]))
    return _machine[0]


_versions = {}


def server_version(server):
    if server.kind not in _versions:
        if server.kind == "scripted":
            out = subprocess.run(
                [ftptest.SYSTEM_PYTHON, "-c",
                 "import pyftpdlib; print(pyftpdlib.__ver__)"],
                stdout=subprocess.PIPE).stdout.decode().strip()
            _versions[server.kind] = "pyftpdlib " + out
        elif isinstance(server, ftptest.VsftpdServer):
            out = subprocess.run(
                ["dpkg-query", "-W", "-f", "${Version}", "vsftpd"],
                stdout=subprocess.PIPE).stdout.decode().strip()
            _versions[server.kind] = "vsftpd " + out
        else:
            _versions[server.kind] = server.version()
    return _versions[server.kind]


# ------------------------------------------------------ each server's LIST

MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
HALF_YEAR = 180 * 86400


def mode_string(st):
    kinds = {stat.S_IFDIR: "d", stat.S_IFLNK: "l", stat.S_IFIFO: "p",
             stat.S_IFREG: "-", stat.S_IFSOCK: "s", stat.S_IFCHR: "c",
             stat.S_IFBLK: "b"}
    perms = ""
    for who in range(3):
        bits = (st.st_mode >> (6 - 3 * who)) & 7
        perms += ("r" if bits & 4 else "-") + ("w" if bits & 2 else "-") + \
            ("x" if bits & 1 else "-")
    return kinds[stat.S_IFMT(st.st_mode)] + perms


class Dialect(object):
    """How one server writes LIST and NLST answers, as a function of the
    served files."""

    # LIST line: link count, owner, group and size widths.
    widths = None
    zero_padded_day = False
    gmt = True
    sorted_list = True
    sorted_nlst = True
    lists_fifos = True
    nlst_dots = False

    def __init__(self, server):
        self.server = server

    def owner(self, st):
        return str(st.st_uid)

    def group(self, st):
        return str(st.st_gid)

    def date(self, mtime):
        t = time.gmtime(mtime) if self.gmt else time.localtime(mtime)
        day = ("%02d" if self.zero_padded_day else "%2d") % t.tm_mday
        if 0 <= time.time() - mtime < HALF_YEAR:
            return "%s %s %02d:%02d" % (MONTHS[t.tm_mon - 1], day, t.tm_hour,
                                        t.tm_min)
        return "%s %s  %d" % (MONTHS[t.tm_mon - 1], day, t.tm_year)

    def line(self, path):
        """The LIST line of one served path."""
        st = os.lstat(str(path))
        links, owner, group, size = self.widths
        name = path.name
        if stat.S_ISLNK(st.st_mode):
            name += " -> " + os.readlink(str(path))
        return "%s %*d %-*s %-*s %*d %s %s" % (
            mode_string(st), links, st.st_nlink, owner, self.owner(st),
            group, self.group(st), size, st.st_size, self.date(st.st_mtime),
            name)

    def visible(self, path):
        mode = os.lstat(str(path)).st_mode
        return self.lists_fifos or not stat.S_ISFIFO(mode)

    def list_entries(self, directory):
        """The paths that LIST shows for a served directory, in its order."""
        names = directory_order(directory)
        if self.sorted_list:
            names = sorted(names)
        return [directory / n for n in names if self.visible(directory / n)]

    def list_text(self, directory):
        return "".join(self.line(p) + "\n" for p in
                       self.list_entries(directory))

    def nlst_names(self, directory):
        if self.nlst_dots:
            return directory_order(directory, dots=True)
        names = directory_order(directory)
        return sorted(names) if self.sorted_nlst else names


def directory_order(directory, dots=False):
    """Names in the order the file system hands them out (what a server
    that does not sort shows), optionally with "." and ".." where they
    come."""
    done = subprocess.run(["ls", "-f", str(directory)],
                          stdout=subprocess.PIPE, check=True,
                          env={"LC_ALL": "C", "PATH": os.defpath})
    names = done.stdout.decode("utf-8", "surrogateescape").splitlines()
    return names if dots else [n for n in names if n not in (".", "..")]


class ScriptedDialect(Dialect):
    # pyftpdlib: names from the password and group files, "Jan 01".
    widths = (3, 8, 8, 8)
    zero_padded_day = True

    def owner(self, st):
        try:
            return pwd.getpwuid(st.st_uid).pw_name
        except KeyError:
            return str(st.st_uid)

    def group(self, st):
        try:
            return grp.getgrgid(st.st_gid).gr_name
        except KeyError:
            return str(st.st_gid)


class VsftpdDialect(Dialect):
    # vsftpd: numeric owner and group, "Jan 01".
    widths = (4, 8, 8, 8)
    zero_padded_day = True


class ProftpdDialect(Dialect):
    # ProFTPD: names from its own user and group files (numbers for
    # others), "Jan  1", NLST in directory order.
    widths = (3, 8, 8, 8)
    sorted_nlst = False

    def owner(self, st):
        account = self.server.account
        return account.name if st.st_uid == account.uid else str(st.st_uid)

    def group(self, st):
        account = self.server.account
        if st.st_gid == account.gid:
            return grp.getgrgid(account.gid).gr_name
        return str(st.st_gid)


class PureftpdDialect(Dialect):
    # Pure-FTPd: numeric owner but the login group's name (cut to 10
    # characters), local time, no fifos in LIST, and an NLST in directory
    # order that includes "." and "..".
    widths = (4, 10, 10, 10)
    gmt = False
    lists_fifos = False
    nlst_dots = True

    def group(self, st):
        account = self.server.account
        if st.st_gid == account.gid:
            return grp.getgrgid(account.gid).gr_name[:10]
        return str(st.st_gid)


DIALECTS = {"scripted": ScriptedDialect, "vsftpd": VsftpdDialect,
            "vsftpd-nochroot": VsftpdDialect,
            "proftpd-nochroot": ProftpdDialect,
            "proftpd": ProftpdDialect, "pureftpd": PureftpdDialect}


def dialect(server):
    return DIALECTS[server.kind](server)


# ------------------------------------------------------------------ helpers

class Commands(object):
    """The commands a server receives from here on."""

    def __init__(self, server):
        self.server = server
        settle(server)
        self.start = len(server.commands())

    def since(self):
        settle(self.server)
        return self.server.commands()[self.start:]


def settle(server):
    """Wait until the server has logged everything of finished sessions."""
    wait = getattr(server, "wait_idle", None)
    if wait is not None:
        wait()


def resolved(commands, *names, login_dir="/"):
    """(command, path) for the named commands, following the client's CWDs
    from the login directory; each path is absolute and relative to the
    login directory (a path outside it stays the server's own)."""
    cwd = before = login_dir
    found = []
    last = None
    for command, arg in commands:
        if command == "MKD" and last == ("CWD", arg):
            # libcurl makes a directory after it failed to enter it.
            cwd = before
        if command == "USER":
            cwd = login_dir
        elif command == "CWD":
            before = cwd
            cwd = posixpath.normpath(posixpath.join(cwd, arg))
        last = (command, arg)
        if command in names:
            path = posixpath.normpath(posixpath.join(cwd, arg or "."))
            found.append((command, login_relative(path, login_dir)))
    return found


def login_relative(path, login_dir):
    """A server's absolute path as a path relative to login_dir."""
    base = login_dir.rstrip("/")
    if not base:
        return path
    if path == base:
        return "/"
    if path.startswith(base + "/"):
        return path[len(base):]
    return path


def run(brindle, server, *args):
    return brindle.run(*args, *server.args(), timeout=TIMEOUT)


def ok(result, stdout=b""):
    assert (result.status, result.stdout, result.stderr) == (0, stdout, b""), \
        result


def failed(result, message, record_property=None, stdout=b"", why=None):
    """brindle failed with exactly this message and status 1; the message
    and the reason are recorded for the compatibility document."""
    if record_property is not None:
        record_property("brindle_failure", message)
        if why is not None:
            record_property("why", why)
    assert (result.status, result.stdout, result.stderr) == (
        1, stdout, message.encode("utf-8", "surrogateescape") + b"\n"), result


def skip_line(path, reason):
    quoted = path.replace("\\", "\\\\").replace('"', '\\"')
    return ("skip '\"%s\"': %s\n" % (quoted, reason)).encode()


def served_tree(server, base):
    """snapshot() of one folder of the server, keyed below that folder."""
    return snapshot(server.path(base.strip("/")))


def make_fifo(server, rel):
    path = server.path(rel)
    os.mkfifo(str(path))
    server._own(path)
    os.utime(str(path), (OLD, OLD), follow_symlinks=False)
    return path


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
    make_fifo(server, base.strip("/") + "/fifo")
    os.utime(str(server.path(base + "/nested/deeper")), (OLD, OLD))
    os.utime(str(server.path(base + "/nested")), (OLD, OLD))
    os.utime(str(server.path(base)), (OLD, OLD))


def record_samples(record_property, server, directory):
    """Sample LIST lines exactly as the server sent them (raw bytes,
    line ends included), for the compatibility document."""
    for line in raw_list_lines(server, directory):
        record_property("list_line", repr(line)[1:])


def raw_list_lines(server, directory):
    chunks = []
    with ftplib.FTP() as ftp:
        ftp.connect(server.host, server.port, timeout=10)
        ftp.login(server.user, server.password)
        ftp.set_pasv(True)
        # Relative to the login directory, as brindle's paths are.
        ftp.cwd(directory.lstrip("/") or ".")
        ftp.retrbinary("LIST", chunks.append)
    return b"".join(chunks).splitlines(keepends=True)


# ---------------------------------------------------------------- list

@pytest.fixture(scope="module")
def listed(server):
    """The served folder that the list scenarios look at."""
    make_sample(server, "list")
    return server.path("list")


def test_list_contents_short(brindle, server, listed, report):
    log = Commands(server)
    result = run(brindle, server, "--list", "--remote-path", "/list/.")

    names = dialect(server).nlst_names(listed)
    ok(result, "".join(n + "\n" for n in names).encode())
    assert [c for c, _ in log.since() if c in ("LIST", "NLST")] == ["NLST"]


def test_list_contents_long(brindle, server, listed, report):
    log = Commands(server)
    result = run(brindle, server, "--list", "--remote-path", "/list/.",
                 "--long-listing")

    ok(result, dialect(server).list_text(listed).encode())
    assert [c for c, _ in log.since() if c in ("LIST", "NLST")] == ["LIST"]
    record_samples(report, server, "/list")


def test_list_entry_short(brindle, server, listed, report):
    model = dialect(server)
    for name in ["a.txt", "nested", "link", ODD_NAME, "fifo"]:
        result = run(brindle, server, "--list", "--remote-path",
                     "/list/" + name)
        if model.visible(listed / name):
            ok(result, name.encode() + b"\n")
        else:
            failed(result, "Unable to find remote path '/list/%s'" % name,
                   report, why="the server leaves the fifo out of LIST")


def test_list_entry_long(brindle, server, listed, report):
    model = dialect(server)
    for name in ["a.txt", "nested", "link", ODD_NAME, "empty"]:
        result = run(brindle, server, "--list", "--remote-path",
                     "/list/" + name, "--long-listing")
        ok(result, model.line(listed / name).encode() + b"\n")


# ------------------------------------------------------------ download

def expected_download(server, remote_dir, local_rel, follow):
    """Walks the served tree as brindle must: (stdout, local snapshot,
    LIST and RETR requests in order)."""
    model = dialect(server)
    out, tree, requests = [], {local_rel: DIR}, []

    def walk(served, remote, local):
        requests.append(("LIST", remote))
        for path in model.list_entries(served):
            r, l = remote + "/" + path.name, local + "/" + path.name
            walk_entry(path, r, l)

    def walk_entry(path, remote, local):
        st = os.lstat(str(path))
        if stat.S_ISLNK(st.st_mode):
            if not follow:
                out.append(skip_line(remote, "symbolic links aren't allowed"))
                return
            target = posixpath.join(posixpath.dirname(remote),
                                    os.readlink(str(path)))
            requests.append(("LIST", posixpath.dirname(target)))
            walk_entry(path.parent / os.readlink(str(path)), target, local)
        elif stat.S_ISDIR(st.st_mode):
            tree[local] = DIR
            walk(path, remote, local)
        elif stat.S_ISREG(st.st_mode):
            tree[local] = path.read_bytes()
            requests.append(("RETR", remote))
        else:
            out.append(skip_line(remote, "unsupported file type"))

    requests.append(("LIST", posixpath.dirname(remote_dir)))
    walk(server.path(remote_dir.strip("/")), remote_dir, local_rel)
    return b"".join(out), tree, requests


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

    stdout, tree, requests = expected_download(server, download_source,
                                               "out", follow)
    ok(result, stdout)
    assert snapshot(brindle.workdir) == tree
    assert resolved(log.since(), "LIST", "RETR",
                    login_dir=server.login_dir) == requests
    # The expectation comes from the served files: make sure they are
    # the sample's bytes, so the comparison above is about them.
    assert (tree["out/all-bytes.bin"], tree["out/big.bin"]) == (BINARY, BIG)


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


def expected_upload(local, remote, follow):
    """Walks the local tree as brindle must, in the file system's order:
    (stdout, served snapshot, STOR requests in order, MKD requests)."""
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
            tree[rel] = path.read_bytes()
            stores.append(("STOR", remote_path))

    walk(local, remote, remote.strip("/"))
    return b"".join(out), tree, stores, made


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

    stdout, tree, stores, made = expected_upload(local, remote, follow)
    ok(result, stdout)
    served = {k: v for k, v in snapshot(server.root).items()
              if k == remote[1:] or k.startswith(remote[1:] + "/")}
    assert served == tree
    commands = log.since()
    assert resolved(commands, "STOR", login_dir=server.login_dir) == stores
    # Every missing directory is made once, by the first file inside it.
    assert sorted(resolved(commands, "MKD",
                           login_dir=server.login_dir)) == sorted(made)
    if server.kind != "scripted":
        # The daemons store as the logged-in account.
        owners = {os.lstat(str(server.path(k))).st_uid for k in served}
        assert owners == {local_account.uid}


# -------------------------------------------------------------- remove

REFUSAL_WHY = ("the server leaves the fifo out of LIST, so brindle sends "
               "no DELE for it and the server refuses the RMD of the "
               "directory that still holds it; the DELEs before that RMD "
               "took effect")


def refusal(server):
    """brindle's message when the server refuses one of the removal's
    commands (the request addresses the login directory)."""
    return ("Unable to perform request for '%s': QUOT command failed with 550"
            % server.url("/")[:-1])


def expected_removal(server, remote):
    """The NOOP, DELE and RMD commands brindle must send for a served
    tree, and the commands the server accepts before it refuses one: a
    directory holding something its LIST does not show (Pure-FTPd's
    fifos) cannot be removed."""
    model = dialect(server)
    commands = [("NOOP", "")]

    def walk(path, remote_path):
        if stat.S_ISDIR(os.lstat(str(path)).st_mode):
            for child in model.list_entries(path):
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


@pytest.fixture(scope="module")
def removal_source(server):
    make_sample(server, "rm/tree")
    server.make_file("rm/keep.txt", b"link target\n", mtime=OLD)
    # A link out of the tree: removing the link leaves its target alone.
    server.make_symlink("rm/tree/nested/out", "../../keep.txt", mtime=OLD)
    return "/rm/tree"


def test_remove_tree(brindle, server, removal_source, report):
    commands, accepted, refused = expected_removal(server, removal_source)
    log = Commands(server)
    result = run(brindle, server, "--remove", "--remote-path",
                 removal_source, "--recursive")

    sent = named(log.since(), "NOOP", "DELE", "RMD")
    # The server's own names for the entries below the login directory.
    assert sent == [(c, server.server_path(p)) for c, p in accepted]
    if refused is None:
        ok(result)
        assert served_tree(server, "/rm") == {"keep.txt": b"link target\n"}
    else:
        # The server refuses to remove a directory that is not empty.
        failed(result, refusal(server), report, why=REFUSAL_WHY)
        left = served_tree(server, "/rm")
        assert left["keep.txt"] == b"link target\n"
        deleted = {p.strip("/")[3:] for c, p in accepted[:-1]}
        assert all(rel not in left for rel in deleted)
        assert refused.strip("/")[3:] in left


# -------------------------------------- configurations with rejected lines

# The LIST pattern brindle parses lines with, for the test's own check of
# which line a server sends that it rejects (Python has no repeated group
# names, so the groups are plain here).
LIST_PATTERN = re.compile(
    r"([-bcCdDlMnpPs?])([-r][-w][-xsS][-r][-w][-xsS][-r][-w][-xsStT])\s+"
    r"(\d+)\s+(\S+)\s+(\S+)\s+(\d+)\s+((\w{3}\s+\d{1,2}\s+\d{1,2}:\d{2})|"
    r"(\w{3}\s+\d{1,2}\s+\d{4}))\s+(.+)"
    r"|(\d{1,4}[\.-]\d{2}[\.-]\d{1,4}\s+\d{1,2}:\d{2}([AP]M)?)\s+"
    r"(([^0-9\s]+)|(\d+))\s+(.+)", re.ASCII | re.DOTALL)

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
    stdout, tree, _ = expected_download(variant, "/v/tree", "out", False)
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
