"""What every test server offers (FtpServer), the frame for real daemons
started in the foreground (DaemonServer), a private syslog socket for
daemons that log only there, and the model of a Unix LIST answer
(Dialect) that each server's module adapts to its own format.

A server module defines one FtpServer subclass (or a few, for settings
such as "without chroot") and names it in servers/__init__.py.  The class
says how to start and stop the server, how to read the commands it
received, how it formats LIST and NLST answers (its Dialect) and what a
user meets there (format_note, and the reasons of expected failures).
"""

import grp
import json
import os
import pwd
import secrets
import select
import socket
import stat
import subprocess
import threading
import time

import ftptest
from ftptest import HOST, make_temp_dir, remove_tree


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
    why_unlisted = "the server leaves the fifo out of LIST"

    def __init__(self, user, password):
        self.host = HOST
        self.port = None
        self.user = user
        self.password = password
        self.passive = True
        self.tmp = None
        self.root = None

    @classmethod
    def missing(cls):
        """Why this server cannot run here (a program or package is not
        there), or None."""
        return None

    @classmethod
    def required_in_ci(cls):
        """Whether a CI run must fail rather than skip when missing()
        finds something missing: every server runs in CI unless the
        Debian release does not ship it at all."""
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
    port_taken = "in use"   # what its output says when the port is taken
    # A short name the daemon's processes go by, for reaping the helpers
    # it leaves behind; the binary's name unless set.
    comm = None

    def __init__(self, account, options=()):
        FtpServer.__init__(self, account.name, account.password)
        self.account = account
        # Extra configuration: lines for ProFTPD, switches for Pure-FTPd.
        self.options = list(options)
        self.proc = None

    @classmethod
    def missing(cls):
        if not os.path.exists(str(cls.daemon)):
            return "%s is missing (run scripts/ftp-servers.sh)" % cls.daemon
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
        self.make_root()
        self.log_path = self.tmp / "commands.log"
        self.output_path = self.tmp / "daemon.out"
        for attempt in range(attempts):
            self.port = self.choose_port()
            self.prepare()
            with open(str(self.output_path), "wb") as out:
                self.proc = subprocess.Popen(
                    self.argv(), stdin=subprocess.DEVNULL, stdout=out,
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

    def output_text(self):
        try:
            return self.output_path.read_text(errors="replace")
        except (OSError, AttributeError):
            return ""

    def _stop_processes(self):
        if self.proc is not None:
            ftptest.stop_process(self.proc)
            self.proc = None

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


# ----------------------------------------------------- a private syslog

# Runs a program with its own /dev holding a "log" socket of ours, so that
# a daemon that can only log to syslog logs to the test instead (the
# machine may have no syslog daemon, and /dev/log is not ours to make).
# Further "SOURCE TARGET" pairs after "--" are bind-mounted first (a
# private copy of a file or folder of /etc, seen by the daemon alone).
PRIVATE_DEVLOG = r'''
set -eu
tmp=$1; sock=$2; shift 2
while [ "$1" != "--" ]; do
  mount --bind "$1" "$2"
  shift 2
done
shift
mkdir -p "$tmp/realdev"
mount --bind /dev "$tmp/realdev"
mount -t tmpfs -o mode=755 devlog "/dev"
for node in null zero full random urandom tty; do
  : >"/dev/$node"
  mount --bind "$tmp/realdev/$node" "/dev/$node"
done
ln -s "$sock" /dev/log
exec "$@"
'''


class PrivateSyslog(object):
    """A datagram socket in a server's temporary folder that the daemon
    finds as /dev/log (see private_devlog_argv); collects the messages."""

    def __init__(self, tmp):
        self.path = tmp / "syslog.sock"
        self.tmp = tmp
        self._messages = []
        self._lock = threading.Lock()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(self.path))
        self._socket.setblocking(False)
        os.chmod(str(self.path), 0o666)
        # A datagram socket queues only a few messages (10 by default)
        # before the daemon's syslog() blocks: keep reading.
        self._reader = threading.Thread(target=self._read_forever,
                                        daemon=True)
        self._reader.start()

    def wrap(self, argv, binds=()):
        """argv run in a mount namespace of its own whose /dev/log is this
        socket, with (source, target) bind mounts made first."""
        pairs = [str(p) for pair in binds for p in pair]
        return (["unshare", "--mount", "sh", "-c", PRIVATE_DEVLOG, "sh",
                 str(self.tmp), str(self.path)] + pairs + ["--"] +
                [str(a) for a in argv])

    def close(self):
        sock, self._socket = self._socket, None
        if self._reader is not None:
            self._reader.join()
            self._reader = None
        if sock is not None:
            sock.close()

    def _read_forever(self):
        while self._socket is not None:
            try:
                select.select([self._socket], [], [], 0.05)
            except (OSError, ValueError, TypeError):
                return
            self._drain()

    def _drain(self):
        with self._lock:
            sock = self._socket
            while sock is not None:
                try:
                    data = sock.recv(65536)
                except (BlockingIOError, OSError):
                    return
                self._messages.append(
                    data.decode("utf-8", "surrogateescape"))

    def text(self):
        """The messages so far, one a line."""
        self._drain()
        return "".join(m.rstrip("\n") + "\n" for m in self._messages)


