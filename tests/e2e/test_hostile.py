"""brindle against a hostile or broken FTP server.

The scripted server vanishes in the middle of a listing or a transfer,
sends a listing line of 1 MiB or listings of 200,000 lines, answers
commands with garbage, unexpected codes or malformed replies, lists a
directory inside itself, and sends names with control characters and bytes
that are not UTF-8.  Every test checks the exit status (a crash would show
as a signal, that is a negative status here), both output channels byte for
byte, and for downloads everything in the working directory around the
target, before and after.

Where a message ends in libcurl's own text (its error buffer), the text is
the one that the libcurl in use writes; where releases differ (7.88 on
Debian 12, 8.14 on Debian 13), each one's exact text is chosen by the
running libcurl's version (libcurl.py).
"""

import os
import re
import subprocess
import time

import pytest

import ftptest
import libcurl
from ftptest import DIR, b64, snapshot

# Every run here ends within a few seconds; a hang fails the test instead of
# stalling the suite.
TIMEOUT = 20
# Runs that move 200,000 lines.
BIG_TIMEOUT = 60

MIB = 1 << 20
COUNT = 200000
# The longest path the kernel takes, terminating NUL included.
PATH_MAX = 4096
# A long but valid file name, so that loops reach PATH_MAX in few steps.
LONG = "L" * 200

# libcurl's error text when the control connection ends where it waits for
# a reply.  The number is whatever errno an earlier call left behind: that
# of the non-blocking connect (EINPROGRESS, 115) or of a read that found
# nothing yet (EAGAIN, 11), depending on timing.
CONTROL_CLOSED = re.compile(rb"response reading failed \(errno: (11|115)\)")

# libcurl's error text for a reply line that holds a NUL byte, which the
# libcurl of Debian unstable (8.23) rejects, ending the request, where 7.88
# and 8.14 (Debian 12 and 13) read the line as any other.
NUL_IN_REPLY = "NUL byte in server response line"


# An unreadable 227 reply: "Couldn't" up to 8.14, "Could not" in 8.23.
UNREADABLE_227 = re.compile("Could(n't| not) interpret the 227-response")


def rejects_nul_in_replies():
    """Whether the libcurl in use fails a request at a reply line with a
    NUL byte in it: releases after 8.14 (8.15 stands for the first; 8.14.1
    does not, 8.23.0 does)."""
    return libcurl.at_least(8, 15)


# ------------------------------------------------------------------ helpers

def unix_line(kind, name, size=0):
    """A Unix long-listing line (text or bytes, as name is)."""
    modes = {"-": "rw-r--r--", "d": "rwxr-xr-x", "l": "rwxrwxrwx",
             "p": "rw-r--r--"}
    head = "%s%s 1 owner group %d Jan 01  2020 " % (kind, modes[kind], size)
    if isinstance(name, bytes):
        return head.encode() + name
    return head + name


def raw_lines(*lines):
    """A scripted listing of byte lines, each ended by a line feed only, so
    that libcurl hands it on unchanged."""
    return {"lines": [b64(line) for line in lines], "eol": "\n"}


def request_failure(server, path, text):
    """The message of a failed request for path (already in URL form)."""
    return ("Unable to perform request for 'ftp://127.0.0.1:%d%s': %s\n"
            % (server.port, path, text)).encode()


def assert_request_failed(result, server, path, text):
    """The request for path failed with nothing on stdout, and libcurl's
    text in the message is text: a string, exactly, or a compiled pattern
    that all of it matches."""
    if isinstance(text, str):
        assert outcome(result) == (1, b"", request_failure(server, path,
                                                           text))
        return
    assert (result.status, result.stdout) == (1, b""), result
    head = request_failure(server, path, "").decode()[:-1]
    assert result.stderr_text.startswith(head), result
    assert result.stderr_text.endswith("\n"), result
    assert text.fullmatch(result.stderr_text[len(head):-1]), result


def assert_control_closed(result, server, path, stdout=b""):
    """The request for path failed because the server hung up where a
    reply was due; stdout is what was printed before."""
    assert (result.status, result.stdout) == (1, stdout), result
    head = request_failure(server, path, "")[:-1]
    assert result.stderr.startswith(head), result
    assert result.stderr.endswith(b"\n"), result
    assert CONTROL_CLOSED.fullmatch(result.stderr[len(head):-1]), result


def outcome(result):
    return (result.status, result.stdout, result.stderr)


def arg(value):
    """A command-line argument from bytes, passed on unchanged."""
    return os.fsdecode(value) if isinstance(value, bytes) else value


def list_run(brindle, server, path, *flags, timeout=TIMEOUT):
    return brindle.run("--list", *server.args(), "--remote-path", arg(path),
                       *flags, timeout=timeout)


