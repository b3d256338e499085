"""Quick checks of the e2e fixtures themselves, driven by the curl CLI and
Python's ftplib (never by brindle), so that a failing brindle test can be
trusted to be brindle's fault."""

import ftplib
import os
import pwd
import socket

import pytest

import ftptest
import servers
from checks import ftp_session, raw_list
from ftptest import named
from servers.vsftpd import VSFTPD


def test_curl_lists_downloads_and_uploads(any_server):
    server = any_server
    server.make_file("hello.txt", b"hello\n", mtime=1262304000)
    server.make_dir("sub")

    listed = server.curl("/")
    assert listed.status == 0, listed
    names = [line.split()[-1] for line in listed.stdout.decode().splitlines()]
    assert names == ["hello.txt", "sub"]
    assert b"\r" not in listed.stdout          # libcurl turned CRLF into LF
    assert b"Jan 01  2010 hello.txt" in listed.stdout

    got = server.curl("/hello.txt")
    assert (got.status, got.stdout) == (0, b"hello\n")

    upload = server.root.parent / "upload-src"
    upload.write_bytes(b"uploaded\n")
    put = server.curl("/sub/new.txt", "-T", str(upload))
    assert put.status == 0, put
    stored = server.root / "sub" / "new.txt"
    assert stored.read_bytes() == b"uploaded\n"
    if server.kind == "vsftpd":
        assert stored.stat().st_uid == server.account.uid

    commands = [c for c, _ in server.commands()]
    assert ("USER", server.user) in server.commands()
    data_setup = {"EPSV", "PASV"} if server.passive else {"EPRT", "PORT"}
    assert data_setup & set(commands)
    assert commands.count("LIST") == 1 and "STOR" in commands


def test_scripted_listing_is_served_byte_for_byte(scripted):
    scripted.script({"listings": {
        "/virt/dir/": {"lines": [
            "-rw-r--r-- 1 ftp ftp 5 Jan 01  2010 caf\u00e9.txt",
            ftptest.b64(b"-rw-r--r-- 1 ftp ftp 1 Jan 01  2010 raw\xff"),
        ]},
        "/": ftptest.raw_body(b"one\ntwo\r\nthree"),
    }, "nlst": {"/virt/dir": {"lines": ["a", "b"], "eol": "\n"}}})
    expected = ("-rw-r--r-- 1 ftp ftp 5 Jan 01  2010 caf\u00e9.txt\r\n"
                .encode() + b"-rw-r--r-- 1 ftp ftp 1 Jan 01  2010 raw\xff\r\n")

    # CWD then bare LIST, and LIST with a path (options are skipped).
    assert raw_list(scripted, "LIST") == b"one\ntwo\r\nthree"
    ftp = ftp_session(scripted)
    ftp.cwd("/virt/dir")
    chunks = []
    ftp.retrbinary("LIST", chunks.append)
    ftp.quit()
    assert b"".join(chunks) == expected
    assert raw_list(scripted, "LIST /virt/dir") == expected
    assert raw_list(scripted, "LIST -la /virt/dir/") == expected
    assert raw_list(scripted, "NLST /virt/dir") == b"a\nb\n"

    # curl sees the same lines with LF ends.
    listed = scripted.curl("/virt/dir/")
    assert listed.status == 0, listed
    assert listed.stdout == expected.replace(b"\r\n", b"\n")
    # The directory exists only in the script, yet CWD into it worked.
    assert ("CWD", "dir") in scripted.commands()
    assert not (scripted.root / "virt").exists()


def test_script_changes_are_picked_up_at_once(scripted):
    for n in range(3):
        scripted.script({"listings": {"/": {"lines": ["gen %d" % n]}}})
        assert scripted.curl("/").stdout == b"gen %d\n" % n


def test_failure_rule_answers_instead_of_running(scripted):
    scripted.make_file("f.txt", b"x")
    scripted.script({"failures": [
        {"command": "LIST", "reply": "450 Busy, try later", "times": 1}]})
    # libcurl takes a 450 to LIST for "no files": success, empty output.
    first = scripted.curl("/")
    assert (first.status, first.stdout, first.stderr) == (0, b"", b""), first
    second = scripted.curl("/")
    assert second.status == 0 and b"f.txt" in second.stdout, second
    assert [c for c, _ in scripted.commands()].count("LIST") == 2

    scripted.script({"failures": [
        {"command": "LIST", "reply": "450 Busy, try later", "times": 1}]})
    with pytest.raises(ftplib.error_temp, match="^450 Busy, try later$"):
        raw_list(scripted, "LIST")
    assert raw_list(scripted, "LIST").endswith(b" f.txt\r\n")

    ftp = ftp_session(scripted)
    scripted.script({"failures": [
        {"command": "SIZE", "arg": "f.txt", "reply": "550 Scripted no"}]})
    with pytest.raises(ftplib.error_perm, match="^550 Scripted no$"):
        ftp.size("f.txt")
    with pytest.raises(ftplib.error_perm, match="^550 Scripted no$"):
        ftp.size("f.txt")
    ftp.quit()
    assert [c for c in scripted.commands() if c[0] == "SIZE"] == [
        ("SIZE", "f.txt"), ("SIZE", "f.txt")]


