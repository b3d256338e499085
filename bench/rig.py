"""The server side of a run: a throwaway local account, a vsftpd on
127.0.0.1 serving a temporary root to it and logging every FTP command, the
clock that stamps that log, and a local working folder. stop() removes all
of it again, however far start() got.
"""

import tempfile

import ftptest  # the end-to-end tests' account and helpers
from servers.vsftpd import VsftpdServer

from serverlog import LogClock


class Rig(object):

    def __init__(self, tmpdir):
        self.tmpdir = tmpdir
        self.account = self.server = self.clock = None
        self.work = None     # bench.py's own files (stdout, stderr, chart)
        self.local = None    # the tools' local side, owned by the account

    def start(self):
        tempfile.tempdir = self.tmpdir
        ftptest.TEMP_PREFIX = "brindle-bench-"
        self.account = ftptest.LocalAccount().create()
        self.server = VsftpdServer(self.account).start()
        self.clock = LogClock(self.server.log_path)
        self.work = ftptest.make_temp_dir("bench")
        self.local = self.work / "local"
        self.local.mkdir()
        self.account.chown(self.local)

    def stop(self):
        if self.clock is not None:
            self.clock.stop()
        if self.server is not None:
            self.server.stop()
        ftptest.remove_tree(self.work)
        if self.account is not None:
            self.account.remove()

    def base_url(self):
        return "ftp://%s:%d" % (ftptest.HOST, self.server.port)
