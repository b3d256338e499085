"""The list command against real servers.

A path ending in "." or ".." lists a directory's contents: the server's NLST
(or, with --long-listing, LIST) answer reaches standard output unchanged. Any
other path shows that path's own entry, found in its parent's listing.
"""

import ftplib
import re

import pytest

import libcurl
from ftptest import b64


def server_listing(server, command, directory):
    """The lines a server answers to LIST or NLST in `directory`, as the
    transfer library hands them on: line ends reduced to a line feed."""
    lines = []
    with ftplib.FTP() as ftp:
        ftp.encoding = "utf-8"
        ftp.connect(server.host, server.port, timeout=10)
        ftp.login(server.user, server.password)
        ftp.cwd(directory)
        ftp.retrlines(command, lines.append)
    return "".join(line + "\n" for line in lines).encode()


def make_sample_tree(server):
    server.make_file("a.txt", b"alpha\n")
    server.make_file("my file#1", b"spaces and a hash\n")
    server.make_dir("site/logs")
    server.make_file("site/index.html", b"<html>\n")
    server.make_symlink("cur", "site")


def list_run(brindle, server, path, *extra):
    return brindle.run("--list", *server.args(), "--remote-path", path, *extra)


def ok(result, stdout):
    assert (result.status, result.stderr, result.stdout) == (0, b"", stdout)


def failed(result, message):
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", message.encode() + b"\n")


# Directory contents ---------------------------------------------------------

def test_contents_short_is_the_nlst_answer(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "/."),
       b"a.txt\ncur\nmy file#1\nsite\n")


def test_contents_long_is_the_list_answer(brindle, any_server):
    make_sample_tree(any_server)
    expected = server_listing(any_server, "LIST", "/site")
    assert expected.count(b"\n") == 2
    ok(list_run(brindle, any_server, "/site/.", "--long-listing"), expected)


def test_contents_of_the_parent_through_dot_dot(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "/site/logs/.."), b"index.html\nlogs\n")


def test_contents_of_the_login_directory(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "."), b"a.txt\ncur\nmy file#1\nsite\n")


def test_contents_of_an_empty_directory(brindle, any_server):
    any_server.make_dir("empty")
    ok(list_run(brindle, any_server, "/empty/."), b"")
    ok(list_run(brindle, any_server, "/empty/.", "--long-listing"), b"")


def test_contents_are_passed_through_without_parsing(brindle, scripted):
    scripted.make_dir("d")
    lines = ["total 8",
             "-rw-r--r--+ 1 u g 5 Jan 1 2020 acl",
             "not a listing line at all",
             "01-15-21  10:30AM       <DIR>          Reports"]
    scripted.script({"listings": {"/d": {"lines": lines}},
                     "nlst": {"/d": {"lines": ["one", "two"], "eol": "\n"}}})
    ok(list_run(brindle, scripted, "/d/.", "--long-listing"),
       "".join(line + "\n" for line in lines).encode())
    ok(list_run(brindle, scripted, "/d/."), b"one\ntwo\n")


def test_contents_keep_bytes_that_are_not_text(brindle, scripted):
    scripted.make_dir("d")
    body = b"\xff\xfe name\tx\r\r\nlast line without end"
    scripted.script({"listings": {"/d": {"raw_b64": b64(body)["b64"]}}})
    # The transfer library turns CR LF, and a lone CR, into LF in listings;
    # every other byte arrives as the server sent it.
    ok(list_run(brindle, scripted, "/d/.", "--long-listing"),
       b"\xff\xfe name\tx\n\nlast line without end")


def test_contents_request_enters_the_directory(brindle, scripted):
    make_sample_tree(scripted)
    ok(list_run(brindle, scripted, "/site/logs/."), b"")
    commands = scripted.commands()
    assert ("CWD", "site") in commands
    assert ("CWD", "logs") in commands
    assert [c for c, _ in commands if c in ("LIST", "NLST")] == ["NLST"]


# A single entry -------------------------------------------------------------

def test_entry_short_prints_its_name(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "/site"), b"site\n")
    ok(list_run(brindle, any_server, "/site/index.html"), b"index.html\n")
    ok(list_run(brindle, any_server, "site/index.html"), b"index.html\n")


