"""End-to-end tests of "brindle --upload".

Every run switches to the throwaway account of the local_account fixture
(--local-user is mandatory for uploads), so the local files made here are
readable by everybody unless a test says otherwise.  Local paths are given
relative to the per-test working directory, which is also where the skip
lines and messages take their path text from.
"""

import errno
import os
import random
import re
import socket
import threading
import time
from pathlib import Path

import pytest

import libcurl
from checks import assert_no_connection, assert_ok
from ftptest import DIR, named, snapshot



# ------------------------------------------------------------------ helpers



def make_local(base, rel, data=b"", mode=0o644):
    """A local file base/rel (parents made world-traversable)."""
    path = Path(base) / rel
    make_local_dir(path.parent, ".")
    path.write_bytes(data)
    path.chmod(mode)
    return path


def make_local_dir(base, rel):
    """A local directory base/rel; every directory made on the way is
    world-traversable whatever the umask."""
    path = Path(base) / rel
    missing = []
    probe = path.resolve()
    while not probe.exists():
        missing.append(probe)
        probe = probe.parent
    for directory in reversed(missing):
        directory.mkdir()
        directory.chmod(0o755)
    return path


def upload(brindle, server, account, local, remote, *flags, **kwargs):
    return brindle.run("--upload", "--local-user", account.name,
                       "--local-path", local, "--remote-path", remote,
                       *flags, *server.args(), **kwargs)




def assert_untouched(server):
    """The server received no command and its root is still empty."""
    assert server.commands() == []
    assert snapshot(server.root) == {}


def binary_blob(size, seed):
    return random.Random(seed).randbytes(size)


def url(server, path=""):
    return "ftp://127.0.0.1:%d%s" % (server.port, path)


# ---------------------------------------------------------------- transfers

def test_upload_one_file(brindle, any_server, local_account):
    data = bytes(range(256)) * 8 + b"\r\n\n\r\x00\xff"
    make_local(brindle.workdir, "f.bin", data)

    result = upload(brindle, any_server, local_account, "f.bin", "/dst/f.bin")

    assert_ok(result)
    assert snapshot(any_server.root) == {"dst": DIR, "dst/f.bin": data}
    commands = any_server.commands()
    assert named(commands, "STOR", "MKD", "APPE", "DELE", "RMD") == [
        ("MKD", "dst"), ("STOR", "f.bin")]
    assert named(commands, "USER") == [("USER", any_server.user)]


def test_upload_tree(brindle, any_server, local_account):
    files = {
        "top.txt": b"top level\n",
        "a/one.bin": bytes(range(256)) * 40,
        "a/two.txt": b"two\r\nlines\r\n",
        "a/b/c/deep.bin": binary_blob(300000, 7),
        "a/b/zero.bin": b"",
    }
    for rel, data in files.items():
        make_local(brindle.workdir / "tree", rel, data)
    # Empty directories leave no trace on the server.
    make_local_dir(brindle.workdir / "tree", "a/b/empty")
    make_local_dir(brindle.workdir / "tree", "hollow/inner")

    result = upload(brindle, any_server, local_account, "tree", "/up",
                    "--recursive")

    assert_ok(result)
    expected = {"up": DIR, "up/a": DIR, "up/a/b": DIR, "up/a/b/c": DIR}
    expected.update(("up/" + rel, data) for rel, data in files.items())
    assert snapshot(any_server.root) == expected
    commands = any_server.commands()
    assert sorted(named(commands, "STOR")) == sorted(
        ("STOR", os.path.basename(rel)) for rel in files)
    assert sorted(named(commands, "MKD")) == [
        ("MKD", "a"), ("MKD", "b"), ("MKD", "c"), ("MKD", "up")]
    assert named(commands, "USER") == [("USER", any_server.user)]


