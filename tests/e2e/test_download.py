"""End-to-end tests of "brindle --download": single files, whole trees,
local path forms, symbolic links, unsupported entry types, failures in the
middle of a walk, DOS-style listings, and listings that try to lead the
walk astray ("." and "..", names with "/" in them).

Every run switches to the throwaway local account, so each test hands its
working directory to that account first.  Every test checks the exit
status, both output channels byte for byte and the whole local tree.
"""

import errno
import os
import posixpath

import pytest

import ftptest
from checks import assert_outcome, skip_line
from ftptest import DIR, snapshot

# A walk that loops would otherwise run until the fixture's own limit.
TIMEOUT = 10


# Binary content that an ASCII-mode transfer or a text stream would change.
BINARY = bytes(range(256)) * 3 + b"\r\n\n\r\x00\x1a\xff\r\n"


# ------------------------------------------------------------------ helpers



def data_requests(server):
    """The LIST and RETR commands the server received, each with the
    absolute directory or file it was about (the client moves with CWD and
    then names things relative to where it is)."""
    cwd = "/"
    requests = []
    for command, arg in server.commands():
        if command == "USER":
            cwd = "/"
        elif command == "CWD":
            cwd = posixpath.normpath(posixpath.join(cwd, arg))
        elif command == "LIST":
            requests.append(
                ("LIST", posixpath.normpath(posixpath.join(cwd, arg or "."))))
        elif command == "RETR":
            requests.append(("RETR", posixpath.join(cwd, arg)))
    return requests


def unix_line(kind, name, size=0):
    """A Unix long-listing line for a scripted LIST answer."""
    modes = {"-": "rw-r--r--", "d": "rwxr-xr-x", "l": "rwxrwxrwx",
             "p": "rw-r--r--", "b": "rw-rw----", "c": "rw-rw----",
             "s": "rwxr-xr-x"}
    return "%s%s 1 owner group %d Jan 01  2020 %s" % (
        kind, modes[kind], size, name)


class Local(object):
    """brindle's side of a test: the working directory, owned by the local
    account, and download runs as that account."""

    def __init__(self, brindle, account):
        self.brindle = brindle
        self.account = account
        self.workdir = brindle.workdir
        account.chown(self.workdir)

    def download(self, server, remote, local, *flags, cwd=None):
        return self.brindle.run(
            "--download", *server.args(), "--local-user", self.account.name,
            "--remote-path", remote, "--local-path", local, *flags,
            cwd=cwd, timeout=TIMEOUT)

    def mkdir(self, rel):
        path = self.workdir / rel
        path.mkdir(parents=True)
        self.account.chown(path)
        return path

    def write(self, rel, data):
        path = self.workdir / rel
        path.write_bytes(data)
        self.account.chown(path)
        return path

    def tree(self):
        return snapshot(self.workdir)


@pytest.fixture
def local(brindle, local_account):
    return Local(brindle, local_account)


@pytest.fixture(params=["scripted", "vsftpd"])
def real_server(request):
    """Each of the two servers in passive mode, serving what is on disk."""
    return request.getfixturevalue(request.param)


def make_tree(server, base):
    """A small tree below base: nested directories, empty directories,
    binary and empty files.  Returns what a download of base to "out"
    must leave in the working directory."""
    server.make_file(base + "/a.txt", b"alpha\n")
    server.make_file(base + "/bin/blob.bin", BINARY)
    server.make_file(base + "/bin/deep/deeper/z.txt", b"zed")
    server.make_dir(base + "/bin/deep/hollow")
    server.make_file(base + "/bin/none", b"")
    server.make_dir(base + "/empty")
    return {
        "out": DIR,
        "out/a.txt": b"alpha\n",
        "out/bin": DIR,
        "out/bin/blob.bin": BINARY,
        "out/bin/deep": DIR,
        "out/bin/deep/deeper": DIR,
        "out/bin/deep/deeper/z.txt": b"zed",
        "out/bin/deep/hollow": DIR,
        "out/bin/none": b"",
        "out/empty": DIR,
    }


# ------------------------------------------------------ files and trees