def remove_run(brindle, server, path, *flags, timeout=TIMEOUT):
    return brindle.run("--remove", *server.args(), "--remote-path", arg(path),
                       *flags, timeout=timeout)


def quote_commands(server):
    """The commands of a removal's command list that the server received."""
    return ftptest.named(server.commands(), "NOOP", "DELE", "RMD")


class Local(object):
    """brindle's side of a transfer: a working directory owned by the local
    account, holding a "sandbox" directory with one file of the user's that
    the target is placed next to.  Transfers run as that account."""

    def __init__(self, brindle, account):
        self.brindle = brindle
        self.account = account
        self.workdir = brindle.workdir
        account.chown(self.workdir)
        self.write("sandbox/keep.txt", b"keep")

    def write(self, rel, data):
        path = self.workdir / rel
        if not path.parent.exists():
            path.parent.mkdir(parents=True)
            self.account.chown(path.parent)
        path.write_bytes(data)
        self.account.chown(path)
        return path

    def download(self, server, remote, local, *flags, timeout=TIMEOUT):
        return self.brindle.run(
            "--download", *server.args(), "--local-user", self.account.name,
            "--remote-path", arg(remote), "--local-path", arg(local), *flags,
            timeout=timeout)

    def upload(self, server, local, remote, *flags, timeout=TIMEOUT):
        return self.brindle.run(
            "--upload", *server.args(), "--local-user", self.account.name,
            "--local-path", arg(local), "--remote-path", arg(remote), *flags,
            timeout=timeout)

    def tree(self):
        return snapshot(self.workdir)


@pytest.fixture
def local(brindle, local_account):
    return Local(brindle, local_account)


# ------------------------------------------- the server vanishes midway

def test_control_connection_dropped_during_contents_listing(brindle,
                                                            scripted):
    scripted.make_dir("d")
    lines = [unix_line("-", "f%d" % i, i).encode() for i in range(50)]
    body = b"".join(line + b"\n" for line in lines)
    scripted.script({"listings": {"/d": raw_lines(*lines)},
                     "drop": [{"command": "LIST", "after_bytes": 100}]})

    result = list_run(brindle, scripted, "/d/.", "--long-listing")

    # What arrived before the drop has been passed on; then the request
    # fails once, as no retries were asked for.
    assert_control_closed(result, scripted, "/d/.", stdout=body[:100])
    assert ftptest.named(scripted.commands(), "LIST") == [("LIST", "")]


def test_control_connection_dropped_during_entry_lookup(brindle, scripted):
    scripted.make_dir("d")
    lines = [unix_line("-", "f%d" % i, i).encode() for i in range(50)]
    scripted.script({"listings": {"/d": raw_lines(*lines)},
                     "drop": [{"command": "LIST", "after_bytes": 100}]})

    result = list_run(brindle, scripted, "/d/f0")

    # The listing is parsed only once it is complete: nothing is printed.
    assert_control_closed(result, scripted, "/d/.")


def test_control_connection_dropped_during_a_removal_walk(brindle,
                                                          scripted):
    # The server hangs up when the walk enters a subdirectory: nothing has
    # been deleted.
    scripted.make_file("d/a.txt", b"a")
    scripted.make_file("d/sub/b.txt", b"b")
    scripted.script({"drop": [{"command": "CWD", "arg": "sub"}]})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    assert_control_closed(result, scripted, "/d/sub/.")
    assert quote_commands(scripted) == []
    assert scripted.path("d/a.txt").exists()
    assert scripted.path("d/sub/b.txt").exists()


def test_control_connection_dropped_during_download(scripted, local):
    data = bytes(range(256)) * 400
    scripted.make_file("d/big.bin", data)
    scripted.script({"drop": [{"command": "RETR", "after_bytes": 1000}]})
    before = local.tree()

    # A short transfer is a permanent failure: "--retry" does not repeat it.
    result = local.download(scripted, "/d/big.bin", "sandbox/big.bin",
                            "--retry", "2", "--retry-delay", "0")

    assert outcome(result) == (1, b"", request_failure(
        scripted, "/d/big.bin",
        "transfer closed with %d bytes remaining to read"
        % (len(data) - 1000)))
    # The part that arrived stays, in the target only.
    assert local.tree() == dict(before, **{"sandbox/big.bin": data[:1000]})
    assert ftptest.named(scripted.commands(), "RETR") == [("RETR", "big.bin")]


def test_control_connection_dropped_during_upload(scripted, local):
    # The server keeps the first 1000 bytes, takes the rest without keeping
    # it, and hangs up once the client has sent everything: the client
    # finds the connection closed when it waits for the final reply.  (A
    # server that hung up at once would reset the data connection, and
    # libcurl 8 may meet that reset when it closes the data connection,
    # depending on timing.)
    data = bytes(range(256)) * 80
    local.write("sandbox/up.bin", data)
    scripted.make_dir("d")
    scripted.script({"drop": [{"command": "STOR", "after_bytes": 1000,
                               "drain": True}]})
    before = local.tree()

    result = local.upload(scripted, "sandbox/up.bin", "/d/up.bin")

    assert_control_closed(result, scripted, "/d/up.bin")
    assert scripted.path("d/up.bin").read_bytes() == data[:1000]
    assert local.tree() == before