def test_upload_overwrites_an_existing_remote_file(brindle, scripted,
                                                   local_account):
    scripted.make_file("d/f.txt", b"a much longer old content\n")
    make_local(brindle.workdir, "f.txt", b"new\n")

    result = upload(brindle, scripted, local_account, "f.txt", "/d/f.txt")

    assert_ok(result)
    assert snapshot(scripted.root) == {"d": DIR, "d/f.txt": b"new\n"}


def test_upload_names_with_spaces_and_reserved_characters(
        brindle, scripted, local_account):
    make_local(brindle.workdir, "src file.txt", b"spaced\n")

    result = upload(brindle, scripted, local_account, "src file.txt",
                    "/my dir/a file#1%.txt")

    assert_ok(result)
    assert snapshot(scripted.root) == {"my dir": DIR,
                                       "my dir/a file#1%.txt": b"spaced\n"}
    assert named(scripted.commands(), "MKD", "STOR") == [
        ("MKD", "my dir"), ("STOR", "a file#1%.txt")]


# ------------------------------------------------------- remote path forms

@pytest.mark.parametrize("remote, stored", [
    ("/dir/.", "dir/f.txt"),
    ("/dir/sub/..", "dir/f.txt"),
    ("/dir/./sub/../.", "dir/f.txt"),
    (".", "f.txt"),
])
def test_upload_to_a_dot_path_takes_the_local_name(
        brindle, scripted, local_account, remote, stored):
    scripted.make_dir("dir")
    make_local(brindle.workdir, "src/f.txt", b"payload\n")

    result = upload(brindle, scripted, local_account, "src/./f.txt", remote)

    assert_ok(result)
    assert snapshot(scripted.root) == {"dir": DIR, stored: b"payload\n"}


@pytest.mark.parametrize("remote", ["/dir/", "/dir/./", "/new/"])
def test_upload_to_a_trailing_slash_names_the_target_itself(
        brindle, scripted, local_account, remote):
    scripted.make_dir("dir")
    make_local(brindle.workdir, "f.txt", b"payload\n")

    result = upload(brindle, scripted, local_account, "f.txt", remote)

    # The normalised path keeps its trailing separator and is not completed
    # with the local name, so the library has no file name to store under.
    target = "/dir/" if remote.startswith("/dir") else remote
    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to perform request for '%s': %s\n" % (
            url(scripted, target), libcurl.wording(
                "Uploading to a URL without a file name",    # 7.88
                "Uploading to a URL without a filename"))    # 8.14
    ).encode()
    assert snapshot(scripted.root) == {"dir": DIR}
    assert named(scripted.commands(), "STOR", "MKD") == []


def test_upload_rejects_a_local_path_above_its_start(brindle, scripted,
                                                     local_account):
    result = upload(brindle, scripted, local_account, "sub/../../x", "/x")

    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Invalid path 'sub/../../x'\n"), result
    assert_no_connection(scripted)


# ------------------------------------------------------ local path problems

@pytest.mark.parametrize("given, shown", [
    ("missing.txt", "missing.txt"),
    ("./sub/../missing.txt", "missing.txt"),
    ("dangling", "dangling"),
])
def test_upload_missing_local_path(brindle, scripted, local_account,
                                   given, shown):
    # A dangling link counts as missing: the status check follows links.
    os.symlink("nowhere", str(brindle.workdir / "dangling"))

    result = upload(brindle, scripted, local_account, given, "/x",
                    "--follow-symlinks")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to upload '%s': file not found\n" % shown).encode()
    # The client exists by now, but nothing connects before a request.
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


@pytest.mark.parametrize("given, flags", [
    ("tree", ()),
    ("tree/", ()),
    ("dirlink", ()),
    ("dirlink", ("--follow-symlinks",)),
])
def test_upload_directory_without_recursive(brindle, scripted, local_account,
                                            given, flags):
    make_local(brindle.workdir / "tree", "f.txt", b"x")
    os.symlink("tree", str(brindle.workdir / "dirlink"))

    result = upload(brindle, scripted, local_account, given, "/x", *flags)

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to upload remote directory '%s': "
        "recursive operation isn't allowed\n" % given).encode()
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