def test_single_file_to_named_path(any_server, local):
    any_server.make_file("pub/data.bin", BINARY)
    any_server.make_file("pub/other.txt", b"not asked for")

    result = local.download(any_server, "/pub/data.bin", "copy.bin")

    assert_outcome(result, 0)
    assert local.tree() == {"copy.bin": BINARY}


def test_tree_with_nested_and_empty_directories(any_server, local):
    expected = make_tree(any_server, "tree")

    result = local.download(any_server, "/tree", "out", "--recursive")

    assert_outcome(result, 0)
    assert local.tree() == expected
    assert (local.workdir / "out" / "empty").is_dir()
    assert (local.workdir / "out" / "bin" / "deep" / "hollow").is_dir()


def test_directory_without_recursive_is_refused(any_server, local):
    any_server.make_file("d/a.txt", b"a")

    result = local.download(any_server, "/d", "out")

    assert_outcome(result, 1, stderr=b"Unable to download remote directory "
                   b"'/d': recursive operation isn't allowed\n")
    assert local.tree() == {}
    assert [c for c, _ in any_server.commands()].count("RETR") == 0


def test_existing_local_directory_is_reused(scripted, local):
    scripted.make_file("d/new.txt", b"new")
    local.mkdir("out")
    local.write("out/old.txt", b"old")

    result = local.download(scripted, "/d", "out", "--recursive")

    assert_outcome(result, 0)
    assert local.tree() == {"out": DIR, "out/old.txt": b"old",
                            "out/new.txt": b"new"}


# --------------------------------------------------------- local paths

@pytest.mark.parametrize("local_path, landed", [
    (".", "f.txt"),
    ("out/.", "out/f.txt"),
    ("out/sub/..", "out/f.txt"),
])
def test_local_path_naming_a_directory_gets_remote_name(
        scripted, local, local_path, landed):
    scripted.make_file("pub/f.txt", b"content\n")
    before = {}
    if landed.startswith("out/"):
        local.mkdir("out")
        before["out"] = DIR

    result = local.download(scripted, "/pub/f.txt", local_path)

    assert_outcome(result, 0)
    assert local.tree() == dict(before, **{landed: b"content\n"})


@pytest.mark.parametrize("existing", [True, False],
                         ids=["existing-dir", "missing-dir"])
def test_local_path_ending_in_slash_is_taken_as_file_name(
        scripted, local, existing):
    scripted.make_file("f.txt", b"content\n")
    if existing:
        local.mkdir("out")

    result = local.download(scripted, "/f.txt", "out/")

    reason = os.strerror(errno.EISDIR)
    assert_outcome(result, 1, stderr=(
        "Unable to open 'out/' for writing: %s\n" % reason).encode())
    assert local.tree() == ({"out": DIR} if existing else {})


def test_existing_local_file_is_truncated(scripted, local):
    scripted.make_file("f.txt", b"short")
    local.write("out.txt", b"a much longer old content " * 40)

    result = local.download(scripted, "/f.txt", "out.txt")

    assert_outcome(result, 0)
    assert local.tree() == {"out.txt": b"short"}


# ------------------------------------------------------- symbolic links

def test_symlink_skipped_without_follow_symlinks(real_server, local):
    real_server.make_file("f.txt", b"target")
    real_server.make_symlink("l", "f.txt")

    result = local.download(real_server, "/l", "out")

    assert_outcome(result, 0, stdout=skip_line(
        b"/l", "symbolic links aren't allowed"))
    assert local.tree() == {}


def test_symlinks_in_tree_skipped_without_follow_symlinks(real_server, local):
    real_server.make_file("t/a.txt", b"a")
    real_server.make_symlink("t/link", "a.txt")
    real_server.make_symlink("t/linkdir", "sub")
    real_server.make_file("t/sub/b.txt", b"b")
    real_server.make_file("t/z.txt", b"z")

    result = local.download(real_server, "/t", "out", "--recursive")

    assert_outcome(result, 0, stdout=(
        skip_line(b"/t/link", "symbolic links aren't allowed") +
        skip_line(b"/t/linkdir", "symbolic links aren't allowed")))
    assert local.tree() == {"out": DIR, "out/a.txt": b"a", "out/sub": DIR,
                            "out/sub/b.txt": b"b", "out/z.txt": b"z"}