def test_connection_reset_during_recursive_download_keeps_earlier_files(
        scripted, local):
    scripted.make_file("d/a.txt", b"alpha")
    scripted.make_file("d/b.bin", b"b" * 5000)
    scripted.make_file("d/c.txt", b"never fetched")
    scripted.script({
        "listings": {"/d": raw_lines(unix_line("-", "a.txt", 5).encode(),
                                     unix_line("-", "b.bin", 5000).encode(),
                                     unix_line("-", "c.txt", 13).encode())},
        "drop": [{"command": "RETR", "arg": "b.bin", "after_bytes": 10,
                  "reset": True}]})
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive")

    assert outcome(result) == (1, b"", request_failure(
        scripted, "/d/b.bin", "Recv failure: Connection reset by peer"))
    assert local.tree() == dict(before, **{
        "sandbox/out": DIR, "sandbox/out/a.txt": b"alpha",
        "sandbox/out/b.bin": b"b" * 10})


def test_reset_download_is_retried_and_written_on(scripted, local):
    # A reset is transient: the retry fetches the file again and writes it
    # after what the failed attempt left in the file.
    scripted.make_file("d/b.bin", b"0123456789" * 500)
    scripted.script({"drop": [{"command": "RETR", "after_bytes": 10,
                               "reset": True, "times": 1}]})
    before = local.tree()

    result = local.download(scripted, "/d/b.bin", "sandbox/b.bin",
                            "--retry", "1", "--retry-delay", "0")

    assert outcome(result) == (0, b"", b"")
    assert local.tree() == dict(before, **{
        "sandbox/b.bin": b"0123456789" + b"0123456789" * 500})
    assert ftptest.named(scripted.commands(), "RETR") == [
        ("RETR", "b.bin"), ("RETR", "b.bin")]


# ------------------------------------------------------ a line of 1 MiB

def test_mebibyte_line_passes_through_contents_listing(brindle, scripted):
    scripted.make_dir("d")
    huge = unix_line("-", "n" * MIB, 5).encode()
    after = unix_line("-", "after", 1).encode()
    scripted.script({"listings": {"/d": raw_lines(huge, after)}})

    result = list_run(brindle, scripted, "/d/.", "--long-listing")

    assert outcome(result) == (0, huge + b"\n" + after + b"\n", b"")


def test_mebibyte_name_is_parsed_on_the_way_to_an_entry(brindle, scripted):
    scripted.make_dir("d")
    huge = unix_line("-", "n" * MIB, 5).encode()
    after = unix_line("-", "after", 1).encode()
    scripted.script({"listings": {"/d": raw_lines(huge, after)}})

    assert outcome(list_run(brindle, scripted, "/d/after")) == (
        0, b"after\n", b"")


@pytest.mark.parametrize("line", [
    b"x" * MIB,
    # Long runs for the pattern to backtrack over: all of them fail.
    b"-rw-r--r--" + b" " * MIB + b"x",
    b"-rw-r--r-- " + b"1 " * (MIB // 2),
    b"-rw-r--r-- 1 u g 5 " + b"Jan 1 " * (MIB // 6),
    b"01-01-20  10:00AM" + b" " * MIB + b"x",
], ids=["garbage", "blanks", "numbers", "dates", "dos-blanks"])
def test_mebibyte_unparseable_line_fails_the_lookup(brindle, scripted, line):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": raw_lines(
        line, unix_line("-", "after", 1).encode())}})

    result = list_run(brindle, scripted, "/d/after")

    assert outcome(result) == (
        1, b"", b"Unable to parse FTP LIST output '" + line + b"'\n")


def test_mebibyte_name_in_a_download_is_refused_by_the_local_disk(
        scripted, local):
    scripted.make_dir("d")
    name = "n" * MIB
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("-", "a.txt", 1).encode(),
        unix_line("-", name, 5).encode())}})
    scripted.make_file("d/a.txt", b"a")
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive")

    assert outcome(result) == (1, b"", (
        "Unable to open 'sandbox/out/%s' for writing: File name too long\n"
        % name).encode())
    assert local.tree() == dict(before, **{
        "sandbox/out": DIR, "sandbox/out/a.txt": b"a"})
    # The name never reached the server as a request.
    assert ftptest.named(scripted.commands(), "RETR") == [("RETR", "a.txt")]