def test_upload_empty_directory_sends_nothing(brindle, scripted,
                                              local_account):
    make_local_dir(brindle.workdir, "empty/a/b")
    make_local_dir(brindle.workdir, "empty/c")

    result = upload(brindle, scripted, local_account, "empty", "/empty",
                    "--recursive")

    assert_ok(result)
    # No file, no request: not even a login.
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


def test_upload_unreadable_file(brindle, scripted, local_account):
    # Owned by root and private: root could read it, the local user cannot.
    make_local(brindle.workdir, "secret.bin", b"top secret", mode=0o600)

    result = upload(brindle, scripted, local_account, "secret.bin",
                    "/secret.bin")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to open 'secret.bin' for reading: "
                             b"Permission denied\n")
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


@pytest.fixture(params=["scripted", "vsftpd"])
def real_server(request):
    """Each of the two servers, serving what is on disk."""
    return request.getfixturevalue(request.param)


@pytest.mark.parametrize("flags", [(), ("--recursive", "--follow-symlinks")])
def test_upload_symlink_loop_is_a_fatal_error(brindle, real_server,
                                              local_account, flags):
    os.symlink("loop-b", str(brindle.workdir / "loop-a"))
    os.symlink("loop-a", str(brindle.workdir / "loop-b"))

    result = upload(brindle, real_server, local_account, "loop-a", "/x",
                    *flags)

    # The status query that follows links fails with something other than
    # "not found", and the library's own error reaches main: one report on
    # both channels, with the demangled type. Its text is the standard
    # library's ("filesystem error: <operation>: <reason> [<path>]"); the
    # reason is the C library's text for ELOOP.
    assert result.status == 1, result
    assert result.stdout == result.stderr, result
    assert re.fullmatch(
        rb"Fatal error: std::filesystem::__cxx11::filesystem_error\("
        rb"filesystem error: [a-z _]+: Too many levels of symbolic links "
        rb"\[loop-a\]\)\n", result.stdout), result
    assert_untouched(real_server)


@pytest.mark.parametrize("locked", ["locked", "tree/sub/locked"])
def test_upload_tree_with_a_directory_the_account_cannot_read(
        brindle, real_server, local_account, locked):
    # Owned by root and private: the local user may not even list it. The
    # walk meets it before any file, so nothing connects.
    make_local_dir(brindle.workdir, locked)
    (brindle.workdir / locked).chmod(0o700)
    given = locked.split("/")[0]

    result = upload(brindle, real_server, local_account, given, "/up",
                    "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to process '%s': Permission denied\n" % locked).encode()
    assert_untouched(real_server)


def test_upload_socket_cannot_be_opened(brindle, scripted, local_account):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        sock.bind(str(brindle.workdir / "sock"))
        os.chmod(str(brindle.workdir / "sock"), 0o666)

        result = upload(brindle, scripted, local_account, "sock", "/sock")
    finally:
        sock.close()

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to open 'sock' for reading: "
                             b"No such device or address\n")
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


# -------------------------------------------------------------- named pipe

class PipeFeeder(object):
    """Writes data into a named pipe from a background thread as soon as
    a reader has opened it; gives up after timeout seconds."""

    def __init__(self, path, data, timeout=20.0):
        self.path = str(path)
        self.data = data
        self.timeout = timeout
        self.written = 0
        self.error = None
        self.thread = threading.Thread(target=self._run, daemon=True)

    def start(self):
        self.thread.start()
        return self

    def _run(self):
        deadline = time.monotonic() + self.timeout
        while True:
            try:
                # Without a reader this fails with ENXIO instead of
                # blocking, so the thread can never hang here.
                fd = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
                break
            except OSError as e:
                if e.errno != errno.ENXIO or time.monotonic() > deadline:
                    self.error = e
                    return
                time.sleep(0.01)
        try:
            os.set_blocking(fd, True)
            view = memoryview(self.data)
            while self.written < len(self.data):
                self.written += os.write(fd, view[self.written:])
        except OSError as e:
            self.error = e
        finally:
            os.close(fd)

    def join(self):
        self.thread.join(self.timeout + 5)


