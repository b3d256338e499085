"""brindle waits for its transfers either with curl_easy_perform ("easy") or,
for libcurl releases before 8.4.0, with its own loop over a multi handle
("multi").  The choice must not show on the wire: a tree download, a tree
upload, two tree removes, a listing and two lookups (one in active mode,
one retried) send exactly the same command lines, in the same order and on
the same connections, on both paths.  Each path is forced with the
test-only variable BRINDLE_TEST_WAIT_LOOP.
"""

import os

import pytest

import ftptest
from ftptest import DIR, snapshot

TIMEOUT = 30
# 2020-01-01 00:00 UTC.
FIXED_TIME = 1577836800

LOGIN = ["USER tester", "PASS secret", "PWD"]

# What the server receives in each run: per connection (numbered from 1 in
# each run) its command lines, in the order of arrival.
EXPECTED = {
    "download": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            # The lookup of /tree lists the login directory.
            "EPSV", "TYPE A", "LIST",
            "CWD /", "CWD tree", "EPSV", "LIST",
            "EPSV", "TYPE I", "SIZE a.txt", "RETR a.txt",
            "CWD /", "CWD tree", "CWD d", "EPSV", "TYPE A", "LIST",
            "EPSV", "TYPE I", "SIZE b.txt", "RETR b.txt",
            "EPSV", "SIZE c.txt", "RETR c.txt",
            "QUIT"]]],
    "upload": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "CWD up", "MKD up", "CWD up", "EPSV", "TYPE I", "STOR one.txt",
            "CWD /", "CWD up", "CWD sub", "MKD sub", "CWD sub", "EPSV",
            "STOR two.txt",
            "QUIT"]]],
    "remove": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "EPSV", "TYPE A", "LIST",
            "CWD /", "CWD rm", "EPSV", "LIST",
            "CWD /", "CWD rm", "CWD e", "EPSV", "LIST",
            "NOOP", "DELE /rm/e/y.txt", "RMD /rm/e", "DELE /rm/x.txt",
            "RMD /rm",
            "CWD /", "EPSV", "LIST",
            "QUIT"]]],
    # A relative path: the commands go over a fresh connection, and both
    # connections are closed at the end.
    "remove-relative": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "EPSV", "TYPE A", "LIST",
            "CWD /", "CWD rm2", "EPSV", "LIST"]],
        (2, "<connect>"), *[(2, line) for line in LOGIN + [
            "NOOP", "DELE rm2/z.txt", "RMD rm2",
            "EPSV", "TYPE A", "LIST"]],
        (1, "QUIT"), (2, "QUIT")],
    "list": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "CWD tree", "EPSV", "TYPE A", "LIST",
            "QUIT"]]],
    "list-active": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "CWD tree", "CWD d", "EPRT <address>", "TYPE A", "LIST",
            "QUIT"]]],
    # The first "CWD d" is answered "450 Busy.", so the request is repeated
    # on the same connection.
    "list-retried": [
        (1, "<connect>"), *[(1, line) for line in LOGIN + [
            "CWD tree", "CWD d",
            "CWD /", "CWD tree", "CWD d", "EPSV", "TYPE A", "LIST",
            "QUIT"]]],
}


def runs(account, work):
    """(name, brindle arguments, server script) of every run."""
    return [
        ("download", ["--download", "--recursive", "--local-user",
                      account.name, "--remote-path", "/tree",
                      "--local-path", str(work / "out")], None),
        ("upload", ["--upload", "--recursive", "--local-user", account.name,
                    "--local-path", str(work / "src"),
                    "--remote-path", "/up"], None),
        ("remove", ["--remove", "--recursive", "--remote-path", "/rm"], None),
        ("remove-relative", ["--remove", "--recursive",
                             "--remote-path", "rm2"], None),
        ("list", ["--list", "--long-listing", "--remote-path", "/tree/."],
         None),
        ("list-active", ["--list", "--passive-mode", "0",
                         "--remote-path", "/tree/d/b.txt"], None),
        ("list-retried", ["--list", "--retry", "1", "--retry-delay", "0",
                          "--remote-path", "/tree/d/b.txt"],
         {"failures": [{"command": "CWD", "arg": "d", "reply": "450 Busy.",
                        "times": 1}]}),
    ]


def wire_events(log):
    """("<connect>" or the exact command line) per event of the log, with
    connections numbered from 1 and active-mode addresses masked."""
    sessions = {}
    found = []
    for event in log:
        if event["event"] not in ("connect", "command"):
            continue
        session = sessions.setdefault(event["session"], len(sessions) + 1)
        if event["event"] == "connect":
            found.append((session, "<connect>"))
        elif event["command"] in ("PORT", "EPRT"):
            found.append((session, event["command"] + " <address>"))
        else:
            found.append((session, event["line"]))
    return found


def prepare(server, account, work):
    work.mkdir()
    for rel, data in (("src/one.txt", b"one\n"), ("src/sub/two.txt", b"two\n")):
        path = work / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
    for path in [work, *work.rglob("*")]:
        account.chown(path)
    server.make_file("tree/a.txt", b"alpha\n")
    server.make_file("tree/d/b.txt", b"beta\n")
    server.make_file("tree/d/c.txt", b"gamma\n")
    server.make_file("rm/x.txt", b"x")
    server.make_file("rm/e/y.txt", b"y")
    server.make_file("rm2/z.txt", b"z")
    # The long listing shows times to the minute: fixed ones, so that the two
    # wait paths' runs list the same bytes even across a minute's turn.
    for rel in ("tree/a.txt", "tree/d"):
        os.utime(str(server.path(rel)), (FIXED_TIME, FIXED_TIME))


def run_everything(brindle, server, account, wait_path):
    """Every run against `server` on `wait_path`; returns the wire events
    and the standard output of each run."""
    work = brindle.workdir / wait_path
    prepare(server, account, work)
    seen = {}
    for name, args, script in runs(account, work):
        server.script(script)
        before = len(server.log())
        result = brindle.run(*args, *server.args(), cwd=work, timeout=TIMEOUT,
                             env={ftptest.WAIT_LOOP: wait_path})
        assert (result.status, result.stderr) == (0, b""), result
        assert server.wait_idle()
        seen[name] = (wire_events(server.log()[before:]), result.stdout)
    assert snapshot(work / "out") == {
        "a.txt": b"alpha\n", "d": DIR, "d/b.txt": b"beta\n",
        "d/c.txt": b"gamma\n"}
    assert snapshot(server.path("up")) == {
        "one.txt": b"one\n", "sub": DIR, "sub/two.txt": b"two\n"}
    assert not server.path("rm").exists()
    assert not server.path("rm2").exists()
    return seen


@pytest.mark.parametrize("wait_path", ftptest.WAIT_PATHS)
def test_each_wait_path_sends_the_expected_commands(
        brindle, scripted_factory, local_account, wait_path):
    seen = run_everything(brindle, scripted_factory(), local_account,
                          wait_path)
    assert {name: events for name, (events, _) in seen.items()} == EXPECTED
    assert seen["list-active"][1] == b"b.txt\n"
    assert seen["list-retried"][1] == b"b.txt\n"


def test_both_wait_paths_send_the_same_bytes(brindle, scripted_factory,
                                             local_account):
    easy = run_everything(brindle, scripted_factory(), local_account, "easy")
    multi = run_everything(brindle, scripted_factory(), local_account,
                           "multi")
    assert easy == multi