def test_mebibyte_name_in_a_removal_is_never_sent(brindle, scripted):
    scripted.make_file("d/a.txt", b"a")
    name = "n" * MIB
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("-", "a.txt", 1).encode(),
        unix_line("-", name, 5).encode())}})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    # libcurl does not send a command line that long (its limit is below
    # 64 kB) and leaves its error text empty; the commands before it have
    # taken effect. A command longer than the budget of a request gets a
    # request of its own, which fails at it after its own NOOP.
    assert outcome(result) == (1, b"", request_failure(scripted, "", ""))
    assert quote_commands(scripted) == [
        ("NOOP", ""), ("DELE", "/d/a.txt"), ("NOOP", "")]
    assert not scripted.path("d/a.txt").exists()
    assert scripted.path("d").is_dir()


# ------------------------------------------------ 200,000 listing lines

def generated(fmt, count=COUNT):
    return {"generate": {"count": count, "format": fmt}, "eol": "\n"}


FILE_FORMAT = "-rw-r--r-- 1 u g {i} Jan 01  2020 f{i}"


def expected_lines(fmt, count=COUNT):
    return "".join(fmt.format(i=i) + "\n" for i in range(count)).encode()


def test_long_contents_listing_of_200000_lines(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": generated(FILE_FORMAT)}})

    result = list_run(brindle, scripted, "/d/.", "--long-listing",
                      timeout=BIG_TIMEOUT)

    assert outcome(result) == (0, expected_lines(FILE_FORMAT), b"")


def test_short_contents_listing_of_200000_lines(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"nlst": {"/d": generated("f{i}")}})

    result = list_run(brindle, scripted, "/d/.", timeout=BIG_TIMEOUT)

    assert outcome(result) == (0, expected_lines("f{i}"), b"")


@pytest.mark.parametrize("flags,stdout", [
    ((), b"f199999\n"),
    (("--long-listing",), b"-rw-r--r-- 1 u g 199999 Jan 01  2020 f199999\n"),
], ids=["short", "long"])
def test_entry_found_at_the_end_of_200000_lines(brindle, scripted, flags,
                                                stdout):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": generated(FILE_FORMAT)}})

    result = list_run(brindle, scripted, "/d/f199999", *flags,
                      timeout=BIG_TIMEOUT)

    assert outcome(result) == (0, stdout, b"")


def test_entry_missing_from_200000_lines(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": generated(FILE_FORMAT)}})

    result = list_run(brindle, scripted, "/d/f200000", timeout=BIG_TIMEOUT)

    assert outcome(result) == (
        1, b"", b"Unable to find remote path '/d/f200000'\n")


def test_recursive_download_of_200000_entries(scripted, local):
    # Named pipes: each is one skip line and no request, so the walk over
    # the whole listing takes no more than a moment.
    scripted.make_dir("d")
    fmt = "prw-r--r-- 1 u g 0 Jan 01  2020 p{i}"
    scripted.script({"listings": {"/d": generated(fmt)}})
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive",
                            timeout=BIG_TIMEOUT)

    assert outcome(result) == (0, b"".join(
        b"skip '\"/d/p%d\"': unsupported file type\n" % i
        for i in range(COUNT)), b"")
    assert local.tree() == dict(before, **{"sandbox/out": DIR})


def test_recursive_removal_of_200000_entries(brindle, scripted):
    # The whole list of 200,001 commands is collected and sent; the server
    # accepts the first three deletions and refuses the fourth, which ends
    # the request.
    scripted.make_dir("d")
    scripted.script({
        "listings": {"/d": generated(FILE_FORMAT)},
        "failures": [{"command": "DELE", "reply": "250 Deleted.",
                      "times": 3}]})

    result = remove_run(brindle, scripted, "/d", "--recursive",
                        timeout=BIG_TIMEOUT)

    assert outcome(result) == (1, b"", request_failure(
        scripted, "", "QUOT command failed with 550"))
    assert quote_commands(scripted) == [("NOOP", "")] + [
        ("DELE", "/d/f%d" % i) for i in range(4)]
    assert scripted.path("d").is_dir()


# ------------------------------------------ garbage and unexpected replies

def rule(command, reply, **extra):
    """A failure rule that answers command with reply (text, or bytes sent
    as they are, with no line end added)."""
    fields = {"command": command}
    if isinstance(reply, bytes):
        fields["reply_b64"] = b64(reply)["b64"]
    else:
        fields["reply"] = reply
    fields.update(extra)
    return fields


NO_EPSV = rule("EPSV", "500 EPSV not understood.")
DENIED_CWD = "Server denied you to change to the given directory"