def test_upload_named_pipe_is_read_like_a_file(brindle, scripted,
                                               local_account):
    fifo = brindle.workdir / "pipe"
    os.mkfifo(str(fifo))
    fifo.chmod(0o644)
    data = binary_blob(200000, 11)
    feeder = PipeFeeder(fifo, data).start()

    result = upload(brindle, scripted, local_account, "pipe", "/p/piped.bin",
                    timeout=30)
    feeder.join()

    assert_ok(result)
    assert feeder.error is None and feeder.written == len(data)
    assert snapshot(scripted.root) == {"p": DIR, "p/piped.bin": data}


# ----------------------------------------------------------- symbolic links

def test_upload_symlink_is_skipped(brindle, scripted, local_account):
    make_local(brindle.workdir, "target.txt", b"target\n")
    os.symlink("target.txt", str(brindle.workdir / "link"))

    result = upload(brindle, scripted, local_account, "link", "/link")

    assert result.status == 0, result
    assert result.stdout == b"skip '\"link\"': symbolic links aren't allowed\n"
    assert result.stderr == b""
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {}


def test_upload_symlinks_inside_a_tree_are_skipped(brindle, scripted,
                                                   local_account):
    make_local(brindle.workdir / "tree", "f.txt", b"file\n")
    make_local(brindle.workdir / "tree", "sub/g.txt", b"g\n")
    os.symlink("f.txt", str(brindle.workdir / "tree/filelink"))
    os.symlink("sub", str(brindle.workdir / "tree/dirlink"))
    os.symlink("../f.txt", str(brindle.workdir / "tree/sub/uplink"))

    result = upload(brindle, scripted, local_account, "tree", "/t",
                    "--recursive")

    assert result.status == 0, result
    assert result.stderr == b""
    # Directory order is the file system's, so compare the lines as a set;
    # each one is a complete line of its own.
    lines = result.stdout.split(b"\n")
    assert lines[-1] == b""
    assert sorted(lines[:-1]) == sorted([
        b"skip '\"tree/filelink\"': symbolic links aren't allowed",
        b"skip '\"tree/dirlink\"': symbolic links aren't allowed",
        b"skip '\"tree/sub/uplink\"': symbolic links aren't allowed",
    ])
    assert snapshot(scripted.root) == {"t": DIR, "t/f.txt": b"file\n",
                                       "t/sub": DIR, "t/sub/g.txt": b"g\n"}


def test_upload_symlink_followed_to_a_file(brindle, any_server,
                                           local_account):
    data = binary_blob(5000, 3)
    make_local(brindle.workdir, "real/target.bin", data)
    os.symlink("real/target.bin", str(brindle.workdir / "link"))

    result = upload(brindle, any_server, local_account, "link",
                    "/dst/link", "--follow-symlinks")

    assert_ok(result)
    # The content of the target, stored under the link's own name.
    assert snapshot(any_server.root) == {"dst": DIR, "dst/link": data}


def test_upload_symlink_followed_to_a_directory(brindle, scripted,
                                                local_account):
    make_local(brindle.workdir, "real/a.txt", b"a\n")
    make_local(brindle.workdir, "real/sub/b.bin", bytes(range(256)))
    make_local(brindle.workdir, "other/c.txt", b"c\n")
    os.symlink("real", str(brindle.workdir / "dirlink"))
    # A link inside the followed tree to a directory outside it.
    os.symlink("../../other", str(brindle.workdir / "real/sub/inner"))

    result = upload(brindle, scripted, local_account, "dirlink", "/up",
                    "--recursive", "--follow-symlinks")

    assert_ok(result)
    assert snapshot(scripted.root) == {
        "up": DIR, "up/a.txt": b"a\n",
        "up/sub": DIR, "up/sub/b.bin": bytes(range(256)),
        "up/sub/inner": DIR, "up/sub/inner/c.txt": b"c\n",
    }


