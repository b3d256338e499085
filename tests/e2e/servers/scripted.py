"""The scripted server (scripted_ftpd.py, on pyftpdlib): a real FTP server
over a temporary root whose answers a test can script or break, logging
every command as JSON.  Also its IIS mode, which lists in the DOS style.
"""

import json
import os
import time
from pathlib import Path

from ftptest import SYSTEM_PYTHON

from .base import PythonServer, module_version
from .dialect import Dialect, directory_order

SCRIPTED_FTPD = Path(__file__).resolve().parent / "scripted_ftpd.py"


class ScriptedDialect(Dialect):
    # pyftpdlib: names from the password and group files, "Jan 01".
    widths = (3, 8, 8, 8)
    names = True
    zero_padded_day = True


class ScriptedServer(PythonServer):
    """scripted_ftpd.py (pyftpdlib) serving a temporary root."""

    kind = "scripted"
    title = "pyftpdlib (scripted)"
    column = "pyftpdlib"
    dialect = ScriptedDialect
    expect = "Everything works."
    format_note = ("Owner and group by name, day of month with a leading "
                   "zero (`Jan 01  2010`), times in UTC, LIST and NLST "
                   "sorted by name, fifos listed.")
    # scripted_ftpd.py's --list-style.
    list_style = "unix"
    # It starts quickly, and an interrupted test run takes it along.
    start_timeout = 10.0
    own_session = False

    def __init__(self, user="tester", password="secret", options=()):
        PythonServer.__init__(self, options=options, user=user,
                              password=password)
        self._last_mtime_ns = 0
        self._generation = 0

    def version(self):
        return "pyftpdlib " + module_version("pyftpdlib", "__ver__")

    @property
    def script_path(self):
        return self.tmp / "script.json"

    def program_argv(self):
        return [SYSTEM_PYTHON, str(SCRIPTED_FTPD),
                "--root", str(self.root), "--port-file", str(self.port_file),
                "--log", str(self.log_path), "--script", str(self.script_path),
                "--user", self.user, "--password", self.password,
                "--list-style", self.list_style] + self.options

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
