"""What every test server offers (FtpServer), and the frames that the
server modules build on: real daemons started in the foreground
(DaemonServer), daemons that log only to syslog (SyslogDaemonServer),
daemons written for inetd (InetdServer), and servers of ours in Python
(PythonServer): Python's FTP libraries run by a small program, and the
scripted server.  How a server's LIST answers look is modelled in
dialect.py.

A server module defines one FtpServer subclass (or a few, for settings
such as "without chroot") and names it in servers/__init__.py.  The class
says how to start and stop the server, how to read the commands it
received, how it formats LIST and NLST answers (its Dialect) and what a
user meets there (format_note, and the reasons of expected failures).
"""

import json
import os
import secrets
import subprocess
import time

import ftptest
from ftptest import HOST, make_temp_dir, remove_tree

from .private_syslog import PrivateSyslog


class FtpServer(object):
    """What every test server offers; subclasses start and stop one."""

    kind = None
    # The server's name in the compatibility document, and its column.
    title = None
    column = None
    # What its LIST answers look like and what that means for brindle, a
    # few sentences for the compatibility document; and what a user can
    # expect there, in one line.
    format_note = ""
    expect = ""
    # Whether it runs only as root, and whether it serves as the local test
    # account (which the constructor then takes).
    needs_root = True
    needs_account = True
    # Whether the server chroots the account to its root.  One that does
    # not starts the session in the root's own absolute path, and resolves
    # absolute paths in commands (DELE /x) against the machine's "/".
    chroot = True
    # How it writes LIST and NLST answers (a Dialect subclass).
    dialect = None
    # Why brindle meets trouble there, for the compatibility document:
    # a LIST line the LIST pattern rejects, an entry it cannot find.
    why_rejected = "the LIST pattern rejects this line"
    # Which of brindle's commands the server refuses: "NOOP", "NLST" (with
    # no argument) and "PORT" (active mode).  The matrix checks this
    # against the server itself.
    refuses = frozenset()
    why_unlisted = "the server leaves the fifo out of LIST"

    def __init__(self, user, password, options=()):
        self.host = HOST
        self.port = None
        self.user = user
        self.password = password
        # Extra configuration, as each server takes it (ProFTPD's lines,
        # Pure-FTPd's switches, a program's arguments).
        self.options = list(options)
        self.passive = True
        self.tmp = None
        self.root = None
        # The server's process, once started.
        self.proc = None

    @classmethod
    def missing(cls):
        """Why this server cannot run here (a program or package is not
        there), or None."""
        return None

    @classmethod
    def required_in_ci(cls):
        """Whether a CI run must fail rather than skip when missing()
        finds something missing: every server runs in CI, except where a
        subclass says otherwise."""
        return True

    @property
    def mode(self):
        return "passive" if self.passive else "active"

    def url(self, path="/"):
        if not path.startswith("/"):
            path = "/" + path
        return "ftp://%s:%d%s" % (self.host, self.port, path)

    def args(self):
        """brindle's options to reach and log in to this server."""
        result = ["--host", self.host, "--port", str(self.port),
                  "--login", self.user, "--password", self.password]
        if not self.passive:
            result += ["--passive-mode", "0"]
        return result

    def curl(self, path="/", *extra, timeout=20):
        """Run the curl CLI against this server in the current mode."""
        argv = ["curl", "-sS", "--user", "%s:%s" % (self.user, self.password)]
        if not self.passive:
            argv += ["-P", "-"]
        argv += list(extra) + [self.url(path)]
        done = subprocess.run(argv, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout)
        return ftptest.RunResult(argv, done.returncode, done.stdout,
                                 done.stderr)

    @property
    def login_dir(self):
        """The directory PWD names after login."""
        return "/" if self.chroot else str(self.root)

    def server_path(self, path):
        """The server's own name for a path relative to the login
        directory, as a command that takes a path (DELE, RMD) must say."""
        if self.chroot or not path.startswith("/"):
            return path
        return self.login_dir.rstrip("/") + path

    @property
    def writes_as(self):
        """The uid that owns the files the server stores."""
        return self.account.uid

    def version(self):
        raise NotImplementedError

    # -- files below the served root

    def path(self, rel=""):
        return self.root / rel

    def _own(self, path):
        """Give a new file to the account the server works as."""

    def _parents(self, path):
        missing = []
        parent = path.parent
        while not parent.exists():
            missing.append(parent)
            parent = parent.parent
        for p in reversed(missing):
            p.mkdir()
            self._own(p)

    def make_file(self, rel, data=b"", mode=0o644, mtime=None):
        """Create root/rel (and its parents) holding data (bytes or str)."""
        path = self.path(rel)
        self._parents(path)
        if isinstance(data, str):
            data = data.encode("utf-8")
        path.write_bytes(data)
        path.chmod(mode)
        self._own(path)
        if mtime is not None:
            os.utime(str(path), (mtime, mtime))
        return path

    def make_dir(self, rel, mode=0o755, mtime=None):
        path = self.path(rel)
        self._parents(path)
        path.mkdir(exist_ok=True)
        path.chmod(mode)
        self._own(path)
        if mtime is not None:
            os.utime(str(path), (mtime, mtime))
        return path

    def make_symlink(self, rel, target, mtime=None):
        path = self.path(rel)
        self._parents(path)
        os.symlink(target, str(path))
        self._own(path)
        if mtime is not None:
            os.utime(str(path), (mtime, mtime), follow_symlinks=False)
        return path

    def make_fifo(self, rel, mtime=None):
        path = self.path(rel)
        self._parents(path)
        os.mkfifo(str(path))
        self._own(path)
        if mtime is not None:
            os.utime(str(path), (mtime, mtime), follow_symlinks=False)
        return path

    # -- logs

    def log_text(self):
        try:
            return self.log_path.read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    def output_text(self):
        """What the server's process wrote to its standard output and
        error (a start that fails shows it)."""
        try:
            return self.output_path.read_text(errors="replace")
        except (OSError, AttributeError):
            return ""

    def _stop_processes(self):
        if self.proc is not None:
            ftptest.stop_process(self.proc)
            self.proc = None

    def commands(self):
        """(COMMAND, argument) of every command received so far."""
        raise NotImplementedError

    def wait_idle(self, timeout=5.0):
        """Wait until the commands of finished sessions are all logged."""
        return True

    def __repr__(self):
        return "<%s %s:%s %s root=%s>" % (self.kind, self.host, self.port,
                                          self.mode, self.root)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