def impossible_pasv_address(server):
    """libcurl's text for the reply "227 Entering (999,0,0,1,4,1).", and
    how many times brindle connects.  libcurl 7.88 rejects the reply: a
    permanent failure.  libcurl 8.0 and later look for six numbers that
    each fit a byte: they skip the first "9" and take 99.0.0.1 and port
    1025, ignore the address as always, and fail to connect to port 1025
    of the control connection's host (naming the control connection's
    port): a refused connection, which is transient, so each retry
    connects again."""
    if libcurl.at_least(8, 0):
        return (re.compile(libcurl.connect_failure(server.host,
                                                   server.port)), 3)
    return "Couldn't interpret the 227-response", 1


@pytest.mark.parametrize("script,text", [
    ({"greeting": "500 Go away."},
     "Got a 500 ftp-server response when 220 was expected"),
    ({"failures": [rule("USER", "999 Who?")]}, "Access denied: 999"),
    ({"failures": [rule("PASS", "331 Password again.")]},
     "Access denied: 331"),
    # A login that needs no password: the server then refuses the client,
    # which never logged in, to change directory.
    ({"failures": [rule("USER", "230 Come in.")]}, DENIED_CWD),
    ({"failures": [rule("CWD", "150 Opening.")]}, DENIED_CWD),
    ({"failures": [rule("EPSV", "229 Nothing here.")]},
     "Weirdly formatted EPSV reply"),
    ({"failures": [NO_EPSV, rule("PASV", "227 Garbage.")]},
     UNREADABLE_227),
    ({"failures": [NO_EPSV, rule("PASV", "227 Entering (999,0,0,1,4,1).")]},
     impossible_pasv_address),
    ({"failures": [NO_EPSV, rule("PASV", "500 No.")]},
     "Bad PASV/EPSV response: 500"),
    ({"failures": [rule("LIST", "200 OK.")]}, "RETR response: 200"),
    ({"failures": [rule("LIST", "226 Done.")]}, "RETR response: 226"),
], ids=["greeting", "USER", "PASS", "USER-230", "CWD", "EPSV", "PASV-text",
        "PASV-address", "PASV-500", "LIST-200", "LIST-226"])
def test_unexpected_reply_fails_the_listing(brindle, scripted, script, text):
    scripted.make_file("d/f", b"data")
    scripted.script(script)

    result = list_run(brindle, scripted, "/d/f", "--retry", "2",
                      "--retry-delay", "0")

    # None of these is transient (but see impossible_pasv_address): one
    # attempt only.
    text, attempts = text(scripted) if callable(text) else (text, 1)
    assert_request_failed(result, scripted, "/d/.", text)
    assert [e["event"] for e in scripted.log()].count("connect") == attempts


def test_refused_data_connection_setup_in_active_mode(brindle, scripted):
    scripted.make_file("d/f", b"data")
    scripted.passive = False
    scripted.script({"failures": [rule("EPRT", "500 No."),
                                  rule("PORT", "500 No.")]})

    result = list_run(brindle, scripted, "/d/f")

    # libcurl 7.88 keeps the first text it recorded for the data
    # connection's set-up (a complaint about the listening socket's unset
    # peer address), not the reason of the failure; libcurl 8.0 and later
    # no longer record that text and name the failure.
    if libcurl.at_least(8, 0):
        text = "Failed to do PORT"
    else:
        text = ("sa_addr inet_ntop() failed with errno 97: "
                "Address family not supported by protocol")
    assert outcome(result) == (1, b"", request_failure(scripted, "/d/.",
                                                       text))
    assert [c for c, a in ftptest.named(
        scripted.commands(), "EPRT", "PORT", "LIST")] == ["EPRT", "PORT"]


@pytest.mark.parametrize("reply,text", [
    ("226 Done.", "RETR response: 226"),
    ("550 No such file.", "RETR response: 550"),
], ids=["226", "550"])
def test_unexpected_reply_to_retr(scripted, local, reply, text):
    scripted.make_file("d/f", b"data")
    scripted.script({"failures": [rule("RETR", reply)]})
    before = local.tree()

    result = local.download(scripted, "/d/f", "sandbox/f")

    assert outcome(result) == (1, b"", request_failure(scripted, "/d/f",
                                                       text))
    # The local file is opened before the request: it stays, empty.
    assert local.tree() == dict(before, **{"sandbox/f": b""})


def test_unexpected_reply_to_stor(scripted, local):
    local.write("sandbox/up.bin", b"data")
    scripted.make_dir("d")
    scripted.script({"failures": [rule("STOR", "553 Not allowed.")]})
    before = local.tree()

    result = local.upload(scripted, "sandbox/up.bin", "/d/up.bin")

    assert outcome(result) == (1, b"", request_failure(
        scripted, "/d/up.bin", "Failed FTP upload: 553"))
    assert not scripted.path("d/up.bin").exists()
    assert local.tree() == before


