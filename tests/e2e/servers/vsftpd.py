"""vsftpd, installed as Debian's package, serving a temporary root as the
local test account: chrooted, and without chroot as Debian ships it."""

import os
import re
import signal

import ftptest
from ftptest import HOST

from .base import DaemonServer, package_version
from .dialect import Dialect

VSFTPD = "/usr/sbin/vsftpd"


class VsftpdDialect(Dialect):
    # vsftpd: numeric owner and group, "Jan 01".
    widths = (4, 8, 8, 8)
    zero_padded_day = True


class VsftpdServer(DaemonServer):
    """vsftpd serving a temporary root as a local account, chrooted (or,
    with chroot False, starting there as Debian's default does)."""

    kind = "vsftpd"
    title = "vsftpd"
    column = "vsftpd"
    daemon = VSFTPD
    install = "apt-get install vsftpd"
    port_taken = "could not bind"
    reports_on_stdin = True
    # log_ftp_protocol=YES; PASS reads "PASS <password>", and unprintable
    # bytes "?".
    command_pattern = re.compile(r'FTP command: Client "[^"]*", "(.*)"$')
    dialect = VsftpdDialect
    expect = "Everything works."
    format_note = ("Numeric owner and group, day with a leading zero "
                   "(`Jan 01  2010`), times in UTC, LIST and NLST sorted by "
                   "name, fifos listed.")

    @classmethod
    def required_in_ci(cls):
        # Installed as a package, not unpacked: the suite skips without
        # it, as it always did.
        return False

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
            ("chroot_local_user", "YES" if self.chroot else "NO"),
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
        ftptest.stop_process(self.proc,
                             extra_pids=ftptest.pids_with_cmdline(self.argv()))
        ftptest.signal_pids(ftptest.pids_with_cmdline(self.argv()),
                            signal.SIGKILL)
        self.proc = None

    def version(self):
        return "vsftpd " + package_version("vsftpd")


class VsftpdHomeServer(VsftpdServer):
    """vsftpd without chroot: the session starts in the temporary root and
    absolute paths are the machine's own."""

    kind = "vsftpd-nochroot"
    title = "vsftpd without chroot"
    column = "vsftpd no-chroot"
    chroot = False
    format_note = ("As vsftpd's. Started with `chroot_local_user=NO` and "
                   "`local_root` set to the served folder, as Debian's "
                   "vsftpd logs a local account in to its home: `PWD` names "
                   "the folder's machine path, and brindle's `DELE` and "
                   "`RMD` carry that path in front of the remote path.")


# ------------------------------------------- servers unpacked, not installed