def test_symlink_to_file_followed(real_server, local):
    real_server.make_file("data/f.bin", BINARY)
    real_server.make_symlink("l", "data/f.bin")

    result = local.download(real_server, "/l", "copy", "--follow-symlinks")

    assert_outcome(result, 0)
    assert local.tree() == {"copy": BINARY}


def test_symlink_to_directory_followed_without_recursive(real_server, local):
    expected = make_tree(real_server, "tree")
    real_server.make_symlink("ld", "tree")

    result = local.download(real_server, "/ld", "mirror", "--follow-symlinks")

    assert_outcome(result, 0)
    assert local.tree() == {
        "mirror" + rel[len("out"):]: value for rel, value in expected.items()}


def test_symlink_to_dot_is_unresolvable(real_server, local):
    real_server.make_file("dir/f.txt", b"f")
    real_server.make_symlink("dir/l", ".")

    result = local.download(real_server, "/dir/l", "out", "--follow-symlinks")

    assert_outcome(result, 0, stdout=skip_line(
        b"/dir/l", "unable to resolve symbolic link"))
    assert local.tree() == {}


def test_symlink_climbing_above_its_directory_is_invalid(real_server, local):
    real_server.make_file("x", b"x")
    real_server.make_file("dir/f.txt", b"f")
    real_server.make_symlink("dir/l", "../x")

    result = local.download(real_server, "/dir/l", "out", "--follow-symlinks")

    assert_outcome(result, 1, stderr=b"Invalid path '../x'\n")
    assert local.tree() == {}


# ------------------------------------------- links below a login directory

# On a server that does not chroot, an absolute link target is the server's
# own path. The scripted server's sessions start in /home/u below its root;
# the decoys sit where the target's text would lead if it were taken as a
# path relative to the login directory.

def test_absolute_link_inside_the_login_directory_followed(scripted, local):
    scripted.script({"login_dir": "/home/u"})
    scripted.make_file("home/u/site/data/f.bin", BINARY)
    scripted.make_symlink("home/u/site/lnk", "/home/u/site/data/f.bin")
    scripted.make_file("home/u/site/tree/a.txt", b"a")
    scripted.make_file("home/u/site/tree/sub/b.txt", b"b")
    scripted.make_symlink("home/u/site/ld", "/home/u/site/tree")
    scripted.make_file("home/u/home/u/site/data/f.bin", b"decoy")
    scripted.make_file("home/u/home/u/site/tree/a.txt", b"decoy")

    first = local.download(scripted, "/site/lnk", "copy", "--follow-symlinks")
    second = local.download(scripted, "site/ld", "mirror",
                            "--follow-symlinks")

    assert_outcome(first, 0)
    assert_outcome(second, 0)
    assert local.tree() == {"copy": BINARY, "mirror": DIR,
                            "mirror/a.txt": b"a", "mirror/sub": DIR,
                            "mirror/sub/b.txt": b"b"}


def test_absolute_link_outside_the_login_directory_is_unresolvable(
        scripted, local):
    scripted.script({"login_dir": "/home/u"})
    scripted.make_symlink("home/u/site/out", "/srv/data.txt")
    scripted.make_symlink("home/u/site/up", "/home")
    scripted.make_file("home/u/site/in.txt", b"in")
    scripted.make_file("srv/data.txt", b"outside")
    scripted.make_file("home/u/srv/data.txt", b"decoy")
    scripted.make_file("home/u/home", b"decoy")

    result = local.download(scripted, "/site", "out", "--recursive",
                            "--follow-symlinks")

    assert_outcome(result, 0, stdout=(
        skip_line(b"/site/out", "unable to resolve symbolic link") +
        skip_line(b"/site/up", "unable to resolve symbolic link")))
    assert local.tree() == {"out": DIR, "out/in.txt": b"in"}
    # Nothing was looked up outside the login directory, nor the decoys.
    retrieved = [a for c, a in scripted.commands() if c == "RETR"]
    assert retrieved == ["in.txt"]