class DaemonServer(FtpServer):
    """A real FTP daemon serving a temporary root as the throwaway local
    account, in the foreground, stopped by pid.  Subclasses write their
    configuration and give the command line."""

    daemon = None           # path of the binary
    # How to get the binary where it is missing.
    install = "run scripts/ftp-servers.sh"
    port_taken = "in use"   # what its output says when the port is taken
    # A daemon that reports start-up failures on its standard input (vsftpd
    # writes "500 OOPS: could not bind ..." to the client's socket, which is
    # fd 0 in standalone mode) gets the output file there too.
    reports_on_stdin = False
    # A short name the daemon's processes go by, for reaping the helpers
    # it leaves behind; the binary's name unless set.
    comm = None
    # How the daemon's log (log_text()) shows a command it received: a
    # pattern whose first group is the command line as sent ("RETR
    # a.txt").  A daemon that logs commands otherwise overrides
    # commands().
    command_pattern = None

    def __init__(self, account, options=()):
        FtpServer.__init__(self, account.name, account.password, options)
        self.account = account

    @classmethod
    def missing(cls):
        if not os.path.exists(str(cls.daemon)):
            return "%s is missing (%s)" % (cls.daemon, cls.install)
        return None

    def _own(self, path):
        self.account.chown(path)

    def choose_port(self):
        return ftptest.free_port()

    def prepare(self):
        """Write the configuration files for self.port."""
        raise NotImplementedError

    def argv(self):
        raise NotImplementedError

    def environment(self):
        """The daemon's environment: this process's, unless a server
        needs more."""
        return None

    def make_root(self):
        self.root = self.tmp / "root"
        self.root.mkdir()
        self._own(self.root)

    def start(self, timeout=10.0, attempts=3):
        # Session helpers (Pure-FTPd's privilege separation process) can
        # outlive their parent: adopt and reap them here.
        ftptest.Adoption.acquire()
        self._adopting = True
        self.tmp = make_temp_dir(self.kind)
        try:
            self.make_root()
        except BaseException:
            self.stop()
            raise
        self.log_path = self.tmp / "commands.log"
        self.output_path = self.tmp / "daemon.out"
        for attempt in range(attempts):
            self.port = self.choose_port()
            self.prepare()
            with open(str(self.output_path), "wb") as out:
                self.proc = subprocess.Popen(
                    self.argv(),
                    stdin=out if self.reports_on_stdin else subprocess.DEVNULL,
                    stdout=out,
                    stderr=out, start_new_session=True, cwd=str(self.tmp),
                    env=self.environment())
            deadline = time.monotonic() + timeout
            while not ftptest.is_listening(self.port):
                if self.proc.poll() is not None or time.monotonic() > deadline:
                    break
                time.sleep(0.02)
            if ftptest.is_listening(self.port) and self.proc.poll() is None:
                return self
            output = self.output_text()
            self._stop_processes()
            # Someone else may have taken the port in between: try another.
            if self.port_taken not in output or attempt == attempts - 1:
                self.stop()
                raise RuntimeError("%s did not start:\n%s" % (self.kind,
                                                             output))
        return self

    def stop(self):
        self._stop_processes()
        if getattr(self, "_adopting", False):
            ftptest.reap_adopted(self.comm or
                                 os.path.basename(str(self.daemon)))
            ftptest.Adoption.release()
            self._adopting = False
        remove_tree(self.tmp)
        self.tmp = None

    def wait_idle(self, timeout=5.0):
        """Wait until every session process has ended, so that the last
        session's commands are in the log."""
        deadline = time.monotonic() + timeout
        while self.proc is not None and ftptest.children(
                self.proc.pid):
            if time.monotonic() > deadline:
                return False
            time.sleep(0.01)
        return True

    def commands(self):
        if self.command_pattern is None:
            raise NotImplementedError
        return self.parse_commands(self.log_text())

    @classmethod
    def parse_commands(cls, text):
        """(COMMAND, argument) of every command that a piece of the
        daemon's log shows."""
        result = []
        for line in text.splitlines():
            m = cls.command_pattern.search(line)
            if m:
                cmd, _, arg = m.group(1).partition(" ")
                result.append((cmd.upper(), arg))
        return result

    def version(self):
        raise NotImplementedError


