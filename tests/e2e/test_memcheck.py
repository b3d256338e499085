"""brindle under valgrind's memcheck: representative runs (help, list,
recursive download and upload, recursive remove, and failures that end in
an exception or in exit()) must behave exactly as without valgrind, with no
memory error and no lost block.

Leak kinds: "definitely", "indirectly" and "possibly lost" blocks fail
the test. "Still reachable" blocks are left out, as they are not leaks:
every run that looks up the local user keeps glibc's name-service modules,
which getpwnam() loads with dlopen() and glibc never unloads, and an exit()
on the local-user failure path leaves the objects of main() and the option
parser alive, as any exit() does. No suppression file is used.

Skipped when valgrind is missing, and for a binary built with
AddressSanitizer (BRINDLE_SANITIZE), which cannot run under valgrind and
checks the same with its own leak checker.
"""

import ftplib
import os
import re
import shutil

import pytest

import ftptest
from ftptest import DIR, named, snapshot

VALGRIND = shutil.which("valgrind") or "/usr/bin/valgrind"
# Status valgrind ends with when it found an error; brindle never uses it.
ERROR_STATUS = 99
VALGRIND_OPTIONS = [
    "--tool=memcheck",
    "--leak-check=full",
    "--show-leak-kinds=definite,indirect,possible",
    "--errors-for-leak-kinds=definite,indirect,possible",
    "--error-exitcode=%d" % ERROR_STATUS,
    "--track-fds=no",
    "--num-callers=30",
    "--trace-children=no",
    # No gdbserver, and so no FIFOs in the temporary directory, which a run
    # that switched to the local account could not remove again.
    "--vgdb=no",
]
# Memcheck is slow: a run takes seconds where it took milliseconds.
TIMEOUT = 300

# Binary content that an ASCII-mode transfer would change.
BINARY = bytes(range(256)) * 4 + b"\r\n\n\r\x00\x1a\xff\r\n"

_sanitized = {}


def _is_sanitized(path):
    """Whether the binary carries AddressSanitizer's run-time."""
    if path not in _sanitized:
        with open(path, "rb") as f:
            _sanitized[path] = b"__asan_init" in f.read()
    return _sanitized[path]


class Memcheck(object):
    """Runs brindle under memcheck, valgrind's report in its own file so
    that brindle's output channels stay exactly its own."""

    def __init__(self, brindle):
        self.brindle = brindle
        self.workdir = brindle.workdir
        self.runner = ftptest.Brindle(VALGRIND, brindle.workdir)
        self.log_dir = ftptest.make_temp_dir("memcheck")
        self.runs = 0

    def run(self, *args, **kwargs):
        """Run brindle with args under memcheck; returns the RunResult with
        the report's text as .report."""
        self.runs += 1
        log = self.log_dir / ("run%d.log" % self.runs)
        kwargs.setdefault("timeout", TIMEOUT)
        # Whatever valgrind keeps in a temporary directory goes with the logs.
        env = dict(kwargs.pop("env", None) or {})
        env.setdefault("TMPDIR", str(self.log_dir))
        kwargs["env"] = env
        result = self.runner.run(*VALGRIND_OPTIONS, "--log-file=%s" % log,
                                 self.brindle.path, *args, **kwargs)
        result.report = log.read_text(errors="replace")
        return result

    def close(self):
        ftptest.remove_tree(self.log_dir)


@pytest.fixture
def memcheck(brindle):
    if not os.access(VALGRIND, os.X_OK):
        pytest.skip("valgrind is missing (apt-get install valgrind)")
    if _is_sanitized(brindle.path):
        pytest.skip("brindle is built with AddressSanitizer, which valgrind "
                    "cannot run; scripts/sanitize.sh checks that build")
    runner = Memcheck(brindle)
    try:
        yield runner
    finally:
        runner.close()


@pytest.fixture(params=["scripted", "vsftpd"])
def real_server(request):
    """Each of the two servers in passive mode, serving what is on disk."""
    return request.getfixturevalue(request.param)


def assert_clean(result, status, stdout=b"", stderr=b""):
    """brindle's own outcome is exactly as expected, and memcheck found no
    error and no lost block."""
    report = result.report
    assert (result.status, result.stdout, result.stderr) == \
        (status, stdout, stderr), (result, report)
    assert "ERROR SUMMARY: 0 errors from 0 contexts" in report, report
    if "All heap blocks were freed -- no leaks are possible" not in report:
        assert re.search(r"definitely lost: 0 bytes in 0 blocks", report), \
            report
        assert re.search(r"indirectly lost: 0 bytes in 0 blocks", report), \
            report
        assert re.search(r"possibly lost: 0 bytes in 0 blocks", report), \
            report
    assert "Invalid " not in report, report
    assert "uninitialised" not in report, report


# ---------------------------------------------------------------- tests

def test_help(memcheck, brindle):
    native = brindle.run("--help")
    assert native.status == 0 and native.stdout.startswith(b"Usage:")

    assert_clean(memcheck.run("--help"), 0, native.stdout)


def test_command_line_error(memcheck):
    assert_clean(memcheck.run("--list", "--remote-path", "/x",
                              "--host", "h", "--bogus"), 1, b"",
                 b"unrecognised option '--bogus'\n"
                 b"Try 'brindle --help' for more information\n")