def test_failure_rule_on_pass(scripted):
    scripted.script({"failures": [
        {"command": "PASS", "reply": "530 Login incorrect"}]})
    result = scripted.curl("/")
    assert result.status == 67, result
    assert result.stderr == b"curl: (67) Access denied: 530\n"


def test_refused_connection_looks_like_a_timeout_to_curl(scripted):
    scripted.script({"refuse_connections": 1})
    first = scripted.curl("/")
    assert (first.status, first.stderr) == (28, b"curl: (28) Timeout was reached\n")
    second = scripted.curl("/")
    assert second.status == 0, second
    scripted.wait_idle()
    events = [(e["session"], e["event"]) for e in scripted.log()]
    assert events[:3] == [(1, "connect"), (1, "refused"), (1, "disconnect")]
    assert (2, "connect") in events


def test_drop_in_the_middle_of_a_download(scripted):
    data = bytes(range(256)) * 40
    scripted.make_file("big.bin", data)
    scripted.script({"drop": [{"command": "RETR", "after_bytes": 1000}]})
    result = scripted.curl("/big.bin")
    assert result.status in (18, 56), result
    assert len(result.stdout) <= 1000
    assert result.stdout == data[:len(result.stdout)]

    # With ftplib: exactly 1000 bytes arrive, then the control connection
    # is gone with no 226.
    ftp = ftp_session(scripted)
    chunks = []
    with pytest.raises((EOFError, ConnectionError, ftplib.Error)):
        ftp.retrbinary("RETR big.bin", chunks.append)
    assert b"".join(chunks) == data[:1000]
    ftp.close()


def test_drop_of_a_listing_and_of_a_plain_command(scripted):
    scripted.script({"drop": [{"command": "LIST", "after_bytes": 4},
                              {"command": "MKD"}],
                     "listings": {"/": {"lines": ["abcdefgh"]}}})
    listed = scripted.curl("/")
    assert listed.status != 0 and listed.stdout in (b"", b"abcd"), listed
    ftp = ftp_session(scripted)
    with pytest.raises((EOFError, ConnectionError)):
        ftp.mkd("x")
    ftp.close()
    assert not (scripted.root / "x").exists()


def test_log_has_times_sessions_and_credentials(scripted):
    scripted.curl("/")
    scripted.wait_idle()
    log = scripted.log()
    assert [e["event"] for e in log][0] == "connect"
    assert [e["event"] for e in log][-1] == "disconnect"
    times = [e["time"] for e in log]
    assert all(isinstance(t, float) for t in times) and times == sorted(times)
    assert {e["session"] for e in log} == {1}
    assert scripted.commands()[:2] == [("USER", scripted.user),
                                       ("PASS", scripted.password)]
    assert scripted.args() == ["--host", "127.0.0.1", "--port",
                               str(scripted.port), "--login", scripted.user,
                               "--password", scripted.password]


def test_vsftpd_log_and_account(vsftpd, local_account):
    vsftpd.curl("/")
    assert vsftpd.commands()[:2] == [("USER", local_account.name),
                                     ("PASS", "<password>")]
    assert "FTP response" in vsftpd.log_text()
    entry = pwd.getpwnam(local_account.name)
    assert (entry.pw_uid, entry.pw_gid) == (local_account.uid,
                                            local_account.gid)
    assert os.path.isdir(str(local_account.home))
    assert vsftpd.root.stat().st_uid == local_account.uid


def test_servers_stop_with_sessions_still_open(scripted_factory, request):
    """Stopping a server also ends the sessions it forked."""
    started = [scripted_factory(user="u:x", password="p@ss word")]
    if os.geteuid() == 0 and os.path.exists(VSFTPD):
        account = request.getfixturevalue("local_account")
        server = servers.create("vsftpd", account)
        request.addfinalizer(server.stop)
        started.append(server.start())
    for server in started:
        ftp = ftp_session(server)           # left open on purpose
        pids = [server.proc.pid] + ftptest.descendants(server.proc.pid)
        if server.kind == "vsftpd":
            pids += ftptest.pids_with_cmdline(
                [VSFTPD, str(server.conf_path)])
            # The listener and the open session's own processes: without
            # them the check below would not see a session at all.
            assert len(set(pids)) >= 2, pids
        tmp = server.tmp
        server.stop()
        ftp.close()
        assert not [p for p in pids if ftptest._alive(p)]
        assert not tmp.exists()
        with pytest.raises(OSError):
            socket.create_connection((server.host, server.port), timeout=1)


