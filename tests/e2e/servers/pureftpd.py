"""Pure-FTPd, unpacked from Debian's package by scripts/ftp-servers.sh,
authenticating the local test account from its own PureDB file and logging
every command (-d) to a syslog socket of the test's."""

import grp
import re
import subprocess

import ftptest
from ftptest import HOST

from .base import SyslogDaemonServer
from .dialect import Dialect

PURE_FTPD = ftptest.server_file("usr/sbin/pure-ftpd")
PURE_PW = ftptest.server_file("usr/bin/pure-pw")

_PURE_COMMAND = re.compile(r"\[DEBUG\] Command \[([^\]]*)\] \[(.*)\]$")


class PureftpdDialect(Dialect):
    # Pure-FTPd: numeric owner but the login group's name (cut to 10
    # characters), local time, no fifos in LIST, and an NLST in directory
    # order that includes "." and "..".
    widths = (4, 10, 10, 10)
    gmt = False
    lists_fifos = False
    nlst_dots = True

    def group(self, st):
        account = self.server.account
        if st.st_gid == account.gid:
            return grp.getgrgid(account.gid).gr_name[:10]
        return str(st.st_gid)


class PureftpdServer(SyslogDaemonServer):
    """Pure-FTPd serving a temporary root as the local account."""

    kind = "pureftpd"
    title = "Pure-FTPd"
    column = "Pure-FTPd"
    daemon = PURE_FTPD
    dialect = PureftpdDialect
    expect = ("Works, but fifos are invisible: a folder holding one cannot "
              "be removed.")
    format_note = ("Numeric owner but the login group's *name*, cut to 10 "
                   "characters, day padded with a blank, local time, LIST "
                   "sorted by name and without fifos (they are invisible: "
                   "`--list` of one cannot find it, and a tree holding one "
                   "cannot be removed), NLST in directory order with `.` "
                   "and `..` among the names.")

    def prepare(self):
        SyslogDaemonServer.prepare(self)
        users = self.tmp / "pureftpd.passwd"
        users.write_text("%s:%s:%d:%d::%s/./::::::::::::\n" % (
            self.account.name, ftptest.crypt_hash(self.password, "sha-512"),
            self.account.uid, self.account.gid, self.root))
        self.db_path = self.tmp / "pureftpd.pdb"
        done = subprocess.run([str(PURE_PW), "mkdb", str(self.db_path), "-f",
                               str(users)], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        if done.returncode != 0:
            raise RuntimeError("pure-pw mkdb failed: " + done.stdout.decode(
                errors="replace"))

    def argv(self):
        return self.syslog.wrap(
            [PURE_FTPD, "-S", "%s,%d" % (HOST, self.port), "-l",
             "puredb:%s" % self.db_path, "-E", "-H", "-A", "-u", "1",
             "-d"] + self.options)

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
