"""Models of LIST answers: how a server writes LIST and NLST answers as
a function of the files it serves.  Dialect is a Unix long listing;
LsDialect one made the way "ls -lA" makes it, "total N" line included.
Each server's module adapts one to its own format."""

import grp
import os
import pwd
import stat
import subprocess
import time

MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
HALF_YEAR = 180 * 86400


def mode_string(st):
    kinds = {stat.S_IFDIR: "d", stat.S_IFLNK: "l", stat.S_IFIFO: "p",
             stat.S_IFREG: "-", stat.S_IFSOCK: "s", stat.S_IFCHR: "c",
             stat.S_IFBLK: "b"}
    perms = ""
    for who in range(3):
        bits = (st.st_mode >> (6 - 3 * who)) & 7
        perms += ("r" if bits & 4 else "-") + ("w" if bits & 2 else "-") + \
            ("x" if bits & 1 else "-")
    return kinds[stat.S_IFMT(st.st_mode)] + perms


def directory_order(directory, dots=False):
    """Names in the order the file system hands them out (what a server
    that does not sort shows), optionally with "." and ".." where they
    come."""
    done = subprocess.run(["ls", "-f", str(directory)],
                          stdout=subprocess.PIPE, check=True,
                          env={"LC_ALL": "C", "PATH": os.defpath})
    names = done.stdout.decode("utf-8", "surrogateescape").splitlines()
    return names if dots else [n for n in names if n not in (".", "..")]


def name_of(lookup, number):
    """The name of a user or group number by lookup (pwd.getpwuid or
    grp.getgrgid), or the number where there is no such entry."""
    try:
        return lookup(number)[0]
    except KeyError:
        return str(number)


class DotEntry(object):
    """The "." or ".." entry of a listing: its name, and the served
    directory it stands for (what str() and the status functions see)."""

    def __init__(self, name, target):
        self.name = name
        self.target = target

    def __str__(self):
        return str(self.target)

    def __fspath__(self):
        return str(self.target)


