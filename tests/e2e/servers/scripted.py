"""The scripted server (scripted_ftpd.py, on pyftpdlib): a real FTP server
over a temporary root whose answers a test can script or break, logging
every command as JSON.  Also its IIS mode, which lists in the DOS style.
"""

import grp
import json
import os
import pwd
import subprocess
import time
from pathlib import Path

import ftptest
from ftptest import SYSTEM_PYTHON, make_temp_dir, remove_tree

from .base import FtpServer
from .dialect import Dialect, directory_order

SCRIPTED_FTPD = Path(__file__).resolve().parent / "scripted_ftpd.py"


class ScriptedDialect(Dialect):
    # pyftpdlib: names from the password and group files, "Jan 01".
    widths = (3, 8, 8, 8)
    zero_padded_day = True

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


class ScriptedServer(FtpServer):
    """scripted_ftpd.py (pyftpdlib) serving a temporary root."""

    kind = "scripted"
    title = "pyftpdlib (scripted)"
    column = "pyftpdlib"
    needs_root = False
    needs_account = False
    dialect = ScriptedDialect
    expect = "Everything works."
    format_note = ("Owner and group by name, day of month with a leading "
                   "zero (`Jan 01  2010`), times in UTC, LIST and NLST "
                   "sorted by name, fifos listed.")
    # scripted_ftpd.py's --list-style.
    list_style = "unix"

    def __init__(self, user="tester", password="secret", options=()):
        FtpServer.__init__(self, user, password)
        self.options = list(options)
        self.proc = None
        self._last_mtime_ns = 0
        self._generation = 0

    @property
    def writes_as(self):
        return os.geteuid()

    def version(self):
        out = subprocess.run(
            [SYSTEM_PYTHON, "-c", "import pyftpdlib; print(pyftpdlib.__ver__)"],
            stdout=subprocess.PIPE).stdout.decode().strip()
        return "pyftpdlib " + out

    def start(self, timeout=10.0):
        self.tmp = make_temp_dir(self.kind)
        self.root = self.tmp / "root"
        self.root.mkdir()
        self.port_file = self.tmp / "port"
        self.log_path = self.tmp / "events.jsonl"
        self.script_path = self.tmp / "script.json"
        self.stderr_path = self.tmp / "server.stderr"
        argv = [SYSTEM_PYTHON, str(SCRIPTED_FTPD),
                "--root", str(self.root), "--port-file", str(self.port_file),
                "--log", str(self.log_path), "--script", str(self.script_path),
                "--user", self.user, "--password", self.password,
                "--list-style", self.list_style] + self.options
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
            ftptest.stop_process(self.proc)
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


class DosDialect(Dialect):
    """IIS's default DOS style: "MM-DD-YY  HH:MMAM", then "<DIR>" or the
    size, then the name; directories and files only, links followed."""

    follows_links = True

    def visible(self, path):
        return self.kind_of(path) in ("dir", "file")

    def kind_of(self, path):
        try:
            return Dialect.kind_of(self, path)
        except FileNotFoundError:       # a dangling link
            return "other"

    def line(self, path, name=None):
        st = self.stat(path)
        when = time.strftime("%m-%d-%y  %I:%M%p", time.gmtime(st.st_mtime))
        name = path.name if name is None else name
        if self.kind_of(path) == "dir":
            return "%s       <DIR>          %s" % (when, name)
        return "%s %20d %s" % (when, st.st_size, name)

    def nlst_names(self, directory):
        return sorted(n for n in directory_order(directory)
                      if self.visible(directory / n))


class IisServer(ScriptedServer):
    """The scripted server listing the way IIS does by default."""

    kind = "iis"
    title = "IIS style (scripted, DOS listing)"
    column = "IIS style"
    dialect = DosDialect
    list_style = "dos"
    expect = ("DOS-style listings work; a link is a copy of its target, "
              "and fifos are invisible: a folder holding one cannot be "
              "removed.")
    why_unlisted = ("a Windows server has no fifos: the IIS-style server "
                    "leaves them out of LIST")
    format_note = (
        "The scripted server in its IIS mode: DOS-style lines as IIS sends "
        "them by default, `01-01-10  12:00AM       <DIR>          nested` "
        "and `01-01-10  12:00AM                    6 a.txt` (12-hour times, "
        "UTC), sorted by name. brindle reads `<DIR>` as a directory and a "
        "size as a file. A Windows server has no symbolic links or fifos "
        "to show: like IIS, this one shows a link as what it points to (a "
        "file with the target's size and content, downloaded as a copy and "
        "removed as the link itself), and leaves fifos out, so `--list` "
        "cannot find one and a tree holding one cannot be removed (the "
        "directory is not empty).")
