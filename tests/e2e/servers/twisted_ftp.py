"""Twisted's FTP server (Debian's python3-twisted), run by a small program
of ours: twistd's own "ftp" plugin binds every address and its password
file checkers never log anyone in on Python 3, so the program builds the
same FTPFactory over a portal with an in-memory account, listening on
127.0.0.1 only, data connections included."""

import stat
import time

from .base import PythonServer, module_version
from .dialect import MONTHS, Dialect, mode_string

# Runs after base.PROGRAM_PRELUDE, which gives it root, user, password,
# event() and listening().
PROGRAM = r'''
from twisted.cred import checkers, portal
from twisted.internet import reactor
from twisted.protocols import ftp
from twisted.python import filepath


class Realm(ftp.BaseFTPRealm):
    def getHomeDirectory(self, avatarId):
        return filepath.FilePath(root)


class LoggingFTP(ftp.FTP):
    def connectionMade(self):
        event("connect")
        ftp.FTP.connectionMade(self)

    def connectionLost(self, reason):
        ftp.FTP.connectionLost(self, reason)
        event("disconnect")

    def lineReceived(self, line):
        text = line.decode("utf-8", "surrogateescape")
        command, _, arg = text.partition(" ")
        event("command", command=command.upper(), arg=arg)
        return ftp.FTP.lineReceived(self, line)

    def listenFactory(self, port, factory, interface=""):
        # Passive data connections on loopback too (Twisted 24 names the
        # control connection's address, older releases nothing).
        return reactor.listenTCP(port, factory, interface="127.0.0.1")


checker = checkers.InMemoryUsernamePasswordDatabaseDontUse()
checker.addUser(user, password)
factory = ftp.FTPFactory(portal.Portal(Realm(root), [checker]))
factory.protocol = LoggingFTP
listener = reactor.listenTCP(0, factory, interface="127.0.0.1")
listening(listener.getHost().port)
reactor.run()
'''


class TwistedDialect(Dialect):
    """Twisted's LIST: fixed columns, owner and group names cut to eight
    characters, the date in UTC with the year for any other calendar
    year, in directory order.  Everything is shown through the link:
    a link as what it points to, with the target's size, and whatever is
    not a directory (a fifo too) as a plain file "-"."""

    names = True
    follows_links = True
    sorted_list = False

    def date(self, mtime):
        t = time.gmtime(mtime)
        if time.gmtime().tm_year != t.tm_year:
            return "%s %02d %5d" % (MONTHS[t.tm_mon - 1], t.tm_mday,
                                    t.tm_year)
        return "%s %02d %02d:%02d" % (MONTHS[t.tm_mon - 1], t.tm_mday,
                                      t.tm_hour, t.tm_min)

    def line(self, path, name=None):
        st = self.stat(path)
        name = path.name if name is None else name
        kind = "d" if stat.S_ISDIR(st.st_mode) else "-"
        return "%s%s%4d %-9s %-9s %15d %12s %s" % (
            kind, mode_string(st)[1:], st.st_nlink, self.owner(st)[:8],
            self.group(st)[:8], st.st_size, self.date(st.st_mtime), name)

    def kind_of(self, path):
        return "dir" if stat.S_ISDIR(self.stat(path).st_mode) else "file"

    def refuses_retr(self, path):
        if stat.S_ISREG(self.stat(path).st_mode):
            return None
        return ("the server lists a fifo as a plain file but answers SIZE "
                "on it with 550, so libcurl gives up on the download; the "
                "files before it in the listing were downloaded, the fifo's "
                "local file is left empty")


class TwistedServer(PythonServer):
    """Twisted's FTP server, chrooted to the temporary root."""

    kind = "twisted"
    title = "Twisted FTP"
    column = "Twisted"
    modules = ("twisted.protocols.ftp",)
    PROGRAM = PROGRAM
    dialect = TwistedDialect
    refuses = frozenset(["NLST"])
    expect = ("Works but for `--list DIR/.` (use `--long-listing`); links "
              "are copies, and a folder holding a fifo cannot be "
              "downloaded.")
    format_note = (
        "Fixed columns, owner and group names cut to 8 characters, the date "
        "in UTC with the year for any other calendar year (`Jan 01  2010`), "
        "entries in directory order. Everything is shown through links: a "
        "symbolic link as a plain file with its target's size (downloaded "
        "as a copy of the target, removed as the link itself), a fifo as a "
        "plain file, whose download then fails: the server answers `SIZE` "
        "on it with 550. `NLST` without an argument is refused (`500 Syntax "
        "error: NLST requires an argument.`), so `--list DIR/.` fails while "
        "`--long-listing` works. Chrooted; no `EPSV`/`EPRT` (libcurl falls "
        "back to `PASV`/`PORT`; Twisted 24 has both); files are stored as "
        "the server's own user. In active mode libcurl 7.88 reports a "
        "refusal with the text that its refused `EPRT` left behind "
        "(`sa_addr inet_ntop() failed ...`), libcurl 8 with its own.")

    def version(self):
        return "Twisted " + module_version("twisted")

