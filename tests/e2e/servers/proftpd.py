"""ProFTPD, unpacked from Debian's package by scripts/ftp-servers.sh,
authenticating the local test account from its own user file: chrooted
(DefaultRoot ~), and without chroot as Debian ships it."""

import grp
import re
import subprocess

import ftptest
from ftptest import HOST

from .base import DaemonServer
from .dialect import Dialect

PROFTPD = ftptest.server_file("usr/sbin/proftpd")
PROFTPD_MODULES = ftptest.server_file("usr/lib/proftpd")
# The ProFTPD modules the tests use that a build may have left out of the
# binary and ship as loadable modules instead (Debian 13 does so): transfers
# and their settings, and listings.
PROFTPD_LOADABLE = ("mod_xfer.c", "mod_ls.c")


class ProftpdDialect(Dialect):
    # ProFTPD: names from its own user and group files (numbers for
    # others), "Jan  1", NLST in directory order.
    widths = (3, 8, 8, 8)
    sorted_nlst = False

    def owner(self, st):
        account = self.server.account
        return account.name if st.st_uid == account.uid else str(st.st_uid)

    def group(self, st):
        account = self.server.account
        if st.st_gid == account.gid:
            return grp.getgrgid(account.gid).gr_name
        return str(st.st_gid)


class ProftpdServer(DaemonServer):
    """ProFTPD, authenticating the local account from its own user file
    and logging every command with ExtendedLog."""

    kind = "proftpd"
    title = "ProFTPD"
    column = "ProFTPD"
    daemon = PROFTPD
    # One "%r" a line: the request exactly as received, except that PASS
    # reads "PASS (hidden)".
    command_pattern = re.compile(r"(.*)")
    dialect = ProftpdDialect
    expect = ("Everything works (keep `-R` and `-h` out of "
              "`ListOptions`).")
    format_note = ("Owner and group by name from its own user and group "
                   "files (numbers for others), day padded with a blank "
                   "(`Jan  1  2010`), times in UTC (TimesGMT), LIST sorted "
                   "by name but NLST in directory order, fifos listed.")

    def prepare(self):
        group = grp.getgrgid(self.account.gid).gr_name
        users = self.tmp / "passwd"
        groups = self.tmp / "group"
        users.write_text("%s:%s:%d:%d::%s:/bin/sh\n" % (
            self.account.name, ftptest.crypt_hash(self.password, "sha-512"),
            self.account.uid, self.account.gid, self.root))
        users.chmod(0o600)
        groups.write_text("%s:x:%d:%s\n" % (group, self.account.gid,
                                             self.account.name))
        lines = ['ModulePath %s' % PROFTPD_MODULES]
        for module in PROFTPD_LOADABLE:
            lines += ['<IfModule !%s>' % module, 'LoadModule %s' % module,
                      '</IfModule>']
        lines += [
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
            # No delays after a failed login; without the module, none.
            '<IfModule mod_delay.c>',
            'DelayEngine off',
            '</IfModule>',
            'WtmpLog off',
            'UseReverseDNS off',
            'TransferLog NONE',
            'AuthOrder mod_auth_file.c',
            'AuthUserFile %s' % users,
            'AuthGroupFile %s' % groups,
            'RequireValidShell off',
        ] + (['DefaultRoot ~'] if self.chroot else []) + [
            'AllowOverwrite on',
            'Umask 022',
            'LogFormat commands "%r"',
            'ExtendedLog %s ALL commands' % self.log_path,
        ] + self.options
        self.conf_path = self.tmp / "proftpd.conf"
        self.conf_path.write_text("".join(line + "\n" for line in lines))

    def argv(self):
        return [str(PROFTPD), "-n", "-c", str(self.conf_path)]

    def version(self):
        done = subprocess.run([str(PROFTPD), "-v"], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
        return done.stdout.decode(errors="replace").strip()


class ProftpdHomeServer(ProftpdServer):
    """ProFTPD without DefaultRoot: the session starts in the account's
    home, the temporary root, and absolute paths are the machine's own."""

    kind = "proftpd-nochroot"
    title = "ProFTPD without chroot"
    column = "ProFTPD no-chroot"
    chroot = False
    format_note = ("As ProFTPD's. Started without `DefaultRoot`, as Debian "
                   "ships it: the account logs in to its home, the served "
                   "folder, which `PWD` names by its machine path; brindle's "
                   "`DELE` and `RMD` carry that path in front of the remote "
                   "path.")


# Runs a program with its own /dev holding a "log" socket of ours, so that
# a daemon that can only log to syslog logs to the test instead (the