# ---------------------------------------------------- LIST answer models

MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
HALF_YEAR = 180 * 86400


def mode_string(st):
    kinds = {stat.S_IFDIR: "d", stat.S_IFLNK: "l", stat.S_IFIFO: "p",
             stat.S_IFREG: "-", stat.S_IFSOCK: "s", stat.S_IFCHR: "c",
             stat.S_IFBLK: "b"}
    perms = ""
    for who in range(3):
        bits = (st.st_mode >> (6 - 3 * who)) & 7
        perms += ("r" if bits & 4 else "-") + ("w" if bits & 2 else "-") + \
            ("x" if bits & 1 else "-")
    return kinds[stat.S_IFMT(st.st_mode)] + perms


def directory_order(directory, dots=False):
    """Names in the order the file system hands them out (what a server
    that does not sort shows), optionally with "." and ".." where they
    come."""
    done = subprocess.run(["ls", "-f", str(directory)],
                          stdout=subprocess.PIPE, check=True,
                          env={"LC_ALL": "C", "PATH": os.defpath})
    names = done.stdout.decode("utf-8", "surrogateescape").splitlines()
    return names if dots else [n for n in names if n not in (".", "..")]


class DotEntry(object):
    """The "." or ".." entry of a listing: its name, and the served
    directory it stands for (what str() and the status functions see)."""

    def __init__(self, name, target):
        self.name = name
        self.target = target

    def __str__(self):
        return str(self.target)

    def __fspath__(self):
        return str(self.target)


class Dialect(object):
    """How one server writes LIST and NLST answers, as a function of the
    served files.  The default is a Unix long listing: one line per
    entry, no summary line, links shown as "name -> target"."""

    # LIST line: link count, owner, group and size widths.
    widths = None
    zero_padded_day = False
    gmt = True
    sorted_list = True
    sorted_nlst = True
    lists_fifos = True
    nlst_dots = False
    # "." and ".." among the LIST entries.
    list_dots = False
    # Symbolic links shown as what they point to (a plain file with the
    # target's size), not as links; dangling ones left out.
    follows_links = False
    # The line end the server sends after each LIST line.
    eol = "\r\n"

    def __init__(self, server):
        self.server = server

    def owner(self, st):
        return str(st.st_uid)

    def group(self, st):
        return str(st.st_gid)

    def date(self, mtime):
        t = time.gmtime(mtime) if self.gmt else time.localtime(mtime)
        day = ("%02d" if self.zero_padded_day else "%2d") % t.tm_mday
        if 0 <= time.time() - mtime < HALF_YEAR:
            return "%s %s %02d:%02d" % (MONTHS[t.tm_mon - 1], day, t.tm_hour,
                                        t.tm_min)
        return "%s %s  %d" % (MONTHS[t.tm_mon - 1], day, t.tm_year)

    def stat(self, path):
        """The status that the server shows for a served path."""
        if self.follows_links:
            return os.stat(str(path))
        return os.lstat(str(path))

    def line(self, path, name=None):
        """The LIST line of one served path."""
        st = self.stat(path)
        links, owner, group, size = self.widths
        name = path.name if name is None else name
        if stat.S_ISLNK(st.st_mode):
            name += " -> " + os.readlink(str(path))
        return "%s %*d %-*s %-*s %*d %s %s" % (
            mode_string(st), links, st.st_nlink, owner, self.owner(st),
            group, self.group(st), size, st.st_size, self.date(st.st_mtime),
            name)

    def visible(self, path):
        try:
            mode = self.stat(path).st_mode
        except FileNotFoundError:       # a dangling link, followed
            return False
        return self.lists_fifos or not stat.S_ISFIFO(mode)

    def kind_of(self, path):
        """What the listing shows a served path as: "dir", "link", "file"
        or "other"."""
        mode = self.stat(path).st_mode
        if stat.S_ISDIR(mode):
            return "dir"
        if stat.S_ISLNK(mode):
            return "link"
        if stat.S_ISREG(mode):
            return "file"
        return "other"

    def list_entries(self, directory):
        """The paths that LIST shows for a served directory, in its order
        ("." and ".." included where the server lists them)."""
        names = directory_order(directory)
        if self.sorted_list:
            names = sorted(names)
        entries = [directory / n for n in names if self.visible(directory / n)]
        if self.list_dots:
            entries = [DotEntry(".", directory),
                       DotEntry("..", directory.parent)] + entries
        return entries

    def entry_name(self, path):
        """The name an entry of list_entries() has in the listing."""
        return path.name

    def summary(self, directory):
        """Lines the server sends before the entries (e.g. "total 8")."""
        return []

    def list_lines(self, directory):
        """The LIST answer's lines, without line ends."""
        return self.summary(directory) + [
            self.line(p, self.entry_name(p))
            for p in self.list_entries(directory)]

    def list_body(self, directory):
        """The LIST answer's bytes as the server sends them."""
        return "".join(line + self.eol
                       for line in self.list_lines(directory)).encode(
                           "utf-8", "surrogateescape")

    def list_text(self, directory):
        """The LIST answer as libcurl hands it on (CRLF as LF)."""
        return "".join(line + "\n" for line in self.list_lines(directory))

    def nlst_text(self, directory):
        """The NLST answer as libcurl hands it on."""
        return "".join(n + "\n" for n in self.nlst_names(directory))

    def refuses_retr(self, path):
        """Why the server refuses to send a served path that its listing
        shows as a file, or None."""
        return None

    def nlst_names(self, directory):
        if self.nlst_dots:
            return directory_order(directory, dots=True)
        names = directory_order(directory)
        return sorted(names) if self.sorted_nlst else names


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


