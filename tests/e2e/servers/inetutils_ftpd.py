"""GNU inetutils ftpd, unpacked from Debian's inetutils-ftpd by
scripts/ftp-servers.sh (it conflicts with vsftpd), run inetd-style behind
socat, logging in an account of its own from /etc/shadow."""

import re
import subprocess

import ftptest

from .base import InetdServer, unpacked_version
from .dialect import LsDialect

FTPD = ftptest.server_file("usr/sbin/ftpd")


class InetutilsDialect(LsDialect):
    """inetutils' own "ls -lA": BSD's columns (two blanks around the
    group), NLST in directory order."""

    gaps = ("  ", " ", "  ", "  ")
    sorted_nlst = False


class InetutilsServer(InetdServer):
    kind = "inetutils"
    title = "GNU inetutils ftpd"
    column = "inetutils"
    daemon = FTPD
    # -d: every command to syslog.
    command_pattern = re.compile(r"ftpd\[\d+\]: command: (.*)$")
    dialect = InetutilsDialect
    expect = ("Only uploads and `--list DIR/.` work: the `total N` line of "
              "every listing stops the rest.")
    format_note = (
        "Its own `ls -lA` (BSD columns: two blanks around the group), owner "
        "and group names, local time, sorted by name, and a `total N` line "
        "first, which brindle's LIST pattern rejects: every command that "
        "reads a listing (`--list PATH`, `--download`, `--remove`) fails "
        "before it changes anything, and no option of the daemon leaves "
        "the line out. Listing a directory's contents (`--list DIR/.`, "
        "which passes the answer through) and uploads work. Not chrooted: "
        "`PWD` names the account's home by its machine path; NLST in "
        "directory order; files made with umask 027 unless `-u` says "
        "otherwise.")
    why_rejected = ("the server starts every LIST answer with a `total N` "
                    "line, which the LIST pattern rejects; no setting of "
                    "GNU inetutils ftpd leaves it out")

    def daemon_argv(self):
        return [str(FTPD), "-a", "default", "-u", "022", "-d", "-l"]

    def version(self):
        version = unpacked_version("inetutils-ftpd")
        if not version:
            # Unpacked by hand: the program's own word.
            done = subprocess.run([str(FTPD), "--version"],
                                  stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT)
            return done.stdout.decode(errors="replace").splitlines()[0]
        return "inetutils-ftpd " + version