def test_upload_dangling_symlink_with_follow(brindle, scripted,
                                             local_account):
    make_local(brindle.workdir / "tree", "ok.txt", b"fine\n")
    os.symlink("nowhere", str(brindle.workdir / "tree/dangling"))

    result = upload(brindle, scripted, local_account, "tree", "/t",
                    "--recursive", "--follow-symlinks")

    assert result.status == 0, result
    assert result.stdout == (b"skip '\"tree/dangling\"': unable to resolve "
                             b"symbolic link, No such file or directory\n")
    assert result.stderr == b""
    assert snapshot(scripted.root) == {"t": DIR, "t/ok.txt": b"fine\n"}


def test_upload_skip_line_quotes_the_path(brindle, scripted, local_account):
    make_local(brindle.workdir / "tree", "plain.txt", b"p")
    os.symlink("plain.txt", str(brindle.workdir / 'tree/say "hi"\\now'))

    result = upload(brindle, scripted, local_account, "tree", "/t",
                    "--recursive")

    assert result.status == 0, result
    assert result.stdout == (b"skip '\"tree/say \\\"hi\\\"\\\\now\"': "
                             b"symbolic links aren't allowed\n")
    assert result.stderr == b""
    assert snapshot(scripted.root) == {"t": DIR, "t/plain.txt": b"p"}


# ------------------------------------------------------ failures mid-tree

def test_upload_refused_in_the_middle_of_a_tree(brindle, scripted,
                                                local_account):
    for name in ("one", "two", "three"):
        make_local(brindle.workdir / "up", name, name.encode() * 100)
    # The walk follows the directory's own order, which listdir shares.
    first, second, third = os.listdir(str(brindle.workdir / "up"))
    scripted.script({"failures": [
        {"command": "STOR", "arg": second, "reply": "553 Scripted refusal"}]})

    result = upload(brindle, scripted, local_account, "up", "/u",
                    "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (
        "Unable to perform request for '%s': Failed FTP upload: 553\n"
        % url(scripted, "/u/" + second)).encode()
    assert snapshot(scripted.root) == {"u": DIR,
                                       "u/" + first: first.encode() * 100}
    assert named(scripted.commands(), "STOR") == [("STOR", first),
                                                  ("STOR", second)]


def test_upload_unreadable_file_in_the_middle_of_a_tree(brindle, scripted,
                                                        local_account):
    for name in ("one", "two", "three"):
        make_local(brindle.workdir / "up", name, name.encode() * 100)
    first, second, third = os.listdir(str(brindle.workdir / "up"))
    (brindle.workdir / "up" / second).chmod(0o600)

    result = upload(brindle, scripted, local_account, "up", "/u",
                    "--recursive")

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == ("Unable to open 'up/%s' for reading: "
                             "Permission denied\n" % second).encode()
    assert snapshot(scripted.root) == {"u": DIR,
                                       "u/" + first: first.encode() * 100}
    assert named(scripted.commands(), "STOR") == [("STOR", first)]


def test_upload_followed_directory_link_walks_the_canonical_path(
        brindle, scripted, local_account):
    make_local(brindle.workdir, "real/a.txt", b"a\n")
    os.symlink("nowhere", str(brindle.workdir / "real/dangling"))
    os.symlink("real", str(brindle.workdir / "dirlink"))

    result = upload(brindle, scripted, local_account, "dirlink", "/up",
                    "--recursive", "--follow-symlinks")

    # Below a followed link the walk goes on from the link's resolved,
    # absolute path, and the skip line names that path.
    canonical = os.path.realpath(str(brindle.workdir / "real"))
    assert result.status == 0, result
    assert result.stdout == (
        "skip '\"%s/dangling\"': unable to resolve symbolic link, "
        "No such file or directory\n" % canonical).encode()
    assert result.stderr == b""
    assert snapshot(scripted.root) == {"up": DIR, "up/a.txt": b"a\n"}
