"""Helpers for brindle's end-to-end tests: running the brindle binary, and
starting, driving and stopping the FTP servers it is tested against.

Everything listens on 127.0.0.1 only, lives in temporary directories that
are removed afterwards, and every process is stopped by its own pid.
"""

import base64
import json
import os
import re
import secrets
import select
import shutil
import signal
import socket
import string
import stat
import subprocess
import tempfile
import threading
import time
from pathlib import Path

HOST = "127.0.0.1"
E2E_DIR = Path(__file__).resolve().parent
REPO_DIR = E2E_DIR.parent.parent
SCRIPTED_FTPD = E2E_DIR / "servers" / "scripted_ftpd.py"
# pyftpdlib is a Debian package, importable only from Debian's interpreter.
SYSTEM_PYTHON = "/usr/bin/python3"
VSFTPD = "/usr/sbin/vsftpd"
TEMP_PREFIX = "brindle-e2e-"


def make_temp_dir(tag):
    """A fresh directory that other local accounts may traverse (vsftpd
    changes into its root as the test account before chrooting)."""
    path = Path(tempfile.mkdtemp(prefix=TEMP_PREFIX + tag + "-"))
    path.chmod(0o755)
    return path


def remove_tree(path):
    if path is not None:
        shutil.rmtree(str(path), ignore_errors=True)


# How snapshot() shows a directory.
DIR = "<dir>"


def snapshot(root):
    """Everything below root: relative path -> file bytes, DIR for a
    directory, ("link", target) for a symbolic link (not followed), and
    ("other", file type bits) for anything else."""
    root = str(root)
    found = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + filenames:
            full = os.path.join(dirpath, name)
            rel = os.path.relpath(full, root)
            st = os.lstat(full)
            if stat.S_ISLNK(st.st_mode):
                found[rel] = ("link", os.readlink(full))
            elif stat.S_ISDIR(st.st_mode):
                found[rel] = DIR
            elif stat.S_ISREG(st.st_mode):
                with open(full, "rb") as f:
                    found[rel] = f.read()
            else:
                found[rel] = ("other", stat.S_IFMT(st.st_mode))
    return found


def named(commands, *names):
    """The (command, arg) pairs whose command is one of names, in order."""
    return [(c, a) for c, a in commands if c in names]


def b64(data):
    """A line of raw bytes for a scripted listing's "lines": {"b64": ...}."""
    return {"b64": base64.b64encode(data).decode("ascii")}


def raw_body(data):
    """A scripted listing that is sent exactly as the given bytes."""
    return {"raw_b64": base64.b64encode(data).decode("ascii")}


# --------------------------------------------------------------- processes

