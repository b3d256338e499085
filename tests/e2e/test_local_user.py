"""End-to-end tests of --local-user: the transfer commands give up root's
rights for those of the named account before they read the environment,
connect or touch a local file.

They run as root and switch to the throwaway account of the local_account
fixture; without root that fixture skips every test here and says why at
the end of the run.
"""

import os
import stat
from pathlib import Path

import pytest
from checks import assert_no_connection, assert_ok
from ftptest import DIR, named, snapshot

UNKNOWN = "no-such-user-xyz"
HINT = b"Try 'brindle --help' for more information\n"


@pytest.fixture(autouse=True)
def _as_root(local_account):
    """Every test here needs root and the throwaway account."""
    return local_account


# ------------------------------------------------------------------ helpers





def current_umask():
    mask = os.umask(0o022)
    os.umask(mask)
    return mask


def owned_dir(path, account, mode=0o755):
    path = Path(path)
    path.mkdir()
    path.chmod(mode)
    account.chown(path)
    return path


def transfer_args(command, server, user, local, remote, *flags):
    return ["--" + command, "--local-user", user, "--local-path", local,
            "--remote-path", remote, *flags, *server.args()]


# ----------------------------------------------------------- refused users

@pytest.mark.parametrize("command", ["upload", "download"])
def test_unknown_local_user(brindle, scripted, command):
    scripted.make_file("f.txt", b"f")

    # The local path does not exist either: the switch comes first.
    result = brindle.run(*transfer_args(command, scripted, UNKNOWN,
                                        "missing/f.txt", "/f.txt"))

    report = ("Unable to getpwnam for user %s\n"
              "User '%s' not found\n" % (UNKNOWN, UNKNOWN)).encode()
    assert result.status == 1, result
    assert result.stdout == report
    assert result.stderr == report
    assert_no_connection(scripted)
    assert not (brindle.workdir / "missing").exists()


@pytest.mark.parametrize("command", ["upload", "download"])
def test_root_is_refused(brindle, scripted, command):
    (brindle.workdir / "f.txt").write_bytes(b"f")
    scripted.make_file("f.txt", b"f")

    result = brindle.run(*transfer_args(command, scripted, "root",
                                        "f.txt", "/f.txt"))

    assert result.status == 1, result
    assert result.stdout == b"Cannot run as forbidden uid: 0\n"
    assert result.stderr == b"Cannot run as forbidden uid: 0\n"
    assert_no_connection(scripted)


@pytest.mark.parametrize("command", ["upload", "download"])
def test_transfer_requires_local_user(brindle, scripted, command):
    (brindle.workdir / "f.txt").write_bytes(b"f")

    result = brindle.run("--" + command, "--local-path", "f.txt",
                         "--remote-path", "/f.txt", *scripted.args())

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"the option '--local-user' is required "
                             b"but missing\n" + HINT)
    assert_no_connection(scripted)


@pytest.mark.parametrize("command", ["upload", "download"])
def test_local_path_is_named_before_local_user(brindle, scripted, command):
    result = brindle.run("--" + command, "--remote-path", "/f.txt",
                         *scripted.args())

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"the option '--local-path' is required "
                             b"but missing\n" + HINT)
    assert_no_connection(scripted)


@pytest.mark.parametrize("command", ["remove", "list"])
def test_local_user_is_unknown_to_remove_and_list(brindle, scripted,
                                                  local_account, command):
    scripted.make_file("f.txt", b"f")

    result = brindle.run("--" + command, "--local-user", local_account.name,
                         "--remote-path", "/f.txt", *scripted.args())

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == b"unrecognised option '--local-user'\n" + HINT
    assert_no_connection(scripted)
    assert snapshot(scripted.root) == {"f.txt": b"f"}


# --------------------------------------------------------------- downloads

def test_download_writes_files_owned_by_the_account(brindle, scripted,
                                                    local_account):
    scripted.make_file("d/a.txt", b"a\n")
    scripted.make_file("d/sub/b.bin", bytes(range(256)))
    scripted.make_dir("d/sub/empty")
    owned_dir(brindle.workdir / "out", local_account)

    tree = brindle.run(*transfer_args("download", scripted,
                                      local_account.name, "out/tree", "/d",
                                      "--recursive"))
    single = brindle.run(*transfer_args("download", scripted,
                                        local_account.name, "out/.",
                                        "/d/a.txt"))

    for result in (tree, single):
        assert_ok(result)
    out = brindle.workdir / "out"
    assert snapshot(out) == {
        "a.txt": b"a\n",
        "tree": DIR, "tree/a.txt": b"a\n",
        "tree/sub": DIR, "tree/sub/b.bin": bytes(range(256)),
        "tree/sub/empty": DIR,
    }
    umask = current_umask()
    for rel in snapshot(out):
        st = (out / rel).lstat()
        assert (st.st_uid, st.st_gid) == (local_account.uid,
                                          local_account.gid), rel
        wanted = (0o777 if stat.S_ISDIR(st.st_mode) else 0o666) & ~umask
        assert stat.S_IMODE(st.st_mode) == wanted, rel


