"""brindle against servers that do not chroot their users: vsftpd and
ProFTPD as Debian ships them, logging the account in to its home.

There the login directory is not the server's "/": PWD names the temporary
root's own absolute path, and an absolute path inside a command (DELE /x) is
the machine's.  brindle's remote paths are relative to the login directory,
so "/<top>/old" names <login directory>/<top>/old.  Each test puts a decoy
where the path's text would lead if it were taken as the server's own: the
same tree at the machine's /<top> (a fresh top-level folder, owned by the
test account so that the server would delete there if asked).  Nothing
there may ever change.
"""

import ftplib
import os
import secrets
import shutil
from pathlib import Path

import pytest

from checks import Commands, assert_ok, skip_line
from ftptest import DIR, named, snapshot

SERVERS = ["vsftpd-nochroot", "proftpd-nochroot"]
MODES = ["passive", "active"]
TIMEOUT = 30
BINARY = bytes(range(256)) * 4


@pytest.fixture(scope="module", params=[(s, m) for s in SERVERS
                                        for m in MODES],
                ids=lambda p: "%s-%s" % p)
def server(request, start_server):
    kind, mode = request.param
    started = start_server(kind)
    started.passive = (mode == "passive")
    try:
        yield started
    finally:
        started.stop()


class Site(object):
    """One test's folder: <top> below the login directory and the decoy
    at the machine's /<top>, both holding the same tree."""

    TREE = {
        "old/a.txt": b"a",
        "old/img/x.png": BINARY,
        "old/img/deeper/z.txt": b"z",
        "old/empty/": None,
        "my dir/a file.txt": b"spaced",
        # (ProFTPD's log shows runs of blanks as one.)
        "my dir/sub dir/x y.txt": b"xy",
        "keep.txt": b"keep",
    }

    def __init__(self, server):
        self.server = server
        self.top = "brindle-decoy-" + secrets.token_hex(6)
        self.decoy = Path("/") / self.top

    def populate(self):
        server = self.server
        for rel, data in self.TREE.items():
            if data is None:
                server.make_dir(self.top + "/" + rel.rstrip("/"))
            else:
                server.make_file(self.top + "/" + rel, data)
        shutil.copytree(str(server.path(self.top)), str(self.decoy),
                        symlinks=True)
        self._own(self.decoy)
        self.decoy_before = snapshot(self.decoy)

    def _own(self, path):
        account = self.server.account
        for dirpath, dirnames, filenames in os.walk(str(path)):
            os.chown(dirpath, account.uid, account.gid)
            for name in dirnames + filenames:
                os.lchown(os.path.join(dirpath, name), account.uid,
                          account.gid)

    def remote(self, rel=""):
        """The absolute remote path of rel, relative to the login
        directory."""
        return "/" + self.top + ("/" + rel if rel else "")

    def inside(self):
        """The tree below the login directory."""
        return snapshot(self.server.path(self.top))

    def assert_decoy_untouched(self):
        assert snapshot(self.decoy) == self.decoy_before

    def cleanup(self):
        shutil.rmtree(str(self.decoy), ignore_errors=True)


@pytest.fixture
def site(server):
    made = Site(server)
    try:
        made.populate()
        yield made
    finally:
        made.cleanup()


def run(brindle, server, *args):
    return brindle.run(*args, *server.args(), timeout=TIMEOUT)


def without(tree, *prefixes):
    return {k: v for k, v in tree.items()
            if not any(k == p or k.startswith(p + "/") for p in prefixes)}


# ------------------------------------------------------------------ remove

def test_server_names_its_own_absolute_path(server):
    # The premise of every test here: the server puts the session in the
    # temporary root and names it by its machine path.
    with ftplib.FTP() as ftp:
        ftp.connect(server.host, server.port, timeout=10)
        ftp.login(server.user, server.password)
        assert ftp.pwd() == str(server.root) == server.login_dir


# What --remove deletes below the site: the path, brindle's options, and
# the commands that delete it, by their paths below that path: in the
# servers' LIST order (by name), children before their directory.
REMOVALS = {
    "file": ("old/a.txt", [], [("DELE", "")]),
    "tree": ("old", ["--recursive"], [
        ("DELE", "/a.txt"),
        ("RMD", "/empty"),
        ("DELE", "/img/deeper/z.txt"),
        ("RMD", "/img/deeper"),
        ("DELE", "/img/x.png"),
        ("RMD", "/img"),
        ("RMD", "")]),
    "path-with-spaces": ("my dir", ["--recursive"], [
        ("DELE", "/a file.txt"),
        ("DELE", "/sub dir/x y.txt"),
        ("RMD", "/sub dir"),
        ("RMD", "")]),
}


@pytest.mark.parametrize("absolute", [True, False],
                         ids=["absolute", "relative"])