def test_entry_long_prints_its_list_line(brindle, any_server):
    make_sample_tree(any_server)
    lines = server_listing(any_server, "LIST", "/").split(b"\n")
    [site_line] = [line for line in lines
                   if line.endswith(b" site") and line.startswith(b"d")]
    ok(list_run(brindle, any_server, "/site", "--long-listing"),
       site_line + b"\n")


def test_entry_with_blanks_and_hash(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "/my file#1"), b"my file#1\n")


def test_entry_of_a_symbolic_link_is_its_own_name(brindle, any_server):
    make_sample_tree(any_server)
    ok(list_run(brindle, any_server, "/cur"), b"cur\n")
    result = list_run(brindle, any_server, "/cur", "--long-listing")
    assert result.status == 0
    assert result.stdout.startswith(b"lrwxrwxrwx")
    assert result.stdout.endswith(b" cur -> site\n")


def test_entry_lookup_lists_the_parent_once(brindle, scripted):
    make_sample_tree(scripted)
    ok(list_run(brindle, scripted, "/site/index.html"), b"index.html\n")
    commands = scripted.commands()
    assert [c for c, _ in commands if c in ("LIST", "NLST")] == ["LIST"]
    assert ("CWD", "site") in commands


def test_missing_entry(brindle, any_server):
    make_sample_tree(any_server)
    failed(list_run(brindle, any_server, "/site/missing"),
           "Unable to find remote path '/site/missing'")


@pytest.mark.parametrize("path, message", [
    ("/site/", "Unable to find remote path '/site/'"),
    ("/", "Unable to find remote path '/'"),
    ("", "Unable to find remote path ''"),
    ("/a/../site/./logs/", "Unable to find remote path '/site/logs/'"),
])
def test_paths_without_a_file_name_find_nothing(brindle, scripted, path,
                                                message):
    make_sample_tree(scripted)
    failed(list_run(brindle, scripted, path), message)
    # The parent listing is still requested.
    assert [c for c, _ in scripted.commands() if c == "LIST"] == ["LIST"]


def test_climbing_above_a_relative_start_fails_before_connecting(brindle,
                                                                 scripted):
    failed(list_run(brindle, scripted, ".."), "Invalid path '..'")
    assert scripted.log() == []


def test_dos_style_entries(brindle, scripted):
    scripted.make_dir("win/Reports")
    scripted.make_file("win/big file.bin", b"x")
    lines = ["01-15-21  10:30AM       <DIR>          Reports",
             "2021-01-15  22:05  1048576 big file.bin"]
    scripted.script({"listings": {"/win": {"lines": lines}}})
    ok(list_run(brindle, scripted, "/win/Reports"), b"Reports\n")
    ok(list_run(brindle, scripted, "/win/big file.bin", "--long-listing"),
       lines[1].encode() + b"\n")


def test_an_unparseable_line_in_the_parent_fails_the_lookup(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": {"lines": [
        "total 8", "-rw-r--r-- 1 u g 5 Jan 1 2020 f"]}}})
    failed(list_run(brindle, scripted, "/d/f"),
           "Unable to parse FTP LIST output 'total 8'")


def test_an_unparseable_line_after_the_entry_fails_the_lookup(brindle,
                                                             scripted):
    # The whole parent listing is read before the entry counts as found.
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": {"lines": [
        "-rw-r--r-- 1 u g 5 Jan 1 2020 f", "-rw-r--r-- 1 u g 6 Jan 1 2020 g",
        "-rw-r--r--+ 1 u g 7 Jan 1 2020 h"]}}})
    failed(list_run(brindle, scripted, "/d/f"),
           "Unable to parse FTP LIST output '-rw-r--r--+ 1 u g 7 Jan 1 2020 h'")


def test_acl_marker_fails_the_lookup(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": {"lines": [
        "-rw-r--r--+ 1 u g 5 Jan 1 2020 f"]}}})
    failed(list_run(brindle, scripted, "/d/f"),
           "Unable to parse FTP LIST output '-rw-r--r--+ 1 u g 5 Jan 1 2020 f'")


