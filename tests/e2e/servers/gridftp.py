"""Globus GridFTP (Debian's globus-gridftp-server-progs) speaking plain FTP:
clear-text logins from a password file of its own that names the local
test account (old DES hashes only), the session starting in the temporary
root (-home-dir), without chroot."""

import os
import re
import shutil
import time

import ftptest
from ftptest import HOST

from .base import DaemonServer, package_version
from .dialect import Dialect, DotEntry, mode_string

GRIDFTP = shutil.which("globus-gridftp-server") or \
    "/usr/sbin/globus-gridftp-server"


class GridftpDialect(Dialect):
    """GridFTP's LIST: "." and ".." first, then the entries sorted by
    name; owner and group names, the date always with the time of day
    (never a year); a link shown as what it points to; "." with the
    number of the folder's entries as its link count.  In ASCII mode
    (libcurl's for listings) every line ends in CR CR LF: the server adds
    a CR to lines that already end in CR LF."""

    names = True
    follows_links = True
    list_dots = True
    eol = "\r\r\n"

    def date(self, mtime):
        return time.strftime("%b %e %H:%M", time.localtime(mtime))

    def list_entries(self, directory):
        entries = Dialect.list_entries(self, directory)
        return [DotEntry(".", directory), DotEntry("..", directory.parent)] \
            + entries[2:]

    def links(self, path, st):
        if getattr(path, "name", None) == ".":
            # "." counts the folder's entries, "." and ".." included,
            # instead of its links.
            return len(os.listdir(str(path))) + 2
        return st.st_nlink

    def _remote(self, directory):
        rel = os.path.relpath(str(directory), str(self.server.root))
        return "/" if rel == "." else "/" + rel + "/"

    def raw_lines(self, directory):
        """The entries' lines, as the server writes them."""
        return Dialect.list_lines(self, directory)

    def list_body(self, directory):
        return "".join(line + self.eol for line in self.raw_lines(
            directory)).encode("utf-8", "surrogateescape")

    def list_text(self, directory):
        # What libcurl makes of CR CR LF differs between its releases:
        # the running libcurl's own result, through curl.
        done = self.server.curl(self._remote(directory))
        assert done.status == 0, done
        return done.stdout.decode("utf-8", "surrogateescape")

    def list_lines(self, directory):
        return self.list_text(directory).split("\n")[:-1]

    def nlst_text(self, directory):
        done = self.server.curl(self._remote(directory), "--list-only")
        assert done.status == 0, done
        return done.stdout.decode("utf-8", "surrogateescape")

    def line(self, path, name=None):
        st = self.stat(path)
        name = path.name if name is None else name
        return "%s %3d %-8s %-8s %12d %s %s" % (
            mode_string(st), self.links(path, st), self.owner(st),
            self.group(st), st.st_size, self.date(st.st_mtime), name)


class GridftpServer(DaemonServer):
    """GridFTP serving a temporary root as the local account."""

    kind = "gridftp"
    title = "Globus GridFTP"
    column = "GridFTP"
    daemon = GRIDFTP
    install = "apt-get install globus-gridftp-server-progs"
    comm = "globus-gridftp-"
    # -d ALL: every command the client sent.
    command_pattern = re.compile(r"\[CLIENT\]: (.*)$")
    chroot = False
    dialect = GridftpDialect
    expect = ("Only uploads and `--list DIR/.` work: the CR CR LF line ends "
              "of its listings stop the rest.")
    format_note = (
        "`.` and `..` first (brindle passes over both), then the entries "
        "sorted by name, owner and group names, the date always with the "
        "time of day (never a year), a symbolic link shown as what it "
        "points to, a fifo as a fifo. In ASCII mode, which libcurl uses for "
        "listings, every line ends in CR CR LF: the server adds a CR to "
        "lines that already end in CR LF, and libcurl hands the extra line "
        "end on as an empty line after each entry (what it makes of it is "
        "taken from the running libcurl). The LIST pattern rejects that "
        "line, so every command that reads a listing fails before it "
        "changes anything; listing a directory's contents and uploads "
        "work. Not chrooted. Binary downloads through libcurl would be "
        "corrupted besides (libcurl sends `TYPE I` after `EPSV`/`PASV`, "
        "which this server then ignores: LF becomes CR LF, cut at the "
        "`SIZE` value), though brindle never gets that far.")
    why_rejected = ("the server ends every LIST line in CR CR LF in ASCII "
                    "mode, which libcurl hands on as this line; no setting "
                    "of GridFTP avoids it")

    def prepare(self):
        self.password_file = self.tmp / "gridftp.passwd"
        self.password_file.write_text("%s:%s:%d:%d::%s:/bin/sh\n" % (
            self.account.name, ftptest.crypt_hash(self.password, "des"),
            self.account.uid, self.account.gid, self.root))
        self.password_file.chmod(0o600)

    def argv(self):
        return [GRIDFTP, "-p", str(self.port), "-control-interface", HOST,
                "-data-interface", HOST, "-password-file",
                str(self.password_file), "-allow-disabled-login",
                "-home-dir", str(self.root), "-d", "ALL", "-l",
                str(self.log_path)] + self.options

    def environment(self):
        # Globus looks the machine's host name up for the address of a
        # passive data connection; where that name resolves to nothing
        # (a chroot's /etc/hosts), this name stands in for it.
        return dict(os.environ, GLOBUS_HOSTNAME=HOST)

    def version(self):
        return "globus-gridftp-server " + package_version(
            "globus-gridftp-server-progs")