@pytest.mark.parametrize("pwd_reply", [
    "550 PWD refused", '257 "QGPL" is the current library.'],
    ids=["pwd-refused", "not-absolute"])
def test_absolute_link_with_unknown_login_directory_is_unresolvable(
        scripted, local, pwd_reply):
    scripted.script({"login_dir": "/home/u", "failures": [
        {"command": "PWD", "reply": pwd_reply}]})
    scripted.make_file("home/u/site/data.txt", b"data")
    scripted.make_symlink("home/u/site/abs", "/home/u/site/data.txt")
    scripted.make_symlink("home/u/site/rel", "data.txt")
    scripted.make_file("home/u/home/u/site/data.txt", b"decoy")

    result = local.download(scripted, "/site", "out", "--recursive",
                            "--follow-symlinks")

    # Which directory "/home/u/..." is relative to cannot be told; a
    # relative target can.
    assert_outcome(result, 0, stdout=skip_line(
        b"/site/abs", "unable to resolve symbolic link"))
    assert local.tree() == {"out": DIR, "out/data.txt": b"data",
                            "out/rel": b"data"}


def test_absolute_link_on_a_chrooted_server_followed_as_it_stands(
        real_server, local):
    real_server.make_file("data/f.bin", BINARY)
    real_server.make_symlink("dir/l", "/data/f.bin")

    result = local.download(real_server, "/dir/l", "copy", "--follow-symlinks")

    assert_outcome(result, 0)
    assert local.tree() == {"copy": BINARY}


# ------------------------------------------------------ unsupported types

def test_fifos_devices_and_sockets_are_skipped(scripted, local):
    scripted.make_file("d/a.txt", b"first")
    scripted.make_file("d/m.txt", b"middle")
    scripted.make_file("d/z.txt", b"last")
    scripted.script({"listings": {"/d": {"lines": [
        unix_line("-", "a.txt", 5),
        unix_line("p", "fifo"),
        unix_line("b", "blockdev"),
        unix_line("-", "m.txt", 6),
        unix_line("c", "chardev"),
        unix_line("s", "socket"),
        unix_line("-", "z.txt", 4),
    ]}}})

    result = local.download(scripted, "/d", "out", "--recursive")

    assert_outcome(result, 0, stdout=(
        skip_line(b"/d/fifo", "unsupported file type") +
        skip_line(b"/d/blockdev", "unsupported file type") +
        skip_line(b"/d/chardev", "unsupported file type") +
        skip_line(b"/d/socket", "unsupported file type")))
    assert local.tree() == {"out": DIR, "out/a.txt": b"first",
                            "out/m.txt": b"middle", "out/z.txt": b"last"}


@pytest.mark.parametrize("kind", ["p", "b", "c", "s"])
def test_unsupported_top_entry_is_skipped(scripted, local, kind):
    scripted.make_file("placeholder", b"")
    scripted.script({"listings": {"/": {"lines": [
        unix_line("-", "placeholder"), unix_line(kind, "odd")]}}})

    result = local.download(scripted, "/odd", "out", "--recursive")

    assert_outcome(result, 0, stdout=skip_line(b"/odd",
                                               "unsupported file type"))
    assert local.tree() == {}


# ------------------------------------------------------------- failures

def test_failure_in_middle_of_tree_keeps_earlier_files(scripted, local):
    scripted.make_file("t/a.txt", b"a" * 1000)
    scripted.make_file("t/b.txt", b"b")
    scripted.make_file("t/c.txt", b"c")
    scripted.make_file("t/d/e.txt", b"e")
    scripted.script({"failures": [
        {"command": "RETR", "arg": "b.txt", "reply": "550 Permission denied."}]})

    result = local.download(scripted, "/t", "out", "--recursive")

    assert_outcome(result, 1, stderr=(
        "Unable to perform request for 'ftp://127.0.0.1:%d/t/b.txt': "
        "RETR response: 550\n" % scripted.port).encode())
    # b.txt is opened before its request is sent, so it stays, empty.
    assert local.tree() == {"out": DIR, "out/a.txt": b"a" * 1000,
                            "out/b.txt": b""}
    retrieved = [p for c, p in data_requests(scripted) if c == "RETR"]
    assert retrieved == ["/t/a.txt", "/t/b.txt"]