def make_tree(server):
    server.make_file("t/a.txt", b"alpha\n")
    server.make_file("t/bin/blob.bin", BINARY)
    server.make_file("t/bin/deep/z.txt", b"zed")
    server.make_dir("t/empty")
    server.make_file("keep.txt", b"kept")


def test_list_contents_and_one_entry(memcheck, real_server):
    make_tree(real_server)

    assert_clean(memcheck.run("--list", *real_server.args(),
                              "--remote-path", "/t/."),
                 0, b"a.txt\nbin\nempty\n")
    assert_clean(memcheck.run("--list", *real_server.args(),
                              "--remote-path", "/t/bin/deep/z.txt"),
                 0, b"z.txt\n")


def test_list_in_active_mode(memcheck, scripted):
    make_tree(scripted)
    scripted.passive = False

    assert_clean(memcheck.run("--list", *scripted.args(),
                              "--remote-path", "/t/.", "--long-listing"),
                 0, b"".join(line + b"\n" for line in
                             _long_lines(scripted, "/t")))


def _long_lines(server, directory):
    lines = []
    with ftplib.FTP() as ftp:
        ftp.connect(server.host, server.port, timeout=10)
        ftp.login(server.user, server.password)
        ftp.cwd(directory)
        ftp.retrlines("LIST", lines.append)
    assert len(lines) == 3
    return [line.encode() for line in lines]


def test_recursive_download(memcheck, real_server, local_account):
    make_tree(real_server)
    local_account.chown(memcheck.workdir)

    result = memcheck.run("--download", *real_server.args(),
                          "--local-user", local_account.name,
                          "--remote-path", "/t", "--local-path", "out",
                          "--recursive")

    assert_clean(result, 0)
    assert snapshot(memcheck.workdir) == {
        "out": DIR,
        "out/a.txt": b"alpha\n",
        "out/bin": DIR,
        "out/bin/blob.bin": BINARY,
        "out/bin/deep": DIR,
        "out/bin/deep/z.txt": b"zed",
        "out/empty": DIR,
    }
    for path in ("out", "out/bin/blob.bin"):
        assert os.stat(str(memcheck.workdir / path)).st_uid == \
            local_account.uid


def test_recursive_upload(memcheck, real_server, local_account):
    base = memcheck.workdir
    for rel, data in (("up/a.txt", b"alpha\n"), ("up/sub/blob.bin", BINARY),
                      ("up/sub/deeper/z.txt", b"zed")):
        path = base / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
    os.symlink("a.txt", str(base / "up" / "link"))
    for directory, _, _ in os.walk(str(base)):
        os.chmod(directory, 0o755)

    result = memcheck.run("--upload", *real_server.args(),
                          "--local-user", local_account.name,
                          "--local-path", "up", "--remote-path", "/up",
                          "--recursive")

    assert_clean(result, 0, b"skip '\"up/link\"': "
                            b"symbolic links aren't allowed\n")
    assert snapshot(real_server.root) == {
        "up": DIR,
        "up/a.txt": b"alpha\n",
        "up/sub": DIR,
        "up/sub/blob.bin": BINARY,
        "up/sub/deeper": DIR,
        "up/sub/deeper/z.txt": b"zed",
    }


def test_recursive_remove(memcheck, real_server):
    make_tree(real_server)

    result = memcheck.run("--remove", *real_server.args(),
                          "--remote-path", "/t", "--recursive")

    assert_clean(result, 0)
    assert snapshot(real_server.root) == {"keep.txt": b"kept"}
    assert named(real_server.commands(), "NOOP", "DELE", "RMD") == [
        ("NOOP", ""),
        ("DELE", "/t/a.txt"),
        ("DELE", "/t/bin/blob.bin"),
        ("DELE", "/t/bin/deep/z.txt"),
        ("RMD", "/t/bin/deep"),
        ("RMD", "/t/bin"),
        ("RMD", "/t/empty"),
        ("RMD", "/t"),
    ]


def test_missing_remote_path(memcheck, real_server):
    make_tree(real_server)

    assert_clean(memcheck.run("--list", *real_server.args(),
                              "--remote-path", "/t/missing"),
                 1, b"", b"Unable to find remote path '/t/missing'\n")


def test_refused_login(memcheck, scripted):
    result = memcheck.run("--list", "--host", scripted.host,
                          "--port", str(scripted.port),
                          "--login", scripted.user, "--password", "wrong",
                          "--remote-path", "/.")

    assert_clean(result, 1, b"",
                 ("Unable to perform request for 'ftp://127.0.0.1:%d/.': "
                  "Access denied: 530\n" % scripted.port).encode())
    assert named(scripted.commands(), "USER", "PASS") == [
        ("USER", scripted.user), ("PASS", "wrong")]


def test_unknown_local_user_exits(memcheck, scripted):
    # The failed switch ends the process with exit(1) from deep inside the
    # option parsing; what is still live then is reachable, not lost.
    result = memcheck.run("--download", *scripted.args(),
                          "--local-user", "brindle-no-such-user",
                          "--remote-path", "/x", "--local-path", "x")

    report = (b"Unable to getpwnam for user brindle-no-such-user\n"
              b"User 'brindle-no-such-user' not found\n")
    assert_clean(result, 1, report, report)
    assert scripted.commands() == []