class Dialect(object):
    """How one server writes LIST and NLST answers, as a function of the
    served files.  The default is a Unix long listing: one line per
    entry, no summary line, links shown as "name -> target"."""

    # LIST line: link count, owner, group and size widths.
    widths = None
    # Owner and group by name, from the system's password and group files
    # (by number where they have none), rather than by number.
    names = False
    zero_padded_day = False
    gmt = True
    sorted_list = True
    sorted_nlst = True
    lists_fifos = True
    nlst_dots = False
    # "." and ".." among the LIST entries.
    list_dots = False
    # Symbolic links shown as what they point to (a plain file with the
    # target's size), not as links; dangling ones left out.
    follows_links = False
    # The line end the server sends after each LIST line.
    eol = "\r\n"

    def __init__(self, server):
        self.server = server

    def owner(self, st):
        if self.names:
            return name_of(pwd.getpwuid, st.st_uid)
        return str(st.st_uid)

    def group(self, st):
        if self.names:
            return name_of(grp.getgrgid, st.st_gid)
        return str(st.st_gid)

    def date(self, mtime):
        t = time.gmtime(mtime) if self.gmt else time.localtime(mtime)
        day = ("%02d" if self.zero_padded_day else "%2d") % t.tm_mday
        if 0 <= time.time() - mtime < HALF_YEAR:
            return "%s %s %02d:%02d" % (MONTHS[t.tm_mon - 1], day, t.tm_hour,
                                        t.tm_min)
        return "%s %s  %d" % (MONTHS[t.tm_mon - 1], day, t.tm_year)

    def stat(self, path):
        """The status that the server shows for a served path."""
        if self.follows_links:
            return os.stat(str(path))
        return os.lstat(str(path))

    def line(self, path, name=None):
        """The LIST line of one served path."""
        st = self.stat(path)
        links, owner, group, size = self.widths
        name = path.name if name is None else name
        if stat.S_ISLNK(st.st_mode):
            name += " -> " + os.readlink(str(path))
        return "%s %*d %-*s %-*s %*d %s %s" % (
            mode_string(st), links, st.st_nlink, owner, self.owner(st),
            group, self.group(st), size, st.st_size, self.date(st.st_mtime),
            name)

    def visible(self, path):
        try:
            mode = self.stat(path).st_mode
        except FileNotFoundError:       # a dangling link, followed
            return False
        return self.lists_fifos or not stat.S_ISFIFO(mode)

    def kind_of(self, path):
        """What the listing shows a served path as: "dir", "link", "file"
        or "other"."""
        mode = self.stat(path).st_mode
        if stat.S_ISDIR(mode):
            return "dir"
        if stat.S_ISLNK(mode):
            return "link"
        if stat.S_ISREG(mode):
            return "file"
        return "other"

    def list_entries(self, directory):
        """The paths that LIST shows for a served directory, in its order
        ("." and ".." included where the server lists them)."""
        names = directory_order(directory)
        if self.sorted_list:
            names = sorted(names)
        entries = [directory / n for n in names if self.visible(directory / n)]
        if self.list_dots:
            entries = [DotEntry(".", directory),
                       DotEntry("..", directory.parent)] + entries
        return entries

    def entry_name(self, path):
        """The name an entry of list_entries() has in the listing."""
        return path.name

    def summary(self, directory):
        """Lines the server sends before the entries (e.g. "total 8")."""
        return []

    def list_lines(self, directory):
        """The LIST answer's lines, without line ends."""
        return self.summary(directory) + [
            self.line(p, self.entry_name(p))
            for p in self.list_entries(directory)]

    def list_body(self, directory):
        """The LIST answer's bytes as the server sends them."""
        return "".join(line + self.eol
                       for line in self.list_lines(directory)).encode(
                           "utf-8", "surrogateescape")

    def list_text(self, directory):
        """The LIST answer as libcurl hands it on (CRLF as LF)."""
        return "".join(line + "\n" for line in self.list_lines(directory))

    def nlst_text(self, directory):
        """The NLST answer as libcurl hands it on."""
        return "".join(n + "\n" for n in self.nlst_names(directory))

    def refuses_retr(self, path):
        """Why the server refuses to send a served path that its listing
        shows as a file, or None."""
        return None

    def nlst_names(self, directory):
        if self.nlst_dots:
            return directory_order(directory, dots=True)
        names = directory_order(directory)
        return sorted(names) if self.sorted_nlst else names


class LsDialect(Dialect):
    """A listing made the way "ls -lA" makes it (the inetd-style daemons
    run an ls of their own or the system's): a "total N" line first (the
    entries' 512-byte blocks, counted in KiB), then the entries sorted by
    name, each column as wide as its widest value, owner and group by
    name, local time."""

    names = True
    gmt = False
    # What stands between the columns: after the mode, after the link
    # count, after the owner, after the group.
    gaps = (" ", " ", " ", " ")

    def summary(self, directory):
        blocks = sum(os.lstat(str(p)).st_blocks
                     for p in self.list_entries(directory))
        return ["total %d" % ((blocks + 1) // 2)]

    def list_lines(self, directory):
        entries = self.list_entries(directory)
        stats = [os.lstat(str(p)) for p in entries]
        widths = [max([len(str(v)) for v in values] or [0]) for values in (
            [st.st_nlink for st in stats], [self.owner(st) for st in stats],
            [self.group(st) for st in stats], [st.st_size for st in stats])]
        return self.summary(directory) + [
            self._line(p, st, widths) for p, st in zip(entries, stats)]

    def line(self, path, name=None):
        # One entry alone, as in a listing of its folder.
        directory = path.parent
        for candidate in self.list_lines(directory)[1:]:
            if candidate.endswith(" " + path.name) or \
                    (" " + path.name + " -> ") in candidate:
                return candidate
        raise KeyError(path)

    def _line(self, path, st, widths):
        links, owner, group, size = widths
        name = path.name
        if stat.S_ISLNK(st.st_mode):
            name += " -> " + os.readlink(str(path))
        g = self.gaps
        return "%s%s%*d%s%-*s%s%-*s%s%*d %s %s" % (
            mode_string(st), g[0], links, st.st_nlink, g[1], owner,
            self.owner(st), g[2], group, self.group(st), g[3], size,
            st.st_size, self.date(st.st_mtime), name)