def test_download_into_a_directory_the_account_cannot_write(
        brindle, scripted, local_account):
    scripted.make_file("d/x.txt", b"x")
    # Root's, and closed to everybody else for writing.
    locked = brindle.workdir / "locked"
    locked.mkdir()
    locked.chmod(0o755)

    result = brindle.run(*transfer_args("download", scripted,
                                        local_account.name, "locked/x.txt",
                                        "/d/x.txt"))

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to open 'locked/x.txt' for writing: "
                             b"Permission denied\n")
    assert os.listdir(str(locked)) == []
    assert named(scripted.commands(), "RETR") == []


def test_recursive_download_into_a_directory_the_account_cannot_write(
        brindle, scripted, local_account):
    scripted.make_file("d/x.txt", b"x")
    locked = brindle.workdir / "locked"
    locked.mkdir()
    locked.chmod(0o755)

    result = brindle.run(*transfer_args("download", scripted,
                                        local_account.name, "locked/tree",
                                        "/d", "--recursive"))

    assert result.status == 1, result
    assert result.stdout == b""
    assert result.stderr == (b"Unable to create directory 'locked/tree': "
                             b"Permission denied\n")
    assert os.listdir(str(locked)) == []


# ----------------------------------------------------------------- uploads

def test_upload_reads_with_the_account_rights(brindle, scripted,
                                              local_account):
    src = brindle.workdir / "src"
    src.mkdir()
    src.chmod(0o755)
    mine = src / "mine.txt"
    mine.write_bytes(b"only the account may read this\n")
    mine.chmod(0o400)
    local_account.chown(mine)
    roots = src / "roots.txt"
    roots.write_bytes(b"root only\n")
    roots.chmod(0o600)

    ok = brindle.run(*transfer_args("upload", scripted, local_account.name,
                                    "src/mine.txt", "/up/mine.txt"))
    refused = brindle.run(*transfer_args("upload", scripted,
                                         local_account.name, "src/roots.txt",
                                         "/up/roots.txt"))

    assert_ok(ok)
    assert refused.status == 1, refused
    assert refused.stdout == b""
    assert refused.stderr == (b"Unable to open 'src/roots.txt' for reading: "
                              b"Permission denied\n")
    assert snapshot(scripted.root) == {
        "up": DIR, "up/mine.txt": b"only the account may read this\n"}


# ------------------------------------------------------------- credentials

def test_environment_credentials_with_upload(brindle, scripted_factory,
                                             local_account):
    server = scripted_factory(user="env-user", password="env pass:word")
    (brindle.workdir / "f.txt").write_bytes(b"from the environment\n")
    env = {"FTP_LOGIN": "env-user", "FTP_PASSWORD": "env pass:word"}

    result = brindle.run("--upload", "--local-user", local_account.name,
                         "--local-path", "f.txt", "--remote-path", "/e/f.txt",
                         "--host", "127.0.0.1", "--port", str(server.port),
                         env=env)

    assert_ok(result)
    assert named(server.commands(), "USER", "PASS") == [
        ("USER", "env-user"), ("PASS", "env pass:word")]
    assert snapshot(server.root) == {"e": DIR,
                                     "e/f.txt": b"from the environment\n"}


def test_environment_credentials_with_download(brindle, scripted_factory,
                                               local_account):
    server = scripted_factory(user="env-user", password="env-secret")
    server.make_file("d/f.txt", b"down\n")
    out = owned_dir(brindle.workdir / "out", local_account)
    env = {"FTP_LOGIN": "env-user", "FTP_PASSWORD": "env-secret"}

    result = brindle.run("--download", "--local-user", local_account.name,
                         "--local-path", "out/f.txt",
                         "--remote-path", "/d/f.txt",
                         "--host", "127.0.0.1", "--port", str(server.port),
                         env=env)

    assert_ok(result)
    assert named(server.commands(), "USER", "PASS")[:2] == [
        ("USER", "env-user"), ("PASS", "env-secret")]
    assert (out / "f.txt").read_bytes() == b"down\n"
    assert (out / "f.txt").stat().st_uid == local_account.uid


def test_given_login_wins_over_the_environment(brindle, scripted,
                                               local_account):
    (brindle.workdir / "f.txt").write_bytes(b"f\n")
    env = {"FTP_LOGIN": "wrong-user", "FTP_PASSWORD": "wrong-password"}

    result = brindle.run("--upload", "--local-user", local_account.name,
                         "--local-path", "f.txt", "--remote-path", "/f.txt",
                         *scripted.args(), env=env)

    assert_ok(result)
    assert named(scripted.commands(), "USER", "PASS") == [
        ("USER", scripted.user), ("PASS", scripted.password)]
    assert snapshot(scripted.root) == {"f.txt": b"f\n"}


def test_unknown_local_user_with_environment_credentials(brindle, scripted):
    (brindle.workdir / "f.txt").write_bytes(b"f\n")
    env = {"FTP_LOGIN": scripted.user, "FTP_PASSWORD": scripted.password}

    result = brindle.run("--upload", "--local-user", UNKNOWN,
                         "--local-path", "f.txt", "--remote-path", "/f.txt",
                         "--host", "127.0.0.1", "--port", str(scripted.port),
                         env=env)

    report = ("Unable to getpwnam for user %s\n"
              "User '%s' not found\n" % (UNKNOWN, UNKNOWN)).encode()
    assert (result.status, result.stdout, result.stderr) == (
        1, report, report), result
    assert_no_connection(scripted)