def test_a_lone_carriage_return_ends_a_line(brindle, scripted):
    scripted.make_dir("d")
    # CR CR LF: the library turns CR LF into LF and the lone CR into another
    # LF, which leaves an empty line that is no listing line.
    scripted.script({"listings": {"/d": {
        "lines": ["-rw-r--r-- 1 u g 5 Jan 1 2020 f"], "eol": "\r\r\n"}}})
    failed(list_run(brindle, scripted, "/d/f"),
           "Unable to parse FTP LIST output ''")


def test_line_feed_only_answers_parse_as_well(brindle, scripted):
    scripted.make_dir("d")
    scripted.script({"listings": {"/d": {
        "lines": ["-rw-r--r-- 1 u g 5 Jan 1 2020 f"], "eol": "\n"}}})
    ok(list_run(brindle, scripted, "/d/f"), b"f\n")


def test_the_first_of_two_equal_names_wins(brindle, scripted):
    scripted.make_dir("d")
    lines = ["-rw-r--r-- 1 u g 1 Jan 1 2020 twin",
             "drwxr-xr-x 2 u g 2 Jan 2 2020 twin"]
    scripted.script({"listings": {"/d": {"lines": lines}}})
    ok(list_run(brindle, scripted, "/d/twin", "--long-listing"),
       lines[0].encode() + b"\n")


def test_a_name_holding_a_separator_is_not_a_file_name(brindle, scripted):
    # Taken as paths, "x/", "./x" and "sub/x" hold more than the one element
    # "x"; only the entry named exactly "x" is that file.
    scripted.make_dir("d")
    lines = ["-rw-r--r-- 1 u g 1 Jan 1 2020 x/",
             "-rw-r--r-- 1 u g 2 Jan 1 2020 ./x",
             "-rw-r--r-- 1 u g 3 Jan 1 2020 sub/x",
             "lrwxrwxrwx 1 u g 4 Jan 1 2020 x/ -> y",
             "-rw-r--r-- 1 u g 5 Jan 1 2020 x"]
    scripted.script({"listings": {"/d": {"lines": lines}}})
    ok(list_run(brindle, scripted, "/d/x", "--long-listing"),
       lines[-1].encode() + b"\n")
    scripted.script({"listings": {"/d": {"lines": lines[:-1]}}})
    failed(list_run(brindle, scripted, "/d/x"),
           "Unable to find remote path '/d/x'")


def test_fifo_and_link_entries(brindle, scripted):
    scripted.make_dir("d")
    lines = ["prw-r--r-- 1 u g 0 Jan 1 2020 pipe",
             "lrwxrwxrwx 1 u g 4 Jan 1 2020 cur -> release-2"]
    scripted.script({"listings": {"/d": {"lines": lines}}})
    ok(list_run(brindle, scripted, "/d/pipe"), b"pipe\n")
    ok(list_run(brindle, scripted, "/d/cur"), b"cur\n")
    failed(list_run(brindle, scripted, "/d/cur -> release-2"),
           "Unable to find remote path '/d/cur -> release-2'")


# Failures ---------------------------------------------------------------------

def test_failure_names_the_percent_encoded_url(brindle, any_server):
    result = list_run(brindle, any_server, "/no such dir#1/x")
    failed(result, "Unable to perform request for "
                   "'ftp://127.0.0.1:%d/no%%20such%%20dir%%231/.': "
                   "Server denied you to change to the given directory"
                   % any_server.port)


def test_wrong_password(brindle, scripted):
    result = brindle.run("--list", "--host", scripted.host,
                         "--port", str(scripted.port), "--login", scripted.user,
                         "--password", "wrong", "--remote-path", "/.")
    failed(result, "Unable to perform request for 'ftp://127.0.0.1:%d/.': "
                   "Access denied: 530" % scripted.port)


def test_no_server_listening(brindle, scripted):
    port = scripted.port
    scripted.stop()
    result = brindle.run("--list", "--host", "127.0.0.1", "--port", str(port),
                         "--remote-path", "/.")
    assert result.status == 1
    assert result.stdout == b""
    expected = (re.escape("Unable to perform request for "
                          "'ftp://127.0.0.1:%d/.': " % port)
                + libcurl.connect_failure("127.0.0.1", port) + "\n")
    assert re.fullmatch(expected, result.stderr_text), result
