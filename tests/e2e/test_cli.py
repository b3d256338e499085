"""The command line: help, command choice, option errors, credentials.

Every case checks both output channels byte for byte and the exit status.
Cases that would talk to a server use the scripted one and check what it
received, or that it received nothing at all.
"""

import pytest

HINT = b"Try 'brindle --help' for more information\n"

HELP = (
    b"Usage: brindle <command> [options]:\n"
    b"\n"
    b"Available commands:\n"
    b"  --upload                 upload local file to ftp server\n"
    b"  --download               download remote file from ftp server to local file\n"
    b"  --remove                 remove remote file on ftp server\n"
    b"  --list                   list ftp contents\n"
    b"  -h [ --help ]            show help message\n"
    b"\n"
    b"Options:\n"
    b"  --host arg               ftp server host name\n"
    b"  --port arg (=21)         ftp server port\n"
    b"  --login arg              login of ftp user (can also be specified by \n"
    b"                           'FTP_LOGIN' environment variable)\n"
    b"  --password arg           password of ftp user (can also be specified by \n"
    b"                           'FTP_PASSWORD' environment variable)\n"
    b"  --passive-mode arg (=1)  use ftp passive mode\n"
    b"  --retry arg (=0)         retry this number of times before giving up\n"
    b"  --retry-delay arg        make brindle sleep this amount of time before each \n"
    b"                           retry when a transfer has failed with a transient \n"
    b"                           error (it changes the default backoff time algorithm\n"
    b"                           between retries)\n"
    b"  --remote-path arg        remote path\n"
    b"  --local-user arg         run with username rights (download or upload only)\n"
    b"  --local-path arg         local path (download or upload only)\n"
    b"  --recursive              perform command recursively (download, upload or \n"
    b"                           remove only)\n"
    b"  --follow-symlinks        dereference symlinks (download or upload only)\n"
    b"  --long-listing           use a long listing format (list only)\n"
    b"\n"
)


def assert_usage_error(result, message):
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", message.encode() + b"\n" + HINT)


@pytest.mark.parametrize("args", [
    ["-h"],
    ["--help"],
    ["--help", "--upload", "--list"],
    ["--help", "--bogus", "--more", "value"],
    ["--download", "--help"],
    ["--list", "-h", "--port", "not-a-number"],
])
def test_help_wins_and_lists_every_option(brindle, args):
    result = brindle.run(*args)
    assert (result.status, result.stdout, result.stderr) == (0, HELP, b"")


def test_help_still_reports_a_syntax_error_of_the_first_pass(brindle):
    assert_usage_error(brindle.run("--help", "--list=1"),
                       "option '--list' does not take any arguments")


@pytest.mark.parametrize("args", [
    [],
    ["--upload", "--download"],
    ["--list", "--remove", "--host", "h", "--remote-path", "/"],
    ["upload", "--host", "h", "--remote-path", "/"],
    ["--host", "h", "--remote-path", "/"],
])
def test_exactly_one_command_is_required(brindle, args):
    assert_usage_error(brindle.run(*args),
                       "Exactly one command should be specified!")


@pytest.mark.parametrize("args, message", [
    (["--list"], "the option '--host' is required but missing"),
    (["--list", "--host", "h"],
     "the option '--remote-path' is required but missing"),
    (["--remove", "--remote-path", "/x"],
     "the option '--host' is required but missing"),
    # Required options are checked in the order of their names.
    (["--download", "--host", "h"],
     "the option '--local-path' is required but missing"),
    (["--upload", "--host", "h", "--local-path", "a"],
     "the option '--local-user' is required but missing"),
    (["--download", "--host", "h", "--remote-path", "/a", "--local-path", "b"],
     "the option '--local-user' is required but missing"),
    (["--upload", "--host", "h", "--local-path", "a", "--local-user", "nobody"],
     "the option '--remote-path' is required but missing"),
])
def test_missing_required_option(brindle, args, message):
    assert_usage_error(brindle.run(*args), message)


@pytest.mark.parametrize("args, message", [
    (["--list", "--remote-path", "/x", "--host", "h", "--local-user", "u"],
     "unrecognised option '--local-user'"),
    (["--list", "--remote-path", "/x", "--host", "h", "--recursive"],
     "unrecognised option '--recursive'"),
    (["--remove", "--remote-path", "/x", "--host", "h", "--long-listing"],
     "unrecognised option '--long-listing'"),
    (["--remove", "--remote-path", "/x", "--host", "h", "--follow-symlinks"],
     "unrecognised option '--follow-symlinks'"),
    (["--download", "--remote-path", "/x", "--host", "h", "--local-path", "l",
      "--local-user", "u", "--long-listing"],
     "unrecognised option '--long-listing'"),
    (["--list", "--remote-path", "/x", "--host", "h", "--bogus"],
     "unrecognised option '--bogus'"),
    (["--list", "--remote-path", "/x", "--host", "h", "stray"],
     "too many positional options have been specified on the command line"),
])
def test_option_not_taken_by_the_command(brindle, args, message):
    assert_usage_error(brindle.run(*args), message)


