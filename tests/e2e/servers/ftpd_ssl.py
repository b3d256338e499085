"""ftpd-ssl (the BSD ftpd with TLS, Debian 12's ftpd-ssl), unpacked by
scripts/ftp-servers.sh (it conflicts with vsftpd; on Debian 13, which has no
such package, the script takes Debian 12's), run inetd-style behind socat
and speaking plain FTP, logging in an account of its own through the PAM
service "ftp" (the package's /etc/pam.d/ftp, given to the daemon alone in
its mount namespace)."""

import re
import shutil
import socket

import ftptest

from .base import InetdServer, unpacked_version
from .dialect import LsDialect

FTPD = ftptest.server_file("usr/sbin/in.ftpd")
PAM_FTP = ftptest.server_file("etc/pam.d/ftp")


class FtpdSslDialect(LsDialect):
    """The system's "ls -lA" (GNU coreutils), NLST in directory order."""

    sorted_nlst = False


class FtpdSslServer(InetdServer):
    kind = "ftpd-ssl"
    title = "ftpd-ssl"
    column = "ftpd-ssl"
    daemon = FTPD
    install = ("run scripts/ftp-servers.sh, which takes Debian 12's package "
               "on a Debian release without one")
    # -d: every command to syslog.
    command_pattern = re.compile(r"ftpd\[\d+\]: command: (.*)$")
    dialect = FtpdSslDialect
    expect = ("Only uploads and `--list DIR/.` work: the `total N` line of "
              "every listing stops the rest.")
    format_note = (
        "The system's `/bin/ls -lA` (GNU coreutils): owner and group names, "
        "columns as wide as their widest value, local time, sorted by name, "
        "and a `total N` line first, which brindle's LIST pattern rejects: "
        "every command that reads a listing (`--list PATH`, `--download`, "
        "`--remove`) fails before it changes anything, and no option of the "
        "daemon leaves the line out. Listing a directory's contents and "
        "uploads work. Plain FTP needs no TLS setup. Not chrooted; NLST in "
        "directory order; in active mode the server connects from the port "
        "below its own (ftp-data). Debian 13 no longer ships ftpd-ssl; "
        "Debian 12's package runs there, with Debian 13's libraries.")
    why_rejected = ("the server starts every LIST answer with a `total N` "
                    "line (the system's `ls -lA`), which the LIST pattern "
                    "rejects; no setting of ftpd-ssl leaves it out")

    def choose_port(self):
        # In active mode the daemon connects from the port below its own
        # (ftp-data): both must be free.
        for _ in range(50):
            port = ftptest.free_port()
            if port > 1024 and not ftptest.is_listening(port - 1):
                try:
                    with socket.socket() as s:
                        s.bind((ftptest.HOST, port - 1))
                except OSError:
                    continue
                return port
        return ftptest.free_port()

    def prepare(self):
        InetdServer.prepare(self)
        pam = self.tmp / "pam.d"
        if not pam.exists():
            shutil.copytree("/etc/pam.d", str(pam), symlinks=True)
            shutil.copy(str(PAM_FTP), str(pam / "ftp"))

    def binds(self):
        return [(self.tmp / "pam.d", "/etc/pam.d")]

    def daemon_argv(self):
        return [str(FTPD), "-u", "022", "-d", "-l"]

    def version(self):
        # Taken from another Debian release, the stamp names its suite
        # after the version: "0.17.36+really0.17-2 bookworm".
        version, _, suite = unpacked_version("ftpd-ssl").partition(" ")
        if suite:
            return "ftpd-ssl %s (Debian %s's package)" % (version, suite)
        return "ftpd-ssl " + version