class PythonServer(FtpServer):
    """An FTP server library of Python's (a Debian package) run by a small
    program of the server module's (PROGRAM, written to the temporary
    folder) under Debian's interpreter, as root.  The program is called
    with ROOT PORT_FILE LOG USER PASSWORD; it listens on 127.0.0.1 on a
    port of the system's choice, writes that port to PORT_FILE once it
    listens, and logs one JSON object a line to LOG: {"event": "connect"},
    {"event": "command", "command": "LIST", "arg": "x"} (before the
    command runs) and {"event": "disconnect"}."""

    needs_root = False
    needs_account = False
    # The program's text, and the Python modules it needs.
    PROGRAM = None
    modules = ()

    def __init__(self, account=None, options=()):
        FtpServer.__init__(self, "tester",
                           "pw-" + secrets.token_hex(6))
        self.options = list(options)
        self.proc = None

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

    def start(self, timeout=20.0):
        self.tmp = make_temp_dir(self.kind)
        self.root = self.tmp / "root"
        self.root.mkdir()
        self.port_file = self.tmp / "port"
        self.log_path = self.tmp / "events.jsonl"
        self.output_path = self.tmp / "server.out"
        program = self.tmp / "server.py"
        program.write_text(self.PROGRAM)
        argv = [ftptest.SYSTEM_PYTHON, str(program), str(self.root),
                str(self.port_file), str(self.log_path), self.user,
                self.password] + self.options
        with open(str(self.output_path), "wb") as out:
            self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                                         stdout=out, stderr=out,
                                         start_new_session=True,
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

    def output_text(self):
        try:
            return self.output_path.read_text(errors="replace")
        except (OSError, AttributeError):
            return ""

    def stop(self):
        if self.proc is not None:
            ftptest.stop_process(self.proc)
            self.proc = None
        remove_tree(self.tmp)
        self.tmp = None

    def log(self):
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


class LsDialect(Dialect):
    """A listing made the way "ls -lA" makes it (the inetd-style daemons
    run an ls of their own or the system's): a "total N" line first (the
    entries' 512-byte blocks, counted in KiB), then the entries sorted by
    name, each column as wide as its widest value, owner and group by
    name, local time."""

    gmt = False
    # What stands between the columns: after the mode, after the link
    # count, after the owner, after the group.
    gaps = (" ", " ", " ", " ")

    def owner(self, st):
        try:
            return pwd.getpwuid(st.st_uid).pw_name
        except KeyError:
            return str(st.st_uid)

    def group(self, st):
        try:
            return grp.getgrgid(st.st_gid).gr_name
        except KeyError:
            return str(st.st_gid)

    def summary(self, directory):
        blocks = sum(os.lstat(str(p)).st_blocks
                     for p in self.list_entries(directory))
        return ["total %d" % ((blocks + 1) // 2)]

    def list_lines(self, directory):
        entries = self.list_entries(directory)
        stats = [os.lstat(str(p)) for p in entries]
        widths = [max([len(str(v)) for v in values] or [0]) for values in (
            [st.st_nlink for st in stats], [self.owner(st) for st in stats],
            [self.group(st) for st in stats], [st.st_size for st in stats])]
        return self.summary(directory) + [
            self._line(p, st, widths) for p, st in zip(entries, stats)]

    def line(self, path, name=None):
        # One entry alone, as in a listing of its folder.
        directory = path.parent
        for candidate in self.list_lines(directory)[1:]:
            if candidate.endswith(" " + path.name) or \
                    (" " + path.name + " -> ") in candidate:
                return candidate
        raise KeyError(path)

    def _line(self, path, st, widths):
        links, owner, group, size = widths
        name = path.name
        if stat.S_ISLNK(st.st_mode):
            name += " -> " + os.readlink(str(path))
        g = self.gaps
        return "%s%s%*d%s%-*s%s%-*s%s%*d %s %s" % (
            mode_string(st), g[0], links, st.st_nlink, g[1], owner,
            self.owner(st), g[2], group, self.group(st), g[3], size,
            st.st_size, self.date(st.st_mtime), name)
