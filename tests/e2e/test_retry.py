"""Retries and back-off, seen from the server's log.

The scripted server refuses the first connections or fails chosen commands;
the times at which it saw each attempt show the waits between retries.
Waits are whole seconds slept by the client, so the bounds below leave
generous room for a slow machine while still telling 0, 1 and 2 s apart.
"""

import re
import time

import pytest

import libcurl


def connect_times(server):
    return [e["time"] for e in server.log() if e["event"] == "connect"]


def gaps(times):
    return [later - earlier for earlier, later in zip(times, times[1:])]


def assert_waits(server, expected):
    measured = gaps(connect_times(server))
    assert len(measured) == len(expected), measured
    for wait, seconds in zip(measured, expected):
        assert seconds <= wait < seconds + 0.7, (measured, expected)


def entries_of_d(server):
    # A repeated request on a kept connection first returns to the login
    # directory ("CWD /"), then enters "d" again.
    return [(c, a) for c, a in server.commands() if c == "CWD"].count(("CWD", "d"))


def list_run(brindle, server, *extra, path="/a.txt"):
    return brindle.run("--list", *server.args(), "--remote-path", path, *extra,
                       timeout=30)


def refused_failure(server):
    # A "421" greeting reaches the client as a time-out with an empty error
    # text, so the message ends right after the URL.
    return ("Unable to perform request for 'ftp://127.0.0.1:%d/.': \n"
            % server.port).encode()


def test_no_retry_by_default(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"refuse_connections": 1})
    result = list_run(brindle, scripted)
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", refused_failure(scripted))
    assert len(connect_times(scripted)) == 1


def test_growing_back_off_without_retry_delay(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"refuse_connections": 3})
    result = list_run(brindle, scripted, "--retry", "3")
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert_waits(scripted, [0, 1, 2])


def test_constant_back_off_with_retry_delay(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"refuse_connections": 2})
    result = list_run(brindle, scripted, "--retry", "3", "--retry-delay", "1")
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert_waits(scripted, [1, 1])


def test_explicit_zero_delay_retries_at_once(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"refuse_connections": 3})
    result = list_run(brindle, scripted, "--retry", "3", "--retry-delay", "0")
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert_waits(scripted, [0, 0, 0])


def test_gives_up_when_the_retries_are_spent(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"refuse_connections": 10})
    result = list_run(brindle, scripted, "--retry", "2", "--retry-delay", "0")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", refused_failure(scripted))
    assert len(connect_times(scripted)) == 3


def test_refused_connections_are_retried(brindle, scripted):
    # Nothing listens to count the attempts: the two waits of a second
    # between three attempts show them (one retry more or less is a second
    # more or less).
    port = scripted.port
    scripted.stop()
    started = time.monotonic()
    result = brindle.run("--list", "--host", "127.0.0.1", "--port", str(port),
                         "--remote-path", "/.", "--retry", "2",
                         "--retry-delay", "1")
    elapsed = time.monotonic() - started
    assert 2 <= elapsed < 2.7, elapsed
    assert result.status == 1
    assert re.match(
        re.escape("Unable to perform request for 'ftp://127.0.0.1:%d/.': "
                  % port) + libcurl.connect_failure("127.0.0.1", port),
        result.stderr.decode())


def test_a_login_failure_is_permanent(brindle, scripted):
    scripted.make_file("a.txt")
    scripted.script({"failures": [{"command": "PASS",
                                   "reply": "530 Login incorrect."}]})
    result = list_run(brindle, scripted, "--retry", "3", "--retry-delay", "0")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Unable to perform request for 'ftp://127.0.0.1:%d/.': "
                b"Access denied: 530\n" % scripted.port)
    assert [c for c, _ in scripted.commands() if c == "USER"] == ["USER"]


def test_a_permanent_reply_is_not_retried(brindle, scripted):
    scripted.make_dir("d")
    scripted.make_file("d/a.txt")
    scripted.script({"failures": [{"command": "CWD", "arg": "d",
                                   "reply": "550 Nope."}]})
    result = list_run(brindle, scripted, "--retry", "3", "--retry-delay", "0",
                      path="/d/a.txt")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Unable to perform request for 'ftp://127.0.0.1:%d/d/.': "
                b"Server denied you to change to the given directory\n"
                % scripted.port)
    assert [a for c, a in scripted.commands() if c == "CWD"] == ["d"]


@pytest.mark.parametrize("reply", ["450 Directory busy, try later.",
                                   "421 Too busy."])
def test_a_transient_reply_is_retried(brindle, scripted, reply):
    scripted.make_dir("d")
    scripted.make_file("d/a.txt")
    scripted.script({"failures": [{"command": "CWD", "arg": "d",
                                   "reply": reply, "times": 2}]})
    result = list_run(brindle, scripted, "--retry", "2", "--retry-delay", "0",
                      path="/d/a.txt")
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert entries_of_d(scripted) == 3