@pytest.mark.parametrize("command,reply,text", [
    ("DELE", "999 What?", "QUOT command failed with 999"),
    ("RMD", "550 Not empty.", "QUOT command failed with 550"),
    ("NOOP", "500 Huh?", "QUOT command failed with 500"),
    # libcurl takes 421 for a time-out and leaves its error text empty.
    ("NOOP", "421 Closing.", ""),
], ids=["DELE", "RMD", "NOOP", "NOOP-421"])
def test_unexpected_reply_to_a_removal_command(brindle, scripted, command,
                                               reply, text):
    scripted.make_file("d/f", b"data")
    scripted.script({"failures": [rule(command, reply)]})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    assert outcome(result) == (1, b"", request_failure(scripted, "", text))
    sent = {"NOOP": [("NOOP", "")],
            "DELE": [("NOOP", ""), ("DELE", "/d/f")],
            "RMD": [("NOOP", ""), ("DELE", "/d/f"), ("RMD", "/d")]}[command]
    assert quote_commands(scripted) == sent
    assert scripted.path("d").is_dir()
    # Only the commands before the refused one have taken effect.
    assert scripted.path("d/f").exists() == (command != "RMD")


# A line that does not begin with three digits and a blank or a hyphen is
# not a reply of its own: libcurl reads it as part of a multi-line reply and
# waits for the line that ends it.  Followed by a proper reply, such lines
# are passed over; with nothing after them, libcurl would wait for its
# server-response time-out (120 s in 7.88), so the server hangs up here.

@pytest.mark.parametrize("command,junk", [
    ("USER", b"hello\r\n"),
    ("PASS", b"230-Welcome\r\n\xff\xfe\x01 not text\r\n  indented\r\n"),
    ("CWD", b"250\x00 NUL in the code\r\n"),
    ("EPSV", b"229\r\n22\r\n"),
    ("LIST", b"garbage\r\n150-More to come\r\n"),
])
def test_junk_lines_before_a_reply_are_passed_over(brindle, scripted, command,
                                                   junk):
    scripted.make_file("d/f", b"data")
    scripted.script({"failures": [rule(command, junk, then_run=True)]})

    result = list_run(brindle, scripted, "/d/f")

    if b"\x00" in junk and rejects_nul_in_replies():
        assert_request_failed(result, scripted, "/d/.", NUL_IN_REPLY)
        return
    assert outcome(result) == (0, b"f\n", b"")


def test_multi_line_greeting_with_junk_inside(brindle, scripted):
    scripted.make_file("d/f", b"data")
    scripted.script({"greeting": "220-Hello\r\nno code here\r\n"
                                 "220 Ready."})

    assert outcome(list_run(brindle, scripted, "/d/f")) == (0, b"f\n", b"")


def test_junk_lines_before_the_reply_to_retr(scripted, local):
    scripted.make_file("d/f", b"data")
    scripted.script({"failures": [rule("RETR", b"???\r\n", then_run=True)]})
    before = local.tree()

    result = local.download(scripted, "/d/f", "sandbox/f")

    assert outcome(result) == (0, b"", b"")
    assert local.tree() == dict(before, **{"sandbox/f": b"data"})


@pytest.mark.parametrize("command,reply", [
    ("USER", b"hello there\r\n"),
    ("PASS", b"230-Welcome\r\n  and more\r\n"),
    ("PASS", b"230 Logged in, but no line end"),
    ("CWD", b"\xff\xfe\x00\x01\r\n"),
    ("CWD", b"25\r\n"),
    ("LIST", b"1\r\n"),
], ids=["USER-text", "PASS-unterminated", "PASS-no-line-end", "CWD-binary",
        "CWD-short", "LIST-short"])
def test_malformed_reply_then_hang_up(brindle, scripted, command, reply):
    scripted.make_file("d/f", b"data")
    scripted.script({"failures": [rule(command, reply, close=True)]})

    result = list_run(brindle, scripted, "/d/f")

    if b"\x00" in reply and rejects_nul_in_replies():
        # The NUL byte ends the request before the hang-up is seen.
        assert_request_failed(result, scripted, "/d/.", NUL_IN_REPLY)
        return
    assert_control_closed(result, scripted, "/d/.")


# ------------------------------------------- a directory inside itself

def nested(base, name, depth):
    return base + ("/" + name) * depth


def first_too_long(base, name):
    """How deep a chain of name below base gets before its path is too
    long for the kernel: the depth at which creating it fails."""
    depth = 0
    while len(nested(base, name, depth).encode()) < PATH_MAX:
        depth += 1
    return depth


def test_symlink_loop_in_a_followed_download(scripted, local):
    # "/d/LLL... -> /d": each step finds /d again and creates one more
    # directory level locally, until the local path is too long.
    scripted.make_file("d/f", b"data")
    scripted.make_symlink("d/" + LONG, "/d")
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive",
                            "--follow-symlinks")

    depth = first_too_long("sandbox/out", LONG)
    assert outcome(result) == (1, b"", (
        "Unable to create directory '%s': File name too long\n"
        % nested("sandbox/out", LONG, depth)).encode())
    # The link comes first in each listing, so no file is reached; every
    # level is a directory inside the target.
    assert local.tree() == dict(before, **{
        nested("sandbox/out", LONG, level): DIR for level in range(depth)})