def package_version(package):
    """The installed version of a Debian package, or ""."""
    return subprocess.run(
        ["dpkg-query", "-W", "-f", "${Version}", package],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.decode(
            errors="replace").strip()


def unpacked_version(package):
    """The version of a package that scripts/ftp-servers.sh unpacked, from
    the cache's stamp, or ""."""
    try:
        with open(str(ftptest.SERVER_CACHE / "stamp")) as f:
            for line in f:
                name, _, version = line.strip().partition(" ")
                if name.rstrip(":") == package:
                    return version
    except OSError:
        pass
    return ""


class SyslogDaemonServer(DaemonServer):
    """A daemon that logs its commands only to syslog: it runs with a
    private /dev/log (PrivateSyslog) whose messages are its log."""

    def start(self, timeout=10.0, attempts=3):
        self.syslog = None
        return DaemonServer.start(self, timeout, attempts)

    def prepare(self):
        if self.syslog is None:
            self.syslog = PrivateSyslog(self.tmp)

    def stop(self):
        DaemonServer.stop(self)
        syslog, self.syslog = getattr(self, "syslog", None), None
        if syslog is not None:
            syslog.close()

    def log_text(self):
        """The syslog messages so far, one a line.  Every command is
        logged before its reply, so a finished client's commands are all
        here."""
        return self.syslog.text() if self.syslog is not None else ""


# What every PythonServer's PROGRAM runs after: its arguments, the event
# log (event()) and the port file (listening(), once it listens).
PROGRAM_PRELUDE = r'''
import json
import os
import sys
import time

root, port_file, log_path, user, password = sys.argv[1:6]
log = open(log_path, "a", encoding="utf-8")


def event(name, **fields):
    fields.update(time=time.time(), event=name)
    log.write(json.dumps(fields) + "\n")
    log.flush()


def listening(port):
    with open(port_file + ".tmp", "w") as f:
        f.write("%d\n" % port)
    os.replace(port_file + ".tmp", port_file)
'''


def module_version(module, attribute="__version__"):
    """The version of a Python module, as Debian's interpreter has it."""
    done = subprocess.run(
        [ftptest.SYSTEM_PYTHON, "-c",
         "import %s; print(%s.%s)" % (module, module, attribute)],
        stdout=subprocess.PIPE)
    return done.stdout.decode().strip()


class PythonServer(FtpServer):
    """An FTP server of ours in Python, run under Debian's interpreter as
    this process's user: by default an FTP server library of Python's (a
    Debian package) driven by a small program of the server module's
    (PROGRAM, written to the temporary folder after PROGRAM_PRELUDE).
    The program is called with ROOT PORT_FILE LOG USER PASSWORD; it
    listens on 127.0.0.1 on a port of the system's choice, writes that
    port to PORT_FILE once it listens, and logs one JSON object a line to
    LOG: {"event": "connect"}, {"event": "command", "command": "LIST",
    "arg": "x"} (before the command runs) and {"event": "disconnect"}.
    A server with a program file of its own gives its command line in
    program_argv()."""

    needs_root = False
    needs_account = False
    # The program's text, and the Python modules it needs.
    PROGRAM = None
    modules = ()
    # How long the program may take to listen, and whether it runs in a
    # session of its own, as the daemons do, rather than in the test
    # run's.
    start_timeout = 20.0
    own_session = True

    def __init__(self, account=None, options=(), user="tester",
                 password=None):
        if password is None:
            password = "pw-" + secrets.token_hex(6)
        FtpServer.__init__(self, user, password, options)

    @classmethod
    def missing(cls):
        for module in cls.modules:
            done = subprocess.run([ftptest.SYSTEM_PYTHON, "-c",
                                   "import " + module],
                                  stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
            if done.returncode != 0:
                return ("%s cannot import %s (install its Debian package)"
                        % (ftptest.SYSTEM_PYTHON, module))
        return None

    @property
    def writes_as(self):
        # The program runs as this process's user and stores as it.
        return os.geteuid()

    def program_argv(self):
        """The program's command line, once the temporary folder is
        there."""
        program = self.tmp / "server.py"
        program.write_text(PROGRAM_PRELUDE + self.PROGRAM)
        return [ftptest.SYSTEM_PYTHON, str(program), str(self.root),
                str(self.port_file), str(self.log_path), self.user,
                self.password] + self.options

    def start(self, timeout=None):
        if timeout is None:
            timeout = self.start_timeout
        self.tmp = make_temp_dir(self.kind)
        self.root = self.tmp / "root"
        self.root.mkdir()
        self.port_file = self.tmp / "port"
        self.log_path = self.tmp / "events.jsonl"
        self.output_path = self.tmp / "server.out"
        argv = self.program_argv()
        with open(str(self.output_path), "wb") as out:
            self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                                         stdout=out, stderr=out,
                                         start_new_session=self.own_session,
                                         cwd=str(self.tmp))
        deadline = time.monotonic() + timeout
        while not self.port_file.exists():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                output = self.output_text()
                self.stop()
                raise RuntimeError("%s did not start:\n%s" % (self.kind,
                                                             output))
            time.sleep(0.02)
        self.port = int(self.port_file.read_text())
        return self

    def stop(self):
        self._stop_processes()
        remove_tree(self.tmp)
        self.tmp = None

    def log(self):
        """The server's event log as a list of dicts (complete lines)."""
        text = self.log_text()
        return [json.loads(line) for line in text.split("\n")[:-1] if line]

    def commands(self):
        return [(e["command"], e["arg"]) for e in self.log()
                if e["event"] == "command"]

    def wait_idle(self, timeout=5.0):
        """Wait until every connection the server saw has ended."""
        deadline = time.monotonic() + timeout
        while True:
            events = [e["event"] for e in self.log()]
            if events.count("connect") == events.count("disconnect"):
                return True
            if time.monotonic() > deadline:
                return False
            time.sleep(0.02)


SOCAT = "/usr/bin/socat"


class InetdServer(SyslogDaemonServer):
    """A daemon written for inetd, one process per connection on its
    standard input: socat listens on 127.0.0.1 and starts the daemon for
    each connection with the accepted socket itself (nofork), so that the
    daemon sees the real addresses.  It logs in system accounts from
    /etc/passwd and /etc/shadow and does not chroot them: each server has
    an account of its own whose home is the temporary root, the login
    directory.  Its commands go to syslog (a private /dev/log)."""

    chroot = False
    needs_account = False
    comm = "socat"
    port_taken = "Address already in use"

    def __init__(self, account=None, options=()):
        DaemonServer.__init__(self, ftptest.LocalAccount(), options)
        self.user = None

    @classmethod
    def missing(cls):
        if not os.path.exists(SOCAT):
            return "%s is missing (apt-get install socat)" % SOCAT
        return DaemonServer.missing.__func__(cls)

    def make_root(self):
        self.root = self.tmp / "root"
        self.root.mkdir()
        self.account = ftptest.LocalAccount(home=self.root).create()
        self.user, self.password = self.account.name, self.account.password
        self.account.chown(self.root)

    def daemon_argv(self):
        """The daemon's command line, run for each connection."""
        raise NotImplementedError

    def binds(self):
        """(source, target) bind mounts the daemon needs."""
        return ()

    def argv(self):
        command = " ".join(self.daemon_argv())
        return self.syslog.wrap(
            [SOCAT, "TCP-LISTEN:%d,bind=%s,reuseaddr,fork" % (self.port, HOST),
             "EXEC:%s,nofork" % command], self.binds())

    def stop(self):
        SyslogDaemonServer.stop(self)
        account, self.account = getattr(self, "account", None), None
        if account is not None and account.name is not None:
            account.remove()