@pytest.mark.parametrize("removal", list(REMOVALS))
def test_remove(brindle, server, site, removal, absolute):
    path, options, deletions = REMOVALS[removal]
    before = site.inside()
    log = Commands(server)
    remote = site.remote(path) if absolute else site.top + "/" + path

    result = run(brindle, server, "--remove", "--remote-path", remote,
                 *options)

    assert_ok(result)
    # An absolute path names the entries below the login directory by the
    # server's own path, and the deletions follow the lookup on its login.
    # A relative path goes as it is, on a login of its own, which the
    # server starts in the login directory.
    prefix = server.login_dir + remote if absolute else remote
    assert named(log.since(), "NOOP", "DELE", "RMD") == [("NOOP", "")] + [
        (command, prefix + below) for command, below in deletions]
    assert len(named(log.since(), "USER")) == (1 if absolute else 2)
    assert site.inside() == without(before, path)
    site.assert_decoy_untouched()


def test_remove_symlink_whose_target_is_the_decoy(brindle, server, site):
    # Links are deleted as themselves: their target, here the decoy's
    # file given by the machine's absolute path, stays.
    server.make_symlink(site.top + "/old/out", str(site.decoy / "keep.txt"))
    before = site.inside()

    result = run(brindle, server, "--remove", "--remote-path",
                 site.remote("old/out"))

    assert_ok(result)
    assert site.inside() == without(before, "old/out")
    site.assert_decoy_untouched()


# -------------------------------------------------------- list, download

@pytest.mark.parametrize("absolute", [True, False],
                         ids=["absolute", "relative"])
def test_list(brindle, server, site, absolute):
    base = site.remote() if absolute else site.top

    contents = run(brindle, server, "--list", "--remote-path",
                   base + "/old/img/.")
    entry = run(brindle, server, "--list", "--remote-path",
                base + "/old/img/deeper")

    # ProFTPD's NLST is in directory order.
    assert (contents.status, sorted(contents.stdout.splitlines()),
            contents.stderr) == (0, [b"deeper", b"x.png"], b""), contents
    assert_ok(entry, b"deeper\n")


@pytest.mark.parametrize("absolute", [True, False],
                         ids=["absolute", "relative"])
def test_download_tree(brindle, server, site, local_account, absolute):
    local_account.chown(brindle.workdir)
    base = site.remote() if absolute else site.top

    result = run(brindle, server, "--download", "--local-user",
                 local_account.name, "--remote-path", base + "/old",
                 "--local-path", "out", "--recursive")

    assert_ok(result)
    assert snapshot(brindle.workdir) == {
        "out": DIR, "out/a.txt": b"a", "out/img": DIR,
        "out/img/x.png": BINARY, "out/img/deeper": DIR,
        "out/img/deeper/z.txt": b"z", "out/empty": DIR}
    site.assert_decoy_untouched()


def test_download_follows_links_inside_the_login_directory_only(
        brindle, server, site, local_account):
    local_account.chown(brindle.workdir)
    # Server-absolute targets: one inside the login directory, one outside
    # (the decoy), and a relative one.
    server.make_symlink(site.top + "/links/in",
                        server.login_dir + site.remote("old/img"))
    server.make_symlink(site.top + "/links/out", str(site.decoy / "keep.txt"))
    server.make_file(site.top + "/links/data.txt", b"data")
    server.make_symlink(site.top + "/links/rel", "data.txt")

    result = run(brindle, server, "--download", "--local-user",
                 local_account.name, "--remote-path", site.remote("links"),
                 "--local-path", "out", "--recursive", "--follow-symlinks")

    assert_ok(result, skip_line(site.remote("links/out"),
                                "unable to resolve symbolic link"))
    assert snapshot(brindle.workdir) == {
        "out": DIR, "out/data.txt": b"data", "out/in": DIR,
        "out/in/x.png": BINARY, "out/in/deeper": DIR,
        "out/in/deeper/z.txt": b"z", "out/rel": b"data"}
    site.assert_decoy_untouched()


# ------------------------------------------------------------------ upload

@pytest.mark.parametrize("absolute", [True, False],
                         ids=["absolute", "relative"])
def test_upload_tree(brindle, server, site, local_account, absolute):
    local = brindle.workdir / "up"
    files = {"n.txt": b"new", "sub/deeper/bin": BINARY, "sub/s t.txt": b"st"}
    for rel, data in files.items():
        (local / rel).parent.mkdir(parents=True, exist_ok=True)
        (local / rel).write_bytes(data)
    for dirpath, dirnames, filenames in os.walk(str(local)):
        os.chmod(dirpath, 0o755)
    base = site.remote() if absolute else site.top

    result = run(brindle, server, "--upload", "--local-user",
                 local_account.name, "--local-path", str(local),
                 "--remote-path", base + "/new/tree", "--recursive")

    assert_ok(result)
    assert {k: v for k, v in site.inside().items()
            if k.split("/")[0] == "new"} == {
        "new": DIR, "new/tree": DIR, "new/tree/n.txt": b"new",
        "new/tree/sub": DIR, "new/tree/sub/deeper": DIR,
        "new/tree/sub/deeper/bin": BINARY, "new/tree/sub/s t.txt": b"st"}
    site.assert_decoy_untouched()