def test_server_listing_every_directory_inside_itself_download(scripted,
                                                              local):
    scripted.make_dir("d")
    scripted.script({
        "listings": {"/": raw_lines(unix_line("d", "d", 4096).encode())},
        "every_listing": raw_lines(unix_line("d", LONG, 4096).encode(),
                                   unix_line("-", "f", 4).encode())})
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive")

    depth = first_too_long("sandbox/out", LONG)
    assert outcome(result) == (1, b"", (
        "Unable to create directory '%s': File name too long\n"
        % nested("sandbox/out", LONG, depth)).encode())
    assert local.tree() == dict(before, **{
        nested("sandbox/out", LONG, level): DIR for level in range(depth)})
    # One listing per level that was created, each one level deeper.
    lists = ftptest.named(scripted.commands(), "LIST")
    assert len(lists) == 1 + depth


def test_symlink_loop_is_removed_as_a_link(brindle, scripted):
    scripted.make_file("d/f", b"data")
    scripted.make_symlink("d/loop", "../d")
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("l", "loop -> ../d", 4).encode(),
        unix_line("-", "f", 4).encode())}})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    assert outcome(result) == (0, b"", b"")
    assert quote_commands(scripted) == [
        ("NOOP", ""), ("DELE", "/d/loop"), ("DELE", "/d/f"), ("RMD", "/d")]
    assert not os.path.lexists(str(scripted.path("d")))


def test_a_name_listed_twice_is_removed_once(brindle, scripted):
    # Both lines name one entry: a second DELE of it would fail, after
    # everything before it had been deleted.
    scripted.make_file("d/f", b"data")
    scripted.make_file("d/g", b"data")
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("-", "f", 4).encode(),
        unix_line("-", "g", 4).encode(),
        unix_line("-", "f", 4).encode())}})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    assert outcome(result) == (0, b"", b"")
    assert quote_commands(scripted) == [
        ("NOOP", ""), ("DELE", "/d/f"), ("DELE", "/d/g"), ("RMD", "/d")]
    assert not os.path.lexists(str(scripted.path("d")))


def test_server_listing_every_directory_inside_itself_removal(brindle,
                                                             scripted):
    """brindle does not stop this walk by itself: nothing in a listing tells
    an endless tree from a deep one, and the removal collects the whole
    tree before it deletes anything.  The walk goes deeper for as long as
    it is left running; what matters here is that it deletes nothing."""
    scripted.make_file("d/f", b"data")
    scripted.script({
        "listings": {"/": raw_lines(unix_line("d", "d", 4096).encode())},
        "every_listing": raw_lines(unix_line("d", "sub", 4096).encode(),
                                   unix_line("-", "f", 4).encode())})
    argv = [brindle.path, "--remove", *scripted.args(), "--remote-path", "/d",
            "--recursive"]
    proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            env=brindle.environment(),
                            cwd=str(brindle.workdir), start_new_session=True)
    try:
        time.sleep(3)
        first = len(ftptest.named(scripted.commands(), "LIST"))
        time.sleep(1)
        second = len(ftptest.named(scripted.commands(), "LIST"))
        still_running = proc.poll() is None
    finally:
        if proc.poll() is None:
            proc.kill()
        out, err = proc.communicate(timeout=TIMEOUT)

    assert still_running, (proc.returncode, out, err)
    assert second > first > 10
    assert (out, err) == (b"", b"")
    assert quote_commands(scripted) == []
    assert scripted.path("d/f").read_bytes() == b"data"


# ----------------------------------- names with control characters and bytes

# Names a server may send, each with a byte that is no plain printable
# ASCII: a tab, bytes that are not UTF-8, other control characters, DEL.
ODD_NAMES = [b"a\tb", b"t\t", b"caf\xe9", b"ff\xff\xfe", b"x\x01y",
             b"e\x1b[31m", b"v\x0bw", b"p\x0cq", b"d\x7f"]
ODD_IDS = ["tab", "trailing-tab", "latin-1", "not-utf-8", "SOH", "escape",
           "vertical-tab", "form-feed", "DEL"]


def odd_listing(names=ODD_NAMES):
    return raw_lines(*[unix_line("-", name, 4) for name in names])


def test_odd_names_pass_through_contents_listings(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": odd_listing()},
                     "nlst": {"/d": raw_lines(*ODD_NAMES)}})

    assert outcome(list_run(brindle, scripted, "/d/.")) == (
        0, b"".join(name + b"\n" for name in ODD_NAMES), b"")
    assert outcome(list_run(brindle, scripted, "/d/.", "--long-listing")) == (
        0, b"".join(unix_line("-", name, 4) + b"\n" for name in ODD_NAMES),
        b"")