@pytest.mark.parametrize("option, value, message", [
    ("--port", "65536", "the argument ('65536') for option '--port' is invalid"),
    ("--port", "ftp", "the argument ('ftp') for option '--port' is invalid"),
    ("--passive-mode", "maybe",
     "the argument ('maybe') for option '--passive-mode' is invalid. Valid "
     "choices are 'on|off', 'yes|no', '1|0' and 'true|false'"),
    ("--retry", "x", "the argument ('x') for option '--retry' is invalid"),
    ("--retry-delay", "1s",
     "the argument ('1s') for option '--retry-delay' is invalid"),
])
def test_value_that_does_not_convert(brindle, option, value, message):
    result = brindle.run("--list", "--host", "h", "--remote-path", "/",
                         option, value)
    assert_usage_error(result, message)


@pytest.mark.parametrize("option", ["--passive-mode", "--port", "--host"])
def test_option_without_its_value(brindle, option):
    result = brindle.run("--list", "--remote-path", "/", "--host", "h", option)
    assert_usage_error(
        result, "the required argument for option '%s' is missing" % option)


def test_a_value_attached_to_a_command_switch(brindle):
    assert_usage_error(brindle.run("--list=yes", "--host", "h"),
                       "option '--list' does not take any arguments")


def test_port_zero_is_handed_on(brindle):
    result = brindle.run("--list", "--host", "127.0.0.1", "--port", "0",
                         "--remote-path", "/x")
    assert result.status == 1
    assert result.stdout == b""
    assert result.stderr.startswith(
        b"Unable to perform request for 'ftp://127.0.0.1:0/.': ")


def test_invalid_path_fails_before_connecting(brindle, scripted):
    result = brindle.run("--list", *scripted.args(), "--remote-path", "a/../..")
    assert (result.status, result.stdout, result.stderr) == (
        1, b"", b"Invalid path 'a/../..'\n")
    assert scripted.log() == []


def _users(server):
    return [arg for command, arg in server.commands() if command == "USER"]


def _passwords(server):
    return [arg for command, arg in server.commands() if command == "PASS"]


def test_credentials_from_the_environment(brindle, scripted):
    scripted.make_file("a.txt", b"x")
    args = ["--host", scripted.host, "--port", str(scripted.port)]
    result = brindle.run("--list", *args, "--remote-path", "/a.txt",
                         env={"FTP_LOGIN": scripted.user,
                              "FTP_PASSWORD": scripted.password})
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert _users(scripted) == [scripted.user]
    assert _passwords(scripted) == [scripted.password]


def test_given_options_win_over_the_environment(brindle, scripted):
    scripted.make_file("a.txt", b"x")
    result = brindle.run("--list", *scripted.args(), "--remote-path", "/a.txt",
                         env={"FTP_LOGIN": "someone-else",
                              "FTP_PASSWORD": "other-secret"})
    assert (result.status, result.stdout, result.stderr) == (0, b"a.txt\n", b"")
    assert _users(scripted) == [scripted.user]
    assert _passwords(scripted) == [scripted.password]


def test_an_explicit_empty_login_keeps_the_environment_out(brindle, scripted):
    args = ["--host", scripted.host, "--port", str(scripted.port)]
    result = brindle.run("--list", *args, "--login", "", "--password", "",
                         "--remote-path", "/x",
                         env={"FTP_LOGIN": scripted.user,
                              "FTP_PASSWORD": scripted.password})
    assert result.status == 1
    assert result.stdout == b""
    # An empty user name is sent as "USER" with an empty argument, which
    # the server refuses as a syntax error.
    assert result.stderr == (
        "Unable to perform request for 'ftp://127.0.0.1:%d/.': "
        "Access denied: 501\n" % scripted.port).encode()
    assert _users(scripted) == [""]
    assert scripted.user not in _users(scripted)


def test_without_credentials_an_empty_login_is_sent(brindle, scripted):
    args = ["--host", scripted.host, "--port", str(scripted.port)]
    result = brindle.run("--list", *args, "--remote-path", "/x")
    assert result.status == 1
    assert _users(scripted) == [""]
    assert _passwords(scripted) == []
