"""The shared core of brindle's end-to-end tests: running the brindle
binary, temporary folders and snapshots of them, finding and stopping
processes, free ports, and the throwaway local account.  The FTP servers
themselves live in servers/, one module each; the assertions that many
test files share in checks.py.

Everything listens on 127.0.0.1 only, lives in temporary directories that
are removed afterwards, and every process is stopped by its own pid.
"""

import base64
import os
import secrets
import shutil
import signal
import socket
import string
import stat
import subprocess
import tempfile
import time
from pathlib import Path

HOST = "127.0.0.1"
E2E_DIR = Path(__file__).resolve().parent
REPO_DIR = E2E_DIR.parent.parent
# The Python servers (pyftpdlib, Twisted, aioftp) are Debian packages,
# importable only from Debian's interpreter.
SYSTEM_PYTHON = "/usr/bin/python3"
TEMP_PREFIX = "brindle-e2e-"


def make_temp_dir(tag):
    """A fresh directory that other local accounts may traverse (vsftpd
    changes into its root as the test account before chrooting)."""
    path = Path(tempfile.mkdtemp(prefix=TEMP_PREFIX + tag + "-"))
    path.chmod(0o755)
    return path


def remove_tree(path):
    if path is None:
        return
    try:
        shutil.rmtree(str(path))
    except RecursionError:
        # shutil recurses once per level: a chain of directories deeper
        # than Python's recursion limit goes with rm, which does not.
        subprocess.run(["rm", "-rf", "--", str(path)], check=False)
    except OSError:
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

def children(pid):
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
        current = [kid for parent in current for kid in children(parent)]
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


def signal_pids(pids, sig):
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
    for pid in children(me):
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


class Adoption(object):
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
        signal_pids(helpers, signal.SIGTERM)
        if proc.poll() is None:
            signal_pids([proc.pid], signal.SIGTERM)
        try:
            proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            signal_pids([proc.pid], signal.SIGKILL)
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
                signal_pids(alive, signal.SIGKILL)
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

    def __init__(self, home=None):
        """home: an existing folder to be the account's home (it stays
        when the account is removed); by default a new temporary one."""
        self.name = None
        self.uid = None
        self.gid = None
        self.password = "pw-" + secrets.token_hex(8)
        self.home = home
        self._own_home = home is None

    def create(self):
        if self._own_home:
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
        if self._own_home:
            remove_tree(self.home)
            self.home = None

    def chown(self, path):
        os.lchown(str(path), self.uid, self.gid)

    def __repr__(self):
        return "LocalAccount(name=%r, uid=%r, gid=%r)" % (
            self.name, self.uid, self.gid)


# ------------------------------------------- servers unpacked, not installed

# Debian's FTP daemons conflict with vsftpd as packages, so
# scripts/ftp-servers.sh unpacks them into this folder instead.
SERVER_CACHE = Path(os.environ.get("BRINDLE_FTP_SERVERS",
                                   "/var/cache/brindle-tests/servers"))


def server_file(relative):
    """A file of one of those daemons (relative: its path in the package,
    such as "usr/sbin/proftpd"): the unpacked one in SERVER_CACHE, or,
    where nothing was unpacked, the one that the installed package put in
    place (the Debian package's autopkgtest installs one daemon per test
    instead of unpacking them)."""
    unpacked = SERVER_CACHE / relative
    installed = Path("/") / relative
    if not unpacked.exists() and installed.exists():
        return installed
    return unpacked


def selected_servers():
    """The kinds of server this run is limited to ($BRINDLE_E2E_SERVERS,
    separated by spaces or commas), or None for every kind: the tests of
    other servers are skipped, and these ones must run."""
    value = os.environ.get("BRINDLE_E2E_SERVERS", "").replace(",", " ")
    kinds = value.split()
    return set(kinds) if kinds else None


def crypt_hash(password, method):
    """A crypt(3) hash of password, made by mkpasswd (Debian's whois
    package; Python 3.13 has no crypt module): "sha-512" for the daemons'
    own user files (their defaults, argon2 for pure-pw, cost seconds per
    login), "des" for GridFTP's password file, which knows no other."""
    done = subprocess.run(["mkpasswd", "--method=" + method, "--stdin"],
                          input=password.encode(), stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)
    hashed = done.stdout.decode().strip()
    if done.returncode != 0 or not hashed:
        raise RuntimeError("mkpasswd --method=%s failed (%d): %s" % (
            method, done.returncode, done.stderr.decode(errors="replace")))
    return hashed