def test_a_transient_reply_fails_when_the_retries_are_spent(brindle, scripted):
    scripted.make_dir("d")
    scripted.make_file("d/a.txt")
    scripted.script({"failures": [{"command": "CWD", "arg": "d",
                                   "reply": "450 Busy."}]})
    result = list_run(brindle, scripted, "--retry", "1", "--retry-delay", "0",
                      path="/d/a.txt")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Unable to perform request for 'ftp://127.0.0.1:%d/d/.': "
                b"Server denied you to change to the given directory\n"
                % scripted.port)
    assert entries_of_d(scripted) == 2


def drop_the_first_listing_of_d(server):
    """"/d" names "first" and "second"; the server hangs up on the first
    NLST of it after "first\n"."""
    server.make_dir("d")
    server.script({
        "nlst": {"/d": {"lines": ["first", "second"], "eol": "\n"}},
        "drop": [{"command": "NLST", "after_bytes": 6, "times": 1}]})


def test_a_retried_listing_keeps_what_the_failed_attempt_wrote(brindle,
                                                               scripted):
    drop_the_first_listing_of_d(scripted)
    result = list_run(brindle, scripted, "--retry", "1", "--retry-delay", "0",
                      path="/d/.")
    assert result.status == 0, result
    assert result.stdout == b"first\nfirst\nsecond\n"


def test_the_first_retry_after_the_server_hung_up_logs_in_anew(brindle,
                                                               scripted):
    # Without "--retry-delay" the first retry follows at once. The server
    # closed the connection of the failed attempt, so the retry must log in
    # on a new one instead of sending its commands into the closed one.
    drop_the_first_listing_of_d(scripted)
    result = list_run(brindle, scripted, "--retry", "1", path="/d/.")
    assert (result.status, result.stdout, result.stderr) == (
        0, b"first\nfirst\nsecond\n", b"")
    assert [c for c, _ in scripted.commands() if c == "USER"] == [
        "USER", "USER"]
    assert len(connect_times(scripted)) == 2


def test_a_450_listing_reads_as_an_empty_directory(brindle, scripted):
    # libcurl takes "450" to LIST or NLST for "no files", not for a failure,
    # so there is nothing to retry.
    scripted.make_dir("d")
    scripted.make_file("d/a.txt")
    scripted.script({"failures": [{"command": "LIST", "reply": "450 Busy."}]})
    result = list_run(brindle, scripted, "--retry", "2", "--retry-delay", "0",
                      "--long-listing", path="/d/.")
    assert (result.status, result.stdout, result.stderr) == (0, b"", b"")
    result = list_run(brindle, scripted, "--retry", "2", "--retry-delay", "0",
                      path="/d/a.txt")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Unable to find remote path '/d/a.txt'\n")
    assert [c for c, _ in scripted.commands() if c == "LIST"] == ["LIST", "LIST"]


def test_a_retry_without_a_login_directory_logs_in_anew(brindle, scripted,
                                                       local_account):
    # The server refuses PWD, so no kept connection can be brought back to
    # the login directory. The first attempt enters "up", makes "sub" and
    # fails to enter it; were its connection used again, the retry's
    # "CWD up" would make and fill "up/up".
    scripted.script({"login_dir": "/home/u", "failures": [
        {"command": "PWD", "reply": "550 PWD refused"},
        {"command": "CWD", "arg": "sub", "reply": "450 Busy.", "times": 2}]})
    scripted.make_dir("home/u")
    local = brindle.workdir / "up"
    (local / "sub").mkdir(parents=True)
    (local / "sub" / "b.bin").write_bytes(b"data")
    for path in (local, local / "sub", local / "sub" / "b.bin"):
        local_account.chown(path)

    result = brindle.run("--upload", *scripted.args(),
                         "--local-user", local_account.name,
                         "--local-path", str(local), "--remote-path", ".",
                         "--recursive",
                         "--retry", "1", "--retry-delay", "0", timeout=30)

    assert (result.status, result.stdout, result.stderr) == (0, b"", b"")
    assert scripted.path("home/u/up/sub/b.bin").read_bytes() == b"data"
    assert not scripted.path("home/u/up/up").exists()
    assert [(c, a) for c, a in scripted.commands()
            if c in ("USER", "CWD", "MKD", "STOR")] == [
        ("USER", "tester"), ("CWD", "up"), ("MKD", "up"), ("CWD", "up"),
        ("CWD", "sub"), ("MKD", "sub"), ("CWD", "sub"),
        ("USER", "tester"), ("CWD", "up"), ("CWD", "sub"), ("STOR", "b.bin")]