def test_unparseable_line_in_subdirectory_listing(scripted, local):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/sub/ok.txt", b"ok")
    scripted.make_file("t/z.txt", b"z")
    scripted.script({"listings": {"/t/sub": {"lines": [
        unix_line("-", "ok.txt", 2),
        "this is no listing line",
    ]}}})

    result = local.download(scripted, "/t", "out", "--recursive")

    assert_outcome(result, 1, stderr=b"Unable to parse FTP LIST output "
                   b"'this is no listing line'\n")
    # The directory is created before its listing is asked for.
    assert local.tree() == {"out": DIR, "out/a.txt": b"a", "out/sub": DIR}


# ------------------------------------------------------- listing styles

def test_dos_style_listings_download_recursively(scripted, local):
    scripted.make_file("dos/file.txt", b"hello world\n")
    scripted.make_file("dos/sub/big file.bin", BINARY)
    scripted.make_file("dos/sub/inner/x.txt", b"x")
    scripted.make_dir("dos/sub/void")
    scripted.script({"listings": {
        "/": {"lines": ["01-15-21  10:30AM       <DIR>          dos"]},
        "/dos": {"lines": [
            "01-15-21  10:30AM       <DIR>          sub",
            "2021-01-15  22:05  12 file.txt",
        ]},
        "/dos/sub": {"lines": [
            "2021-01-15  22:05  %d big file.bin" % len(BINARY),
            "01-16-21  09:00PM       <DIR>          inner",
            "01-16-21  09:01PM       <DIR>          void",
        ]},
        "/dos/sub/inner": {"lines": ["15.01.2021  08:00  1 x.txt"]},
        "/dos/sub/void": {"lines": []},
    }})

    result = local.download(scripted, "/dos", "out", "--recursive")

    assert_outcome(result, 0)
    assert local.tree() == {
        "out": DIR,
        "out/sub": DIR,
        "out/sub/big file.bin": BINARY,
        "out/sub/inner": DIR,
        "out/sub/inner/x.txt": b"x",
        "out/sub/void": DIR,
        "out/file.txt": b"hello world\n",
    }


def test_dot_entries_in_listing_are_passed_over(scripted, local):
    scripted.make_file("d/a.txt", b"a")
    scripted.make_file("d/sub/b.txt", b"b")
    scripted.script({"listings": {
        "/d": {"lines": [
            unix_line("d", ".", 4096),
            unix_line("d", "..", 4096),
            unix_line("-", "a.txt", 1),
            unix_line("d", "sub", 4096),
        ]},
        "/d/sub": {"lines": [
            unix_line("d", ".", 4096),
            unix_line("-", "b.txt", 1),
            # Whatever type they claim, "." and ".." are never entered.
            unix_line("l", ".. -> /"),
            unix_line("-", ".", 1),
        ]},
    }})

    result = local.download(scripted, "/d", "out", "--recursive",
                            "--follow-symlinks")

    assert_outcome(result, 0)
    assert local.tree() == {"out": DIR, "out/a.txt": b"a", "out/sub": DIR,
                            "out/sub/b.txt": b"b"}
    assert data_requests(scripted) == [
        ("LIST", "/"), ("LIST", "/d"), ("RETR", "/d/a.txt"),
        ("LIST", "/d/sub"), ("RETR", "/d/sub/b.txt")]