@pytest.mark.parametrize("name", ODD_NAMES, ids=ODD_IDS)
def test_odd_name_is_found_and_printed(brindle, scripted, name):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": odd_listing()}})

    assert outcome(list_run(brindle, scripted, b"/d/" + name)) == (
        0, name + b"\n", b"")
    assert outcome(list_run(brindle, scripted, b"/d/" + name,
                            "--long-listing")) == (
        0, unix_line("-", name, 4) + b"\n", b"")


def test_carriage_return_inside_a_name_splits_the_line(brindle, scripted):
    # libcurl turns a lone carriage return in a listing into a line feed.
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("-", b"a\rb", 4), unix_line("-", b"c", 4))},
        "nlst": {"/d": raw_lines(b"a\rb", b"c")}})

    assert outcome(list_run(brindle, scripted, "/d/.")) == (
        0, b"a\nb\nc\n", b"")
    assert outcome(list_run(brindle, scripted, "/d/c")) == (
        1, b"", b"Unable to parse FTP LIST output 'b'\n")
    # A line that the split leaves whole-looking parses as two entries.
    scripted.script({"listings": {"/d": raw_lines(
        unix_line("-", b"x\r" + unix_line("-", b"y", 4), 4))}})
    assert outcome(list_run(brindle, scripted, "/d/y", "--long-listing")) == (
        0, unix_line("-", b"y", 4) + b"\n", b"")


def put_odd_files(server, names):
    for name in names:
        path = server.path("d") / os.fsdecode(name)
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(b"<" + name + b">")


@pytest.mark.parametrize("name", [b"caf\xe9", b"ff\xff\xfe", b"d\x7f",
                                  b"sp ace"], ids=["latin-1", "not-utf-8",
                                                   "DEL", "blank"])
def test_download_of_a_name_with_printable_odd_bytes(scripted, local, name):
    put_odd_files(scripted, [name])
    scripted.script({"listings": {"/d": odd_listing([name])}})
    before = local.tree()

    result = local.download(scripted, b"/d/" + name, "sandbox/.")

    assert outcome(result) == (0, b"", b"")
    assert local.tree() == dict(before, **{
        os.fsdecode(b"sandbox/" + name): b"<" + name + b">"})


@pytest.mark.parametrize("name,escaped", [
    (b"a\tb", "a%09b"), (b"x\x01y", "x%01y"), (b"e\x1b[31m", "e%1B%5B31m"),
    (b"v\x0bw", "v%0Bw"),
], ids=["tab", "SOH", "escape", "vertical-tab"])
def test_download_of_a_name_with_control_characters(scripted, local, name,
                                                     escaped):
    # libcurl refuses a URL path with control characters in it; the local
    # file has been opened before the request and stays, empty.
    put_odd_files(scripted, [name])
    scripted.script({"listings": {"/d": odd_listing([name])}})
    before = local.tree()

    result = local.download(scripted, b"/d/" + name, "sandbox/.")

    assert outcome(result) == (1, b"", request_failure(
        scripted, "/d/" + escaped, "path contains control characters"))
    assert local.tree() == dict(before, **{
        os.fsdecode(b"sandbox/" + name): b""})
    assert ftptest.named(scripted.commands(), "RETR") == []


def test_recursive_download_stops_at_the_first_control_character(scripted,
                                                                 local):
    names = [b"caf\xe9", b"d\x7f", b"a\tb", b"never"]
    put_odd_files(scripted, names)
    scripted.script({"listings": {"/d": odd_listing(names)}})
    before = local.tree()

    result = local.download(scripted, "/d", "sandbox/out", "--recursive")

    assert outcome(result) == (1, b"", request_failure(
        scripted, "/d/a%09b", "path contains control characters"))
    assert local.tree() == dict(before, **{
        "sandbox/out": DIR,
        os.fsdecode(b"sandbox/out/caf\xe9"): b"<caf\xe9>",
        "sandbox/out/d\x7f": b"<d\x7f>",
        "sandbox/out/a\tb": b""})


def test_recursive_removal_sends_odd_names_as_they_are(brindle, scripted):
    put_odd_files(scripted, ODD_NAMES)
    scripted.script({"listings": {"/d": odd_listing()}})

    result = remove_run(brindle, scripted, "/d", "--recursive")

    assert outcome(result) == (0, b"", b"")
    assert quote_commands(scripted) == [("NOOP", "")] + [
        ("DELE", "/d/" + os.fsdecode(name)) for name in ODD_NAMES] + [
        ("RMD", "/d")]
    assert not os.path.lexists(str(scripted.path("d")))
