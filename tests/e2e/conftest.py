"""pytest fixtures for brindle's end-to-end tests.

  brindle        runs the binary (--brindle PATH or $BRINDLE)
  scripted       a scriptable pyftpdlib server (servers/scripted_ftpd.py)
  scripted_factory  starts more scripted servers, e.g. with other logins
  vsftpd         a real vsftpd, logging in a throwaway local account
  proftpd        ProFTPD (unpacked by scripts/ftp-servers.sh), likewise
  pureftpd       Pure-FTPd (unpacked likewise), likewise
  start_server   starts a server of any kind of servers.REGISTRY (one
                 module each under servers/), for wider-scoped fixtures
  local_account  that throwaway account (session-wide; needs root)
  any_server     each of scripted/vsftpd in passive and active mode
"""

import atexit
import os
import signal
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import ftptest  # noqa: E402
import servers  # noqa: E402

# Why tests were skipped (a server that cannot run here or is not among
# this run's), told once at the end of the run.
_skip_reasons = set()
# Accounts still to remove if the run ends without its normal teardown.
_live_accounts = []


def pytest_addoption(parser):
    parser.addoption("--brindle", action="store", default=None,
                     metavar="PATH",
                     help="brindle binary to test (default: $BRINDLE)")


def pytest_configure(config):
    # A plain SIGTERM would end pytest without teardown and leave the test
    # account and servers behind; turn it into an interrupt instead.
    if signal.getsignal(signal.SIGTERM) == signal.SIG_DFL:
        def interrupt(signum, frame):
            raise KeyboardInterrupt("SIGTERM")
        signal.signal(signal.SIGTERM, interrupt)


def pytest_terminal_summary(terminalreporter):
    for reason in sorted(_skip_reasons):
        terminalreporter.write_line("e2e: skipped: " + reason)


def _skip(reason):
    _skip_reasons.add(reason)
    pytest.skip(reason)


@pytest.fixture
def brindle(request):
    path = ftptest.find_brindle(request.config.getoption("--brindle"))
    if path is None:
        pytest.skip("no brindle binary: pass --brindle PATH or set BRINDLE")
    if not os.access(str(path), os.X_OK):
        pytest.fail("brindle binary %s is not executable" % path)
    workdir = ftptest.make_temp_dir("work")
    try:
        yield ftptest.Brindle(path, workdir)
    finally:
        ftptest.remove_tree(workdir)


# ------------------------------------------------------------ scripted

@pytest.fixture
def scripted():
    require_server("scripted")
    server = servers.create("scripted").start()
    try:
        yield server
    finally:
        server.stop()


@pytest.fixture
def scripted_factory():
    """Call with user=/password= to start another scripted server; all
    of them are stopped after the test."""
    require_server("scripted")
    started = []

    def start(**kwargs):
        server = servers.server_class("scripted")(**kwargs).start()
        started.append(server)
        return server

    try:
        yield start
    finally:
        for server in started:
            server.stop()


# ------------------------------------------------------ the local account

def _remove_leftover_accounts():
    while _live_accounts:
        _live_accounts.pop().remove()


atexit.register(_remove_leftover_accounts)


@pytest.fixture(scope="session")
def local_account():
    """An unprivileged local account for this pytest process: .name,
    .uid, .gid, .password, .home (an existing temp dir it owns)."""
    if os.geteuid() != 0:
        _skip("vsftpd and the local test account need root")
    account = ftptest.LocalAccount()
    _live_accounts.append(account)
    try:
        account.create()
        yield account
    finally:
        account.remove()
        if account in _live_accounts:
            _live_accounts.remove(account)


# ------------------------------------------------------------ any server

def require_server(kind):
    """Skip unless a server of this kind can run here; under CI, where
    every server must run, fail instead, unless the Debian release does
    not have the server at all. A run limited to some kinds of server
    ($BRINDLE_E2E_SERVERS, as each test of the Debian package's
    autopkgtest is) skips the others and fails when one of its own cannot
    run."""
    selected = ftptest.selected_servers()
    if selected is not None and kind not in selected:
        _skip("%s: not among this run's servers (BRINDLE_E2E_SERVERS=%s)"
              % (kind, " ".join(sorted(selected))))
    cls = servers.server_class(kind)
    if cls.needs_root and os.geteuid() != 0:
        _skip("vsftpd and the local test account need root")
    reason = cls.missing()
    if reason is not None:
        if selected is not None:
            pytest.fail("%s is among this run's servers: %s" % (kind, reason))
        if os.environ.get("CI") == "true" and cls.required_in_ci():
            pytest.fail("CI: " + reason)
        _skip(reason)


@pytest.fixture(scope="session")
def start_server(request):
    """start_server(kind, options=()) starts and returns a server of a
    kind of servers.REGISTRY ("scripted", "vsftpd", "proftpd",
    "pureftpd", "vsftpd-nochroot", "twisted", ...), with options (extra
    vsftpd settings, ProFTPD configuration lines, Pure-FTPd switches);
    the caller stops it."""
    def start(kind, options=()):
        require_server(kind)
        account = None
        if servers.server_class(kind).needs_account:
            account = request.getfixturevalue("local_account")
        return servers.create(kind, account, options).start()
    return start


@pytest.fixture
def vsftpd(start_server):
    server = start_server("vsftpd")
    try:
        yield server
    finally:
        server.stop()


@pytest.fixture
def proftpd(start_server):
    server = start_server("proftpd")
    try:
        yield server
    finally:
        server.stop()


@pytest.fixture
def pureftpd(start_server):
    server = start_server("pureftpd")
    try:
        yield server
    finally:
        server.stop()


@pytest.fixture(params=[("scripted", "passive"), ("scripted", "active"),
                        ("vsftpd", "passive"), ("vsftpd", "active")],
                ids=lambda p: "%s-%s" % p)
def any_server(request):
    kind, mode = request.param
    server = request.getfixturevalue(kind)
    server.passive = (mode == "passive")
    return server