def _children(pid):
    """Pids whose parent is pid, read from /proc."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry, "rb") as f:
                stat = f.read()
        except OSError:
            continue
        # The command name in parentheses may contain spaces: split after it.
        fields = stat[stat.rfind(b")") + 2:].split()
        if len(fields) > 1 and int(fields[1]) == pid:
            found.append(int(entry))
    return found


def descendants(pid):
    """Every process below pid, children before grandchildren."""
    return [p for level in descendant_levels(pid) for p in level]


def descendant_levels(pid):
    """The processes below pid, one list per generation."""
    levels, current = [], [pid]
    while True:
        current = [kid for parent in current for kid in _children(parent)]
        if not current:
            return levels
        levels.append(current)


def pids_with_cmdline(argv):
    """Pids running exactly this argument vector (e.g. vsftpd with one
    test's private config file)."""
    wanted = b"\0".join(os.fsencode(a) for a in argv) + b"\0"
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/cmdline" % entry, "rb") as f:
                if f.read() == wanted:
                    found.append(int(entry))
        except OSError:
            continue
    return found


def _alive(pid):
    try:
        with open("/proc/%d/stat" % pid, "rb") as f:
            stat = f.read()
    except OSError:
        return False
    # A zombie has finished; only its parent's wait() is missing.
    return stat[stat.rfind(b")") + 2:stat.rfind(b")") + 3] != b"Z"


def _signal_pids(pids, sig):
    for pid in pids:
        try:
            os.kill(pid, sig)
        except (ProcessLookupError, PermissionError):
            pass


def _exists(pid):
    return os.path.exists("/proc/%d" % pid)


_PR_SET_CHILD_SUBREAPER = 36
_PR_GET_CHILD_SUBREAPER = 37


def _set_subreaper(on):
    """Make this process adopt its orphaned descendants (instead of init)
    so that it can reap them itself, or stop doing so.  Returns the
    previous setting; best effort."""
    try:
        import ctypes
        libc = ctypes.CDLL(None, use_errno=True)
        before = ctypes.c_int(0)
        libc.prctl(_PR_GET_CHILD_SUBREAPER, ctypes.byref(before), 0, 0, 0)
        libc.prctl(_PR_SET_CHILD_SUBREAPER, 1 if on else 0, 0, 0, 0)
        return bool(before.value)
    except (OSError, AttributeError):
        return False


def _reap(pids):
    """Collect the exit status of adopted pids; ignore the others."""
    for pid in pids:
        try:
            os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            pass


def reap_adopted(comm):
    """Reap this process's zombie children named comm: helpers of a server
    that were orphaned while this process was their subreaper."""
    me = os.getpid()
    for pid in _children(me):
        try:
            with open("/proc/%d/stat" % pid, "rb") as f:
                stat = f.read()
        except OSError:
            continue
        name = stat[stat.find(b"(") + 1:stat.rfind(b")")]
        state = stat[stat.rfind(b")") + 2:stat.rfind(b")") + 3]
        if name == os.fsencode(comm) and state == b"Z":
            try:
                os.waitpid(pid, os.WNOHANG)
            except ChildProcessError:
                pass


class _Adoption(object):
    """Keeps this process a child subreaper while servers run that leave
    orphans behind (vsftpd's session processes), so that they end up
    here, to be reaped, instead of lingering as init's zombies."""

    holders = 0
    before = False

    @classmethod
    def acquire(cls):
        if cls.holders == 0:
            cls.before = _set_subreaper(True)
        cls.holders += 1

    @classmethod
    def release(cls):
        cls.holders -= 1
        if cls.holders == 0:
            _set_subreaper(cls.before)


def stop_process(proc, extra_pids=(), timeout=5.0):
    """Stop a process started with Popen and the helper processes it made:
    SIGTERM, then SIGKILL for whatever is still alive after timeout.

    While it runs, this process is a child subreaper: helpers orphaned by
    the main process's death are adopted and reaped here rather than left
    as zombies for init."""
    was_subreaper = _set_subreaper(True)
    try:
        helpers = descendants(proc.pid) if proc.poll() is None else []
        helpers = list(dict.fromkeys(
            helpers + [p for p in extra_pids if p != proc.pid]))
        _signal_pids(helpers, signal.SIGTERM)
        if proc.poll() is None:
            _signal_pids([proc.pid], signal.SIGTERM)
        try:
            proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            _signal_pids([proc.pid], signal.SIGKILL)
            proc.wait(timeout=timeout)
        killed = False
        deadline = time.monotonic() + timeout
        while True:
            _reap(helpers)
            alive = [p for p in helpers if _alive(p)]
            if not alive:
                break
            if time.monotonic() > deadline:
                if killed:
                    break
                _signal_pids(alive, signal.SIGKILL)
                killed = True
                deadline = time.monotonic() + timeout
            time.sleep(0.01)
        # Helpers that were adopted are reaped by now; give the rest a
        # moment to be reaped by their own parents.
        deadline = time.monotonic() + 1.0
        while time.monotonic() < deadline and any(_exists(p) for p in helpers):
            _reap(helpers)
            time.sleep(0.01)
    finally:
        _set_subreaper(was_subreaper)


def free_port():
    """A port that was free a moment ago (bind to port 0, then release)."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind((HOST, 0))
        return s.getsockname()[1]


def is_listening(port, host=HOST):
    """Whether something listens on host:port, from /proc/net/tcp, so that
    the check does not open a session on the server."""
    packed = socket.inet_aton(host)
    wanted = "%08X:%04X" % (int.from_bytes(packed, "little"), port)
    try:
        with open("/proc/net/tcp") as f:
            next(f)
            for line in f:
                fields = line.split()
                # State 0A is TCP_LISTEN.
                if fields[1] == wanted and fields[3] == "0A":
                    return True
    except OSError:
        pass
    return False


# ------------------------------------------------------------------ brindle

class RunResult(object):
    """Outcome of one brindle run: exit status and raw output bytes."""

    def __init__(self, args, status, stdout, stderr):
        self.args = args
        self.status = status
        self.stdout = stdout
        self.stderr = stderr

    @property
    def stdout_text(self):
        return self.stdout.decode("utf-8", "surrogateescape")

    @property
    def stderr_text(self):
        return self.stderr.decode("utf-8", "surrogateescape")

    def __repr__(self):
        return ("RunResult(args=%r, status=%r,\n  stdout=%r,\n  stderr=%r)"
                % (self.args, self.status, self.stdout, self.stderr))


# The variable that makes brindle wait for its transfers with curl_easy_perform
# ("easy") or with its own loop over a multi handle ("multi") whatever the
# libcurl release; it exists for tests only.
WAIT_LOOP = "BRINDLE_TEST_WAIT_LOOP"
WAIT_PATHS = ("easy", "multi")


class Brindle(object):
    """Runs the brindle binary with a clean environment and no terminal.
    BRINDLE_TEST_WAIT_LOOP, when set for the tests themselves, is handed on
    to every run, so that the whole suite can run on either wait path."""

    def __init__(self, path, workdir):
        self.path = str(path)
        self.workdir = Path(workdir)

    def environment(self, env=None):
        base = {"PATH": os.environ.get("PATH", os.defpath)}
        if WAIT_LOOP in os.environ:
            base[WAIT_LOOP] = os.environ[WAIT_LOOP]
        for key, value in (env or {}).items():
            if value is None:
                base.pop(key, None)
            else:
                base[key] = value
        return base

    def run(self, *args, env=None, cwd=None, timeout=60, input=None):
        """Run brindle with args; env adds to (or, with None values, takes
        from) an environment holding only PATH; cwd defaults to a private
        per-test directory; input is bytes for stdin (else /dev/null)."""
        argv = [self.path] + [str(a) for a in args]
        proc = subprocess.Popen(
            argv,
            stdin=subprocess.PIPE if input is not None else subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            env=self.environment(env),
            cwd=str(cwd if cwd is not None else self.workdir),
            # Its own session: no controlling terminal, and one process
            # group to kill if it hangs.
            start_new_session=True)
        try:
            out, err = proc.communicate(input=input, timeout=timeout)
        except subprocess.TimeoutExpired:
            try:
                os.killpg(proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            out, err = proc.communicate()
            raise AssertionError(
                "brindle did not finish within %ss: %r"
                % (timeout, RunResult(argv, None, out, err)))
        return RunResult(argv, proc.returncode, out, err)


def find_brindle(option_value):
    """The brindle binary: --brindle, else $BRINDLE, else a usual build
    output path in the repository; None when none exists."""
    for candidate in (option_value, os.environ.get("BRINDLE")):
        if candidate:
            return Path(candidate).resolve()
    for rel in ("build/brindle", "build/src/brindle", "build/bin/brindle"):
        path = REPO_DIR / rel
        if path.is_file() and os.access(str(path), os.X_OK):
            return path
    return None


# ----------------------------------------------------------- local account

def _run_retrying(argv, input=None, retry_codes=(1, 10), attempts=50):
    """Run a shadow-utils tool, retrying while /etc/passwd or /etc/group
    is locked by someone else (exit codes 1 and 10)."""
    for attempt in range(attempts):
        done = subprocess.run(argv, input=input, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE)
        if done.returncode not in retry_codes or attempt == attempts - 1:
            return done
        time.sleep(0.1 + 0.05 * attempt)


class LocalAccount(object):
    """A throwaway system account: name, uid, gid, password, home."""

    def __init__(self):
        self.name = None
        self.uid = None
        self.gid = None
        self.password = "pw-" + secrets.token_hex(8)
        self.home = None

    def create(self):
        self.home = make_temp_dir("home")
        for _ in range(20):
            suffix = "".join(secrets.choice(string.ascii_lowercase)
                             for _ in range(3))
            name = "brt%d%s" % (os.getpid(), suffix)
            done = _run_retrying(["useradd", "-r", "-M", "-d", str(self.home),
                                  "-s", "/bin/sh", name])
            if done.returncode == 9:        # name taken: draw another
                continue
            if done.returncode != 0:
                raise RuntimeError("useradd %s failed (%d): %s" % (
                    name, done.returncode, done.stderr.decode(errors="replace")))
            self.name = name
            break
        else:
            raise RuntimeError("no free account name found")
        import pwd
        entry = pwd.getpwnam(self.name)
        self.uid, self.gid = entry.pw_uid, entry.pw_gid
        os.chown(str(self.home), self.uid, self.gid)
        done = _run_retrying(["chpasswd"], input=(
            "%s:%s\n" % (self.name, self.password)).encode())
        if done.returncode != 0:
            raise RuntimeError("chpasswd failed: %s"
                               % done.stderr.decode(errors="replace"))
        return self

    def remove(self):
        if self.name is not None:
            # 8: the account still runs processes; give them time to end.
            done = _run_retrying(["userdel", self.name],
                                 retry_codes=(1, 8, 10))
            if done.returncode not in (0, 6):     # 6: already gone
                raise RuntimeError("userdel %s failed (%d): %s" % (
                    self.name, done.returncode,
                    done.stderr.decode(errors="replace")))
            self.name = None
        remove_tree(self.home)
        self.home = None

    def chown(self, path):
        os.lchown(str(path), self.uid, self.gid)

    def __repr__(self):
        return "LocalAccount(name=%r, uid=%r, gid=%r)" % (
            self.name, self.uid, self.gid)


# ------------------------------------------------------------------ servers

class FtpServer(object):
    """What every test server offers; subclasses start and stop one."""

    kind = None

    def __init__(self, user, password):
        self.host = HOST
        self.port = None
        self.user = user
        self.password = password
        self.passive = True
        self.tmp = None
        self.root = None

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
        return RunResult(argv, done.returncode, done.stdout, done.stderr)

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

    # -- logs

    def log_text(self):
        try:
            return self.log_path.read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    def commands(self):
        raise NotImplementedError

    def __repr__(self):
        return "<%s %s:%s %s root=%s>" % (self.kind, self.host, self.port,
                                          self.mode, self.root)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


class ScriptedServer(FtpServer):
    """scripted_ftpd.py (pyftpdlib) serving a temporary root."""

    kind = "scripted"

    def __init__(self, user="tester", password="secret"):
        FtpServer.__init__(self, user, password)
        self.proc = None
        self._last_mtime_ns = 0
        self._generation = 0

    def start(self, timeout=10.0):
        self.tmp = make_temp_dir("scripted")
        self.root = self.tmp / "root"
        self.root.mkdir()
        self.port_file = self.tmp / "port"
        self.log_path = self.tmp / "events.jsonl"
        self.script_path = self.tmp / "script.json"
        self.stderr_path = self.tmp / "server.stderr"
        argv = [SYSTEM_PYTHON, str(SCRIPTED_FTPD),
                "--root", str(self.root), "--port-file", str(self.port_file),
                "--log", str(self.log_path), "--script", str(self.script_path),
                "--user", self.user, "--password", self.password]
        with open(str(self.stderr_path), "wb") as err:
            self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                                         stdout=err, stderr=err)
        deadline = time.monotonic() + timeout
        while not self.port_file.exists():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                output = self.stderr_text()
                self.stop()
                raise RuntimeError("scripted_ftpd did not start:\n" + output)
            time.sleep(0.02)
        self.port = int(self.port_file.read_text())
        return self

    def stop(self):
        if self.proc is not None:
            stop_process(self.proc)
            self.proc = None
        remove_tree(self.tmp)
        self.tmp = None

    def stderr_text(self):
        try:
            return self.stderr_path.read_text(errors="replace")
        except (OSError, AttributeError):
            return ""

    def script(self, data):
        """Replace the server's script (a dict, or None for none).  The
        server picks it up at the next connection or command."""
        tmp = self.tmp / "script.json.tmp"
        if data is None:
            try:
                self.script_path.unlink()
            except FileNotFoundError:
                pass
            return
        self._generation += 1
        data = dict(data)
        data["generation"] = self._generation
        tmp.write_text(json.dumps(data), encoding="utf-8")
        # A new inode and a strictly later mtime, so the change is seen
        # even within one tick of the file system clock.
        mtime_ns = max(time.time_ns(), self._last_mtime_ns + 1000)
        self._last_mtime_ns = mtime_ns
        os.utime(str(tmp), ns=(mtime_ns, mtime_ns))
        os.replace(str(tmp), str(self.script_path))

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


_VSFTPD_COMMAND = re.compile(r'FTP command: Client "[^"]*", "(.*)"$')


def parse_vsftpd_commands(text):
    """(command, arg) pairs from a vsftpd log written with
    log_ftp_protocol=YES.  vsftpd writes PASS as "PASS <password>" and
    replaces unprintable bytes with "?"."""
    result = []
    for line in text.splitlines():
        m = _VSFTPD_COMMAND.search(line)
        if not m:
            continue
        cmd, _, arg = m.group(1).partition(" ")
        result.append((cmd.upper(), arg))
    return result


class _DaemonServer(FtpServer):
    """A real FTP daemon serving a temporary root as the throwaway local
    account, in the foreground, stopped by pid.  Subclasses write their
    configuration and give the command line."""

    daemon = None           # path of the binary
    port_taken = "in use"   # what its output says when the port is taken

    def __init__(self, account, options=()):
        FtpServer.__init__(self, account.name, account.password)
        self.account = account
        # Extra configuration: lines for ProFTPD, switches for Pure-FTPd.
        self.options = list(options)
        self.proc = None

    def _own(self, path):
        self.account.chown(path)

    def prepare(self):
        """Write the configuration files for self.port."""
        raise NotImplementedError

    def argv(self):
        raise NotImplementedError

    def start(self, timeout=10.0, attempts=3):
        # Session helpers (Pure-FTPd's privilege separation process) can
        # outlive their parent: adopt and reap them here.
        _Adoption.acquire()
        self._adopting = True
        self.tmp = make_temp_dir(self.kind)
        self.root = self.tmp / "root"
        self.root.mkdir()
        self._own(self.root)
        self.log_path = self.tmp / "commands.log"
        self.output_path = self.tmp / "daemon.out"
        for attempt in range(attempts):
            self.port = free_port()
            self.prepare()
            with open(str(self.output_path), "wb") as out:
                self.proc = subprocess.Popen(
                    self.argv(), stdin=subprocess.DEVNULL, stdout=out,
                    stderr=out, start_new_session=True)
            deadline = time.monotonic() + timeout
            while not is_listening(self.port):
                if self.proc.poll() is not None or time.monotonic() > deadline:
                    break
                time.sleep(0.02)
            if is_listening(self.port) and self.proc.poll() is None:
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
            stop_process(self.proc)
            self.proc = None

    def stop(self):
        self._stop_processes()
        if getattr(self, "_adopting", False):
            reap_adopted(os.path.basename(str(self.daemon)))
            _Adoption.release()
            self._adopting = False
        remove_tree(self.tmp)
        self.tmp = None

    def wait_idle(self, timeout=5.0):
        """Wait until every session process has ended, so that the last
        session's commands are in the log."""
        deadline = time.monotonic() + timeout
        while self.proc is not None and _children(self.proc.pid):
            if time.monotonic() > deadline:
                return False
            time.sleep(0.01)
        return True

    def version(self):
        raise NotImplementedError


class VsftpdServer(_DaemonServer):
    """vsftpd serving a temporary root as a local account, chrooted."""

    kind = "vsftpd"
    daemon = VSFTPD
    port_taken = "could not bind"

    def config_text(self):
        settings = [
            ("listen", "YES"),
            ("listen_ipv6", "NO"),
            ("listen_address", HOST),
            ("listen_port", str(self.port)),
            ("background", "NO"),
            ("anonymous_enable", "NO"),
            ("local_enable", "YES"),
            ("write_enable", "YES"),
            ("local_umask", "022"),
            ("local_root", str(self.root)),
            ("chroot_local_user", "YES"),
            ("allow_writeable_chroot", "YES"),
            ("secure_chroot_dir", str(self.empty_dir)),
            ("seccomp_sandbox", "NO"),
            ("isolate", "NO"),
            ("isolate_network", "NO"),
            ("pasv_enable", "YES"),
            ("port_enable", "YES"),
            ("connect_from_port_20", "NO"),
            ("log_ftp_protocol", "YES"),
            ("xferlog_enable", "YES"),
            ("vsftpd_log_file", str(self.log_path)),
            ("dual_log_enable", "NO"),
            ("syslog_enable", "NO"),
            ("delay_failed_login", "0"),
            # No such file in /etc/pam.d: PAM falls back to "other",
            # which is plain pam_unix.
            ("pam_service_name", "brindle-e2e-none"),
        ]
        return "".join(["%s=%s\n" % kv for kv in settings] +
                       [option + "\n" for option in self.options])

    def prepare(self):
        self.empty_dir = self.tmp / "empty"
        self.empty_dir.mkdir(mode=0o755, exist_ok=True)
        self.conf_path = self.tmp / "vsftpd.conf"
        fd = os.open(str(self.conf_path),
                     os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        with os.fdopen(fd, "w") as f:
            f.write(self.config_text())
        os.chmod(str(self.conf_path), 0o600)

    def argv(self):
        return [str(VSFTPD), str(self.conf_path)]

    def _stop_processes(self):
        if self.proc is None:
            return
        # Session processes call setsid() and may outlive the listener, so
        # they are found by their parent and by their unique command line.
        stop_process(self.proc, extra_pids=pids_with_cmdline(self.argv()))
        _signal_pids(pids_with_cmdline(self.argv()), signal.SIGKILL)
        self.proc = None

    def commands(self):
        return parse_vsftpd_commands(self.log_text())


# ------------------------------------------- servers unpacked, not installed

# ProFTPD and Pure-FTPd conflict with vsftpd as Debian packages, so
# scripts/ftp-servers.sh unpacks them into this folder instead.
SERVER_CACHE = Path(os.environ.get("BRINDLE_FTP_SERVERS",
                                   "/var/cache/brindle-tests/servers"))
PROFTPD = SERVER_CACHE / "usr" / "sbin" / "proftpd"
PURE_FTPD = SERVER_CACHE / "usr" / "sbin" / "pure-ftpd"
PURE_PW = SERVER_CACHE / "usr" / "bin" / "pure-pw"


def sha512_crypt(password):
    """A SHA-512 crypt(3) hash: the daemons' own defaults (argon2 for
    pure-pw) cost seconds per login."""
    import warnings
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        import crypt
    return crypt.crypt(password, crypt.mksalt(crypt.METHOD_SHA512))


class ProftpdServer(_DaemonServer):
    """ProFTPD, authenticating the local account from its own user file
    and logging every command with ExtendedLog."""

    kind = "proftpd"
    daemon = PROFTPD

    def prepare(self):
        import grp
        group = grp.getgrgid(self.account.gid).gr_name
        users = self.tmp / "passwd"
        groups = self.tmp / "group"
        users.write_text("%s:%s:%d:%d::%s:/bin/sh\n" % (
            self.account.name, sha512_crypt(self.password), self.account.uid,
            self.account.gid, self.root))
        users.chmod(0o600)
        groups.write_text("%s:x:%d:%s\n" % (group, self.account.gid,
                                             self.account.name))
        lines = [
            'ServerType standalone',
            'ServerName "brindle e2e"',
            'Port %d' % self.port,
            'DefaultAddress %s' % HOST,
            'SocketBindTight on',
            'UseIPv6 off',
            'User nobody',
            'Group nogroup',
            'PidFile %s' % (self.tmp / "proftpd.pid"),
            'ScoreboardFile %s' % (self.tmp / "proftpd.scoreboard"),
            'DelayEngine off',
            'WtmpLog off',
            'UseReverseDNS off',
            'TransferLog NONE',
            'AuthOrder mod_auth_file.c',
            'AuthUserFile %s' % users,
            'AuthGroupFile %s' % groups,
            'RequireValidShell off',
            'DefaultRoot ~',
            'AllowOverwrite on',
            'Umask 022',
            'LogFormat commands "%r"',
            'ExtendedLog %s ALL commands' % self.log_path,
        ] + self.options
        self.conf_path = self.tmp / "proftpd.conf"
        self.conf_path.write_text("".join(line + "\n" for line in lines))

    def argv(self):
        return [str(PROFTPD), "-n", "-c", str(self.conf_path)]

    def commands(self):
        # One "%r" a line: the request exactly as received, except that
        # PASS reads "PASS (hidden)".
        result = []
        for line in self.log_text().splitlines():
            cmd, _, arg = line.partition(" ")
            result.append((cmd.upper(), arg))
        return result

    def version(self):
        done = subprocess.run([str(PROFTPD), "-v"], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        return done.stdout.decode(errors="replace").strip()


# Runs a program with its own /dev holding a "log" socket of ours, so that
# a daemon that can only log to syslog logs to the test instead (the
# machine may have no syslog daemon, and /dev/log is not ours to make).
_PRIVATE_DEVLOG = r'''
set -eu
tmp=$1; sock=$2; shift 2
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

_PURE_COMMAND = re.compile(r"\[DEBUG\] Command \[([^\]]*)\] \[(.*)\]$")


class PureftpdServer(_DaemonServer):
    """Pure-FTPd, authenticating the local account from its own PureDB
    file and logging every command (-d) to a syslog socket of the test's."""

    kind = "pureftpd"
    daemon = PURE_FTPD

    def start(self, timeout=10.0, attempts=3):
        self._messages = []
        self._syslog = None
        self._lock = threading.Lock()
        self._reader = None
        return _DaemonServer.start(self, timeout, attempts)

    def prepare(self):
        users = self.tmp / "pureftpd.passwd"
        users.write_text("%s:%s:%d:%d::%s/./::::::::::::\n" % (
            self.account.name, sha512_crypt(self.password), self.account.uid,
            self.account.gid, self.root))
        self.db_path = self.tmp / "pureftpd.pdb"
        done = subprocess.run([str(PURE_PW), "mkdb", str(self.db_path), "-f",
                               str(users)], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        if done.returncode != 0:
            raise RuntimeError("pure-pw mkdb failed: " + done.stdout.decode(
                errors="replace"))
        if self._syslog is None:
            self.socket_path = self.tmp / "syslog.sock"
            self._syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            self._syslog.bind(str(self.socket_path))
            self._syslog.setblocking(False)
            os.chmod(str(self.socket_path), 0o666)
            # A datagram socket queues only a few messages (10 by default)
            # before the daemon's syslog() blocks: keep reading.
            self._reader = threading.Thread(target=self._read_forever,
                                            daemon=True)
            self._reader.start()

    def argv(self):
        return (["unshare", "--mount", "sh", "-c", _PRIVATE_DEVLOG, "sh",
                 str(self.tmp), str(self.socket_path), str(PURE_FTPD),
                 "-S", "%s,%d" % (HOST, self.port), "-l",
                 "puredb:%s" % self.db_path, "-E", "-H", "-A", "-u", "1",
                 "-d"] + self.options)

    def stop(self):
        _DaemonServer.stop(self)
        sock, self._syslog = getattr(self, "_syslog", None), None
        if self._reader is not None:
            self._reader.join()
            self._reader = None
        if sock is not None:
            sock.close()

    def _read_forever(self):
        while self._syslog is not None:
            select.select([self._syslog], [], [], 0.05)
            self._drain()

    def _drain(self):
        with self._lock:
            sock = self._syslog
            while sock is not None:
                try:
                    data = sock.recv(65536)
                except (BlockingIOError, OSError):
                    return
                self._messages.append(
                    data.decode("utf-8", "surrogateescape"))

    def log_text(self):
        """The syslog messages so far, one a line.  Every command is sent
        before its reply, so a finished client's commands are all here."""
        self._drain()
        return "".join(m.rstrip("\n") + "\n" for m in self._messages)

    def commands(self):
        # Pure-FTPd logs the command word in lower case and PASS as
        # "<*>".
        result = []
        for line in self.log_text().splitlines():
            m = _PURE_COMMAND.search(line)
            if m:
                result.append((m.group(1).upper(), m.group(2)))
        return result

    def version(self):
        done = subprocess.run([str(PURE_FTPD), "--help"],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.stdout.decode(errors="replace").splitlines()[0].strip()