@pytest.mark.parametrize("kind", ["proftpd", "pureftpd"])
@pytest.mark.parametrize("passive", [True, False], ids=["passive", "active"])
def test_unpacked_daemons_log_in_serve_and_log(request, local_account, kind,
                                               passive):
    server = request.getfixturevalue(kind)
    server.passive = passive
    server.make_file("hello.txt", b"hello\n", mtime=1262304000)
    upload = server.tmp / "upload-src"
    upload.write_bytes(b"uploaded\n")

    listed = server.curl("/")
    got = server.curl("/hello.txt")
    put = server.curl("/sub/new.txt", "-T", str(upload), "--ftp-create-dirs")
    sessions = [ftp_session(server) for _ in range(12)]
    for ftp in sessions:
        ftp.quit()
    server.wait_idle()

    assert listed.status == 0, listed
    assert listed.stdout.endswith(b"Jan  1  2010 hello.txt\n")
    assert (got.status, got.stdout) == (0, b"hello\n")
    assert put.status == 0, put
    stored = server.root / "sub" / "new.txt"
    assert stored.read_bytes() == b"uploaded\n"
    assert stored.stat().st_uid == local_account.uid
    # Every command is logged, the password hidden, in sessions enough to
    # fill a small log queue several times over.
    commands = server.commands()
    password = {"proftpd": "(hidden)", "pureftpd": "<*>"}[kind]
    assert commands[:2] == [("USER", local_account.name), ("PASS", password)]
    assert ftptest.named(commands, "RETR", "MKD", "STOR") == [
        ("RETR", "hello.txt"), ("MKD", "sub"), ("STOR", "new.txt")]
    assert ("EPSV" if passive else "EPRT") in [c for c, _ in commands]
    assert [c for c, _ in commands].count("USER") == 3 + 12


# The servers that fork a process per session, and those that serve every
# session in one process.
FORKING = ["proftpd", "pureftpd", "inetutils", "ftpd-ssl", "gridftp"]
SINGLE = ["twisted", "aioftp"]


@pytest.mark.parametrize("kind", FORKING + SINGLE)
def test_servers_stop_with_a_session_still_open(start_server, kind):
    server = start_server(kind)
    try:
        ftp = ftp_session(server)           # left open on purpose
        pids = [server.proc.pid] + ftptest.descendants(server.proc.pid)
        tmp = server.tmp
        account = getattr(server, "account", None)
        name = account.name if account is not None else None
    finally:
        server.stop()
    ftp.close()
    assert len(pids) >= (2 if kind in FORKING else 1)
    assert not [p for p in pids if ftptest._alive(p)]
    assert not tmp.exists()
    with pytest.raises(OSError):
        socket.create_connection((server.host, server.port), timeout=1)
    if kind in ("inetutils", "ftpd-ssl"):
        # Their own account, whose home was the root, is gone too.
        with pytest.raises(KeyError):
            pwd.getpwnam(name)


@pytest.mark.parametrize("kind", ["twisted", "aioftp", "inetutils",
                                  "ftpd-ssl", "gridftp"])
@pytest.mark.parametrize("passive", [True, False], ids=["passive", "active"])
def test_other_servers_log_in_serve_and_log(start_server, kind, passive):
    server = start_server(kind)
    try:
        server.passive = passive
        server.make_file("hello.txt", b"hello\n", mtime=1262304000)
        upload = server.tmp / "upload-src"
        upload.write_bytes(b"uploaded\n")
        server.wait_idle()
        before = len(server.commands())

        got = server.curl("/hello.txt")
        put = server.curl("/sub/new.txt", "-T", str(upload),
                          "--ftp-create-dirs")
        server.wait_idle()
        commands = server.commands()[before:]

        if kind == "aioftp" and not passive:
            # No PORT nor EPRT: nothing moves in active mode.
            assert got.status != 0 and put.status != 0
            assert "PORT" in [c for c, _ in commands]
            return
        if kind == "gridftp":
            # libcurl sends TYPE I after PASV or EPSV, which GridFTP then
            # ignores: the file comes in ASCII mode (LF as CR LF), cut at
            # the size that SIZE announced.
            assert (got.status, got.stdout) == (0, b"hello\r"), got
        else:
            assert (got.status, got.stdout) == (0, b"hello\n"), got
        assert put.status == 0, put
        stored = server.root / "sub" / "new.txt"
        assert stored.read_bytes() == b"uploaded\n"
        assert stored.stat().st_uid == server.writes_as
        # Every command is logged: the login, the transfers and the data
        # connections of the mode.
        assert commands[0] == ("USER", server.user)
        assert named(commands, "RETR", "MKD", "STOR") == [
            ("RETR", "hello.txt"), ("MKD", "sub"), ("STOR", "new.txt")]
        setup = {"EPSV", "PASV"} if passive else {"EPRT", "PORT"}
        assert setup & {c for c, _ in commands}
    finally:
        server.stop()