def test_unsafe_names_are_skipped_and_nothing_escapes_target(scripted, local):
    scripted.make_file("d/good1", b"good1")
    scripted.make_file("d/good2", b"good2")
    scripted.make_file("d/sub/x", b"would be out/sub/x")
    scripted.make_file("d/sub/inner.txt", b"inner")
    scripted.make_file("d/z", b"link target")
    scripted.make_file("evil", b"evil")
    scripted.make_file("abs/pwn", b"pwn")
    scripted.script({"listings": {"/d": {"lines": [
        unix_line("-", "good1", 5),
        unix_line("-", "../evil", 4),
        unix_line("d", "a/../../evil", 4096),
        unix_line("-", "sub/x", 18),
        unix_line("d", "/abs", 4096),
        unix_line("l", "x/y -> z"),
        unix_line("-", 'q"\\/w', 4),
        ftptest.b64(unix_line("-", "nul").encode() + b"\x00byte"),
        unix_line("d", "sub", 4096),
        unix_line("-", "good2", 5),
    ]}}})
    local.mkdir("sandbox")
    local.write("sandbox/keep.txt", b"keep")
    before = local.tree()
    abs_existed = os.path.lexists("/abs")

    result = local.download(scripted, "/d", "sandbox/out", "--recursive",
                            "--follow-symlinks")

    reason = "unsafe file name"
    assert_outcome(result, 0, stdout=(
        skip_line(b"/d/../evil", reason) +
        skip_line(b"/d/a/../../evil", reason) +
        skip_line(b"/d/sub/x", reason) +
        # Joining an absolute name replaces the directory.
        skip_line(b"/abs", reason) +
        skip_line(b"/d/x/y", reason) +
        skip_line(b'/d/q"\\/w', reason) +
        skip_line(b"/d/nul\x00byte", reason)))
    assert local.tree() == dict(before, **{
        "sandbox/out": DIR,
        "sandbox/out/good1": b"good1",
        "sandbox/out/sub": DIR,
        "sandbox/out/sub/inner.txt": b"inner",
        "sandbox/out/sub/x": b"would be out/sub/x",
        "sandbox/out/good2": b"good2",
    })
    assert not os.path.lexists(str(local.workdir.parent / "evil"))
    assert os.path.lexists("/abs") == abs_existed
    retrieved = [p for c, p in data_requests(scripted) if c == "RETR"]
    assert retrieved == ["/d/good1", "/d/sub/inner.txt", "/d/sub/x",
                         "/d/good2"]


# ------------------------------------------------------ order of requests

def test_requests_are_depth_first_in_listing_order(any_server, local):
    any_server.make_file("t/a.txt", b"a")
    any_server.make_file("t/m/b.txt", b"b")
    any_server.make_file("t/m/n/c.txt", b"c")
    any_server.make_dir("t/m/o")
    any_server.make_file("t/z.txt", b"z")

    result = local.download(any_server, "/t", "out", "--recursive")

    assert_outcome(result, 0)
    assert local.tree() == {
        "out": DIR, "out/a.txt": b"a", "out/m": DIR, "out/m/b.txt": b"b",
        "out/m/n": DIR, "out/m/n/c.txt": b"c", "out/m/o": DIR,
        "out/z.txt": b"z"}
    assert data_requests(any_server) == [
        ("LIST", "/"),
        ("LIST", "/t"),
        ("RETR", "/t/a.txt"),
        ("LIST", "/t/m"),
        ("RETR", "/t/m/b.txt"),
        ("LIST", "/t/m/n"),
        ("RETR", "/t/m/n/c.txt"),
        ("LIST", "/t/m/o"),
        ("RETR", "/t/z.txt"),
    ]


def test_requests_follow_server_order_not_name_order(scripted, local):
    scripted.make_file("t/a.txt", b"a")
    scripted.make_file("t/m/b.txt", b"b")
    scripted.make_file("t/z.txt", b"z")
    scripted.script({"listings": {"/t": {"lines": [
        unix_line("-", "z.txt", 1),
        unix_line("d", "m", 4096),
        unix_line("-", "a.txt", 1),
    ]}}})

    result = local.download(scripted, "/t", "out", "--recursive")

    assert_outcome(result, 0)
    assert local.tree() == {"out": DIR, "out/a.txt": b"a", "out/m": DIR,
                            "out/m/b.txt": b"b", "out/z.txt": b"z"}
    assert data_requests(scripted) == [
        ("LIST", "/"), ("LIST", "/t"), ("RETR", "/t/z.txt"),
        ("LIST", "/t/m"), ("RETR", "/t/m/b.txt"), ("RETR", "/t/a.txt")]
